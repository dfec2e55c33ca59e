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
    const bool save = request.For == FileDialogRequest::Purpose::Save;
    output_.PrintLine(save ? "dialog: save " + OneLine(request.ProposedName) : "dialog: open");
    std::lock_guard<std::mutex> guard(answerLock_);
    std::optional<std::string> answer;
    answer.swap(nextAnswer_);
    return answer;
}

void StationDesktop::SetBrowserRunning(bool running) {
    browserRunning_.store(running);
}

void StationDesktop::AnswerNextDialog(std::optional<std::string> answer) {
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
