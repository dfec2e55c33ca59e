#include "station/station_desktop.h"

namespace kb::station {

using namespace kb::platform;

void StationDesktop::ShowFolder(const std::string& path) {
    output_.PrintLine("open: " + OneLine(path));
}

bool StationDesktop::OpenInBrowser(const std::string& page) {
    output_.PrintLine("browse: " + OneLine(page));
    return browserRunning_.load();
}

void StationDesktop::ActivateBrowser() {
    output_.PrintLine("raise: browser");
}

void StationDesktop::StartProgram(const std::string& path) {
    output_.PrintLine("run: " + OneLine(path));
}

std::optional<std::string> StationDesktop::ChooseFile(const FileDialogRequest& request) {
    const std::vector<std::string> answer = ChooseFiles(request);
    if (answer.empty()) {
        return std::nullopt;
    }
    return answer.front();
}

std::vector<std::string> StationDesktop::ChooseFiles(const FileDialogRequest& request) {
    switch (request.For) {
        case FileDialogRequest::Purpose::Save:
            output_.PrintLine("dialog: save " + OneLine(request.ProposedName));
            break;
        case FileDialogRequest::Purpose::Folder:
            output_.PrintLine("dialog: folder");
            break;
        case FileDialogRequest::Purpose::Open:
            output_.PrintLine("dialog: open");
            break;
    }
    std::lock_guard<std::mutex> guard(answerLock_);
    std::vector<std::string> answer;
    answer.swap(nextAnswer_);
    return answer;
}

void StationDesktop::SetBrowserRunning(bool running) {
    browserRunning_.store(running);
}

void StationDesktop::AnswerNextDialog(std::vector<std::string> answer) {
    std::lock_guard<std::mutex> guard(answerLock_);
    nextAnswer_ = std::move(answer);
}

void StationDesktop::HoldKey(Key key, bool down) {
    (key == Key::Shift ? shiftDown_ : controlDown_).store(down);
}

bool StationDesktop::KeyHeld(Key key) const {
    return (key == Key::Shift ? shiftDown_ : controlDown_).load();
}

}  // namespace kb::station
