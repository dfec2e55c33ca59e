#include "station/station_desktop.h"

#include <atomic>
#include <mutex>

#include "station/station_io.h"

namespace {

std::atomic<bool> BrowserRunning{true};
std::mutex AnswerLock;
std::optional<std::string> NextAnswer;
std::atomic<bool> ShiftDown{false};
std::atomic<bool> ControlDown{false};

}  // namespace

void StationDesktop::ShowFolder(const std::string& path) {
    PrintLine("open: " + OneLine(path));
}

bool StationDesktop::OpenInBrowser(const std::string& page) {
    PrintLine("browse: " + OneLine(page));
    return BrowserRunning.load();
}

void StationDesktop::ActivateBrowser() {
    PrintLine("raise: browser");
}

void StationDesktop::StartProgram(const std::string& path) {
    PrintLine("run: " + OneLine(path));
}

std::optional<std::string> StationDesktop::ChooseFile(const FileDialogRequest& request) {
    const bool save = request.For == FileDialogRequest::Purpose::Save;
    PrintLine(save ? "dialog: save " + OneLine(request.ProposedName) : "dialog: open");
    std::lock_guard<std::mutex> guard(AnswerLock);
    std::optional<std::string> answer;
    answer.swap(NextAnswer);
    return answer;
}

void StationDesktop::SetBrowserRunning(bool running) {
    BrowserRunning.store(running);
}

void StationDesktop::AnswerNextDialog(std::optional<std::string> answer) {
    std::lock_guard<std::mutex> guard(AnswerLock);
    NextAnswer = std::move(answer);
}

StationDesktop& TheStationDesktop() {
    static StationDesktop Desktop;
    return Desktop;
}

void HoldKey(Key key, bool down) {
    (key == Key::Shift ? ShiftDown : ControlDown).store(down);
}

bool KeyHeld(Key key) {
    return (key == Key::Shift ? ShiftDown : ControlDown).load();
}
