// A desktop for tests: every hand-off is noted as the station program prints
// it ("open: PATH", "browse: PAGE", "raise: browser", "run: PATH",
// "dialog: open", "dialog: folder", "dialog: save NAME"), and file dialogs
// take their answers from a queue, an empty queue cancelling; their titles
// are kept. Installed while it lives.
#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/desktop.h"

namespace kb::test {

using platform::Desktop;
using platform::FileDialogRequest;

class RecordingDesktop : public Desktop {
public:
    RecordingDesktop() { platform::InstallDesktop(this); }
    ~RecordingDesktop() override { platform::InstallDesktop(nullptr); }
    RecordingDesktop(const RecordingDesktop&) = delete;
    RecordingDesktop& operator=(const RecordingDesktop&) = delete;

    void ShowFolder(const std::string& path) override { Note("open: " + path); }
    bool OpenInBrowser(const std::string& page) override {
        Note("browse: " + page);
        return true;
    }
    void ActivateBrowser() override { Note("raise: browser"); }
    void StartProgram(const std::string& path) override { Note("run: " + path); }
    std::optional<std::string> ChooseFile(const FileDialogRequest& request) override {
        const std::vector<std::string> answer = ChooseFiles(request);
        return answer.empty() ? std::nullopt : std::optional<std::string>(answer.front());
    }
    std::vector<std::string> ChooseFiles(const FileDialogRequest& request) override {
        using Purpose = FileDialogRequest::Purpose;
        Note(request.For == Purpose::Save     ? "dialog: save " + request.ProposedName
             : request.For == Purpose::Folder ? "dialog: folder"
                                              : "dialog: open");
        std::lock_guard<std::mutex> guard(lock_);
        titles_.push_back(request.Title);
        if (answers_.empty()) {
            return {};
        }
        std::vector<std::string> answer = answers_.front();
        answers_.pop_front();
        return answer;
    }

    // The next dialog's answer; nothing for Cancel.
    void Answer(std::optional<std::string> answer) {
        Answer(answer ? std::vector<std::string>{*answer} : std::vector<std::string>{});
    }
    // The next dialog's answer, the paths chosen together; none for Cancel.
    void Answer(std::vector<std::string> answer) {
        std::lock_guard<std::mutex> guard(lock_);
        answers_.push_back(std::move(answer));
    }
    // What was handed over since the last call.
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<std::string> taken;
        taken.swap(noted_);
        return taken;
    }

    // The title each file dialog was given, in order.
    std::vector<std::string> Titles() {
        std::lock_guard<std::mutex> guard(lock_);
        return titles_;
    }

private:
    void Note(std::string what) {
        std::lock_guard<std::mutex> guard(lock_);
        noted_.push_back(std::move(what));
    }

    std::mutex lock_;
    std::vector<std::string> noted_;
    std::vector<std::string> titles_;
    std::deque<std::vector<std::string>> answers_;
};

}  // namespace kb::test
