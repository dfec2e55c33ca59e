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
#include "station/station_front_end.h"

namespace kb::station {

using namespace kb::app;
using namespace kb::platform;

namespace {

// A stopping signal closes the window, as its close box does.
void CloseWindow(const WindowHandle& handle) {
    MainLoop().Post([handle] {
        if (MainWindow* window = handle->load()) {
            WindowEvent event;
            event.Kind = EventKind::Close;
            window->HandleEvent(event);
        }
    });
}

}  // namespace

}  // namespace kb::station

int main() {
    using namespace kb::app;
    using namespace kb::platform;
    using namespace kb::station;

    // Its command input blocks the stop signals: made before any thread
    // starts, so that every thread inherits the mask.
    StationFrontEnd station;
    if (!station.Input.IsOpen()) {
        std::perror("kbstation");
        return 1;
    }
    SetMessageBoxHandler([&station](const std::string& text) {
        station.Output.PrintLine("message: " + OneLine(text));
    });
    // The command that raised a question meant what it asked for: a station
    // answers Yes, and prints what it was asked.
    SetQuestionHandler([&station](const std::string& text) {
        station.Output.PrintLine("question: " + OneLine(text));
        return true;
    });
    SetKeyStateQuery([&station](Key key) { return station.Desktop.KeyHeld(key); });
    InstallDesktop(&station.Desktop);
    const int listener =
        Controls().AddListener([&station](const ControlEvent&) { station.Waits.NoteChange(); });
    station.Input.Start(
        [&station](const std::string& command) { return RunStationCommand(station, command); },
        [&station] { CloseWindow(station.App.Window()); },
        [&station] { station.Waits.NoteCommandsEnded(); });

    station.App.PrepareWindow = [&station](MainWindow& window) {
        window.SetLogObserver(
            [&station](const std::string& line) { station.Waits.NoteLogLine(line); });
    };
    station.App.InitInstance();

    station.Waits.NoteLoopEnded();
    station.Input.Stop();
    Controls().RemoveListener(listener);
    SetMessageBoxHandler(nullptr);
    SetQuestionHandler(nullptr);
    SetKeyStateQuery(nullptr);
    InstallDesktop(nullptr);
    return 0;
}
