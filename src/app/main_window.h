// The program's one window, without a windowing platform.
//
// MainWindow keeps the state of every control in the control model
// (Controls()), and its panels do the work of the controls, each of its own
// (window_panel.h). The engine's threads call the panels' display operations
// directly, through the engine's Window, from whatever thread they run on; none of
// them waits for another thread. A front end (the station program, or a
// drawn window) shows the model and hands the user's actions to HandleEvent
// on the main loop's thread; nothing here depends on which front end, if
// any, is there.
//
// This header is what a front end sees of the program: it names nothing of
// the engine, the line or the stores, whose headers a front end cannot
// include, but for the name of the line's class, which the window is handed.
// What a front end needs to know of them, such as the state of the link, the
// window tells.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "app/desktop_links.h"
#include "app/directory_panel.h"
#include "app/file_list.h"
#include "app/line_panel.h"
#include "app/log_panel.h"
#include "app/transfer_display.h"
#include "app/window_panel.h"
#include "platform/thread.h"
#include "version/version.h"

namespace kb::engine {
struct TransferEngine;
}  // namespace kb::engine

namespace kb::line {
class Line;
}  // namespace kb::line

namespace kb::stores {
class Installation;
}  // namespace kb::stores

namespace kb::app {

using platform::ThreadHandle;

// The line to the adapter (line/line.h), which the window is handed; a front
// end sees no more of it than its name.
using line::Line;
// The transfer engine (engine/transfer_engine.h), which the window is handed
// and starts; a front end sees no more of it than its name.
using engine::TransferEngine;

// The window itself, kept in the control model beside its controls: its text
// is the caption.
inline constexpr int IDD_MAIN_WINDOW = 102;
inline constexpr const char* WindowCaption = "Kestrelbound";
// The window's title: the installation's folder and, once the adapter has
// told it, this end's own number, in front of the program's name, so that two
// windows on one desktop are told apart at a glance. Without a folder the
// title is the program's name alone.
[[nodiscard]] std::string WindowTitle(const std::string& installation,
                                      const std::string& ownNumber);
// The About box, kept in the control model beside the window's controls: shown
// while the box is open, with its text and picture.
inline constexpr int IDD_ABOUTBOX = 100;
inline constexpr const char* AboutText = "Kestrelbound Version " KB_VERSION;
inline constexpr uint32_t SplashMs = 1000;

// The window's labels and its emblem have no resource numbers of their own;
// these numbers name them in the control model. The emblem is a button that
// opens the About box.
inline constexpr int IDC_LABEL_DIRECTORY = 2001;
inline constexpr int IDC_LABEL_PROTOCOL = 2002;
inline constexpr int IDC_LABEL_CARRIER = 2003;
inline constexpr int IDC_LABEL_FILE_LIST = 2004;
inline constexpr int IDC_LABEL_LOG = 2005;
inline constexpr int IDC_LABEL_IN_PROTOCOL = 2006;
inline constexpr int IDC_EMBLEM = 2007;

// Where a control lies in the window, in dialog units of a window of 351 x 250.
struct ControlPlace {
    int Id = 0;
    const char* Name = "";  // "IDC_..." for a control that has a resource number
    int X = 0;
    int Y = 0;
    int Width = 0;
    int Height = 0;
};
// Every control of the window, in the order in which the window makes them.
const std::vector<ControlPlace>& MainWindowLayout();
// The resource name of a control ("IDC_SEND"); "" for a label.
std::string ControlName(int id);
// What a picture button does, in words: its tooltip and the name a screen
// reader gives it. "" for a control whose own text says it.
std::string ControlTip(int id);

// What a front end reports of the user. Every event is handled on the main
// loop's thread, one at a time, as a window's messages are.
enum class EventKind {
    ButtonPressed,     // Id: a button or picture button
    SelectionChanged,  // Id: a list box, drop-down or the file list; Row: the row, -1 none
    TextEdited,        // Id: an edit field; Text: its whole new text
    BoxClicked,        // Id: a check box or radio button; Checked: its state after the click
    MenuCommand,       // Id: the command, from the menu bar or the system menu
    FilesDropped,      // Id: the control under the drop, 0 for none; Paths: the items
    AboutOk,           // the About box's OK, or a click on its picture
    Close,             // the window's close box
};

struct WindowEvent {
    EventKind Kind = EventKind::ButtonPressed;
    int Id = 0;
    int Row = -1;
    bool Checked = false;
    std::string Text;
    std::vector<std::string> Paths;
};

class EngineDisplay;

// What the user may do now, taken from one look at the link and at the file
// list, so that the buttons never disagree with each other: Send and Retrieve
// exclude each other, and a call shuts all but Disconnect.
struct Permissions {
    bool Send = false;        // call and send the file list
    bool Retrieve = false;    // call and fetch, with nothing to send
    bool Disconnect = false;  // end the call under way
    bool EditFiles = false;   // add to the file list, change the incoming settings
    bool ClearFiles = false;  // clear the file list, or delete a row of it
};

// The window is its panels; each owns its controls, and HandleEvent hands an
// event on a control to the panel that owns it. What concerns the whole
// window stays here: the start and stop, the timers, the About box, the
// menus, and the rule that couples the buttons to the link.
using stores::Installation;

class MainWindow {
public:
    // The window keeps and shows the stores of this installation, and works
    // on the line and the engine it is given; all three outlive it.
    MainWindow(Installation& stores, line::Line& line, TransferEngine& engine);
    ~MainWindow();
    MainWindow(const MainWindow&) = delete;
    MainWindow& operator=(const MainWindow&) = delete;

    // ---- Front ends ----

    // Called on the main loop's thread for each of the user's actions.
    EventOutcome HandleEvent(const WindowEvent& event);
    // Called with every line the log receives, in the order of the list, once
    // the line is in it. The station program prints them. Set it before the
    // window starts; it must not wait for another thread.
    void SetLogObserver(std::function<void(const std::string& line)> observer);
    // The state of the link, by name: one of LinkStateNames(), in the order
    // of the link's states from "idle" to "recovery".
    static const std::vector<std::string>& LinkStateNames();
    static std::string LinkStateName(TransferEngine& engine);

    // ---- The panels ----

    // The installation the window keeps: its paths, preferences, directory
    // and log.
    Installation& Stores() { return stores_; }

    DirectoryPanel& Correspondents() { return directory_; }
    FileListPanel& Files() { return files_; }
    TransferDisplay& Display() { return display_; }
    LogPanel& Log() { return log_; }
    DesktopButtons& Desktop() { return desktop_; }
    LinePanel& Line() { return line_; }

    // The line to the adapter, for the panels.
    line::Line& AdapterLine() { return adapterLine_; }
    // The engine the window starts and shows, for the panels.
    TransferEngine& Engine() { return engine_; }

    // ---- Start and stop ----

    // Makes the controls and menus in their start state, then the port record,
    // the engine's buffers, the lists, the Starting line, the communications
    // thread and the splash timer. False, after its message, when the port
    // record cannot be made: nothing then runs.
    bool OnInitDialog();
    // Ticks of timers 2, 3, 4 and 5.
    void OnTimer(int id);
    // The close box, and the menu's Exit, which is the same way out: prepares
    // the exit and ends the main loop.
    void OnClose();
    // Stops the hot folder timer and every engine thread, says goodbye to the
    // adapter and saves the preferences (only when an adapter was found), logs
    // the Stopping line and saves the log. Runs once.
    void PrepareExit();
    // True once OnInitDialog has started the engine, so that the end of the
    // program knows what to free.
    bool EngineStarted() const { return engineStarted_; }
    // True once the start is over: the search for the adapter that follows
    // the splash has ended, whether it found one or not, or the start failed
    // and no search will come. Any thread may ask; a front end that waits
    // for the window to settle (to take its picture) asks this.
    bool StartIsOver() const { return startOver_.load(); }

    // ---- The adapter ----

    // After the search: the adapter's own number, the protocols it offers,
    // its options and the incoming settings, and the Port Speed menu.
    void ShowAdapter(bool searchSucceeded);
    void ShowPortSpeed();

    // ---- The About box ----

    void OpenAboutBox();
    void OnAboutOk();

    // ---- What the user may do ----

    Permissions WhatTheUserMay() const;
    // The buttons of every panel follow WhatTheUserMay(). Runs whenever the
    // link, the file list or the record on show changes.
    void UpdateActionButtons();

private:
    Installation& stores_;

    void CreateControls();
    // The panel that owns the control; null for a control of none.
    WindowPanel* PanelOwning(int id);
    EventOutcome OnBoxClicked(WindowPanel& panel, int id, bool checked);
    EventOutcome OnMenuCommand(int id);
    // Items dropped on a control: the file list and Send take files and
    // folders, the directory list an exported entry.
    void OnDropFiles(int targetId, const std::vector<std::string>& paths);
    // The hot folder timer's tick.
    void SendDueHotFolder();
    void StopEngineThreads();
    // Ends the main loop, after the exit has been prepared.
    void EndDialog();

    line::Line& adapterLine_;
    TransferEngine& engine_;

    DirectoryPanel directory_;
    FileListPanel files_;
    TransferDisplay display_;
    LogPanel log_;
    DesktopButtons desktop_;
    LinePanel line_;

    // Serialises the button rule, so that the last caller's view of the link
    // is the one that stays on the buttons.
    std::mutex buttonsLock_;

    // What the engine's threads call; the engine's Window points at it while the
    // window exists.
    std::unique_ptr<EngineDisplay> engineDisplay_;

    bool engineStarted_ = false;
    // Set once the window has started: it then stands behind the log, the
    // timers and the engine's display calls until it goes.
    bool initialised_ = false;
    // Set until the first About box has closed: it tells the splash at start
    // apart from an About box that the user opens later.
    std::atomic<bool> splashPending_{true};
    std::atomic<bool> startOver_{false};
    ThreadHandle commThread_;
    bool commThreadStarted_ = false;
    bool exitPrepared_ = false;
};

// The part of a path behind its last "/"; a path that ends in "/" gives the
// name of the folder before it.
std::string FileNameOfPath(const std::string& path);
// The name shown and announced for a file: at most 31 bytes, as the record
// holds. A longer name keeps its extension and loses the end of its stem, and
// no character of several bytes is cut in two.
std::string ShortDisplayName(const std::string& name);

}  // namespace kb::app
