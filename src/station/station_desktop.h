// What stands in for the desktop and the keyboard in the station program.
//
// A station has no desktop to hand folders, pages and programs to, so each
// hand-off is printed as the user would have seen it go: "open: PATH" for a
// folder, "browse: PAGE" for a page, "run: PATH" for a program. A file dialog
// prints "dialog: open", "dialog: folder" or "dialog: save NAME" and takes
// the answer that the command which opened it gave; without one it is
// cancelled. The keys Shift
// and Ctrl are held down by commands.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/desktop.h"
#include "platform/key_state.h"
#include "station/station_io.h"

namespace kb::station {

using platform::Desktop;
using platform::FileDialogRequest;
using platform::Key;

class StationDesktop : public Desktop {
public:
    explicit StationDesktop(StationOutput& output) : output_(output) {}

    void ShowFolder(const std::string& path) override;
    [[nodiscard]] bool OpenInBrowser(const std::string& page) override;
    void ActivateBrowser() override;
    void StartProgram(const std::string& path) override;
    [[nodiscard]] std::optional<std::string> ChooseFile(const FileDialogRequest& request) override;
    [[nodiscard]] std::vector<std::string> ChooseFiles(const FileDialogRequest& request) override;

    // Whether a browser takes the pages handed to it; at start one does.
    void SetBrowserRunning(bool running);
    // The answer for the next file dialog: paths (one for a dialog that
    // takes one), or none for Cancel. A dialog takes it and leaves none for
    // the dialog after.
    void AnswerNextDialog(std::vector<std::string> answer);

    // Holds a key down, or lets it go.
    void HoldKey(Key key, bool down);
    [[nodiscard]] bool KeyHeld(Key key) const;

private:
    StationOutput& output_;
    // Set by a command on its own thread, read on the main loop's.
    std::atomic<bool> browserRunning_{true};
    std::atomic<bool> shiftDown_{false};
    std::atomic<bool> controlDown_{false};
    std::mutex answerLock_;
    std::vector<std::string> nextAnswer_;
};

}  // namespace kb::station
