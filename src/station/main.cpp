// kbstation: Kestrelbound without a window.
//
// Run in the installation's folder. It reads commands on standard input, one
// a line, and answers each with "ok" or "error: <why>" once it is done. Every
// line the program logs appears as "log: <line>" when it is added, every
// message box as "message: <text>". The user's commands run on the main
// loop's thread, between the window's timers, as clicks would; the end of the
// input leaves the station running, to answer calls; SIGINT and SIGTERM end
// it as the menu's Exit does.

#include <cstdio>

#include "app/application.h"
#include "app/control_model.h"
#include "app/main_window.h"
#include "platform/event_loop.h"
#include "platform/key_state.h"
#include "platform/message_box.h"
#include "station/commands.h"
#include "station/station_desktop.h"
#include "station/station_io.h"
#include "station/waits.h"

namespace {

// A stopping signal closes the window, as its close box does.
void CloseWindow() {
    MainLoop().Post([] {
        if (MainWindow* window = ActiveMainWindow()) {
            WindowEvent event;
            event.Kind = EventKind::Close;
            window->HandleEvent(event);
        }
    });
}

}  // namespace

int main() {
    // Before any thread starts, so that every thread inherits the mask.
    if (!BlockStopSignals()) {
        std::perror("kbstation");
        return 1;
    }
    SetMessageBoxHandler([](const std::string& text) { PrintLine("message: " + OneLine(text)); });
    SetKeyStateQuery(KeyHeld);
    InstallDesktop(&TheStationDesktop());
    const int listener = Controls().AddListener([](const ControlEvent&) { NoteChange(); });
    StartCommandInput(RunStationCommand, CloseWindow, NoteCommandsEnded);

    TransferApp app;
    app.PrepareWindow = [](MainWindow& window) { window.SetLogObserver(NoteLogLine); };
    app.InitInstance();

    NoteLoopEnded();
    StopCommandInput();
    Controls().RemoveListener(listener);
    SetMessageBoxHandler(nullptr);
    SetKeyStateQuery(nullptr);
    InstallDesktop(nullptr);
    return 0;
}
