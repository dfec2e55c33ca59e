// The program's one window, without a windowing platform.
//
// MainWindow keeps the state of every control in the control model
// (Controls()) and does the work of the controls. The engine's threads call
// its display operations directly, through TheMainWindow, from whatever thread
// they run on; none of them waits for another thread. A front end (the station
// program, or a drawn window) shows the model and hands the user's actions to
// HandleEvent on the main loop's thread; nothing here depends on which front
// end, if any, is there.
//
// This header is what a front end sees of the program: it names nothing of
// the engine, the line or the stores, whose headers a front end cannot
// include. What a front end needs to know of them, such as the state of the
// link, the window tells.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/thread.h"

// The window itself, kept in the control model beside its controls: its text
// is the caption.
inline constexpr int IDD_MAIN_WINDOW = 102;
inline constexpr const char* WindowCaption = "Kestrelbound";
// The About box, kept in the control model beside the window's controls: shown
// while the box is open, with its text and picture.
inline constexpr int IDD_ABOUTBOX = 100;
inline constexpr const char* AboutText = "Kestrelbound Version 1.0.3";
inline constexpr uint32_t SplashMs = 1000;

// The window's labels and its emblem have no resource numbers of their own;
// these numbers name them in the control model.
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

// Bytes per second measured in the present transfer; 0: none yet.
extern std::atomic<int32_t> MeasuredRate;
// Set until the first About box has closed: it tells the splash at start
// apart from an About box that the user opens later.
extern std::atomic<int32_t> SplashPending;

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

// How an event went: done, or refused with the reason a user would see (the
// control is disabled, hidden, or does nothing yet).
struct EventOutcome {
    bool Done = true;
    std::string Refusal;
};

class EngineDisplay;

class MainWindow {
public:
    MainWindow();
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
    static std::string LinkStateName();

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

    // ---- The action buttons ----

    void UpdateActionButtons();

    // ---- The status log ----

    void FillLogList();
    // The window's side of the log: the line goes into the list, the oldest
    // 300 go when there are more than 600, and the newest comes into view.
    void AddLogLine(const std::string& text);
    void LogStartStop(bool starting);
    void OnClearLog();
    // The lines of the list, oldest first.
    std::vector<std::string> LogLines() const;

    // ---- The file list ----

    void OnFileAdd();
    // Appends one file to SendList and the list. False if it was not added.
    bool AddFileToList(const std::string& path, const std::string& name);
    void AddFolderToSendList(const std::string& path, const std::string& name);
    void ClearFileList();
    void OnFileClear();
    void OnFileDelete();
    // A click on the file list that hit row (-1: no row).
    void OnFileClick(int row);
    // Items dropped on a control: the file list and Send take files and
    // folders, the directory list an exported entry.
    void OnDropFiles(int targetId, const std::vector<std::string>& paths);
    int16_t SelectedFileRow() const { return selectedFileRow_.load(); }

    // ---- The transfer display ----

    void ShowBatchEstimate(uint32_t bytes);
    void RecomputeSendTotal();
    void ShowTransferDisplay(bool starting);
    void SetProgress(uint32_t done, uint32_t total);
    void ShowThroughput(bool sending, bool log);
    void LogElapsedTime();
    void ListIncomingFiles();
    void RemoveTopFileRow();

    // ---- The desktop: the incoming folder, help, the two programs ----

    void OnOpenIncoming();
    void OnHelp();
    // A plain click runs the program chosen for the button; the first click,
    // and any click with Shift held, chooses it in a file dialog instead.
    void OnProgramA();
    void OnProgramB();

    // ---- The directory panel ----

    void FillDirectoryList();
    void ShowCorrespondent(int16_t index);
    void SelectCorrespondent(int16_t index);
    void ShowSelectedCorrespondent();
    void ReadCorrespondentForm(int16_t index);
    void OnDirectorySelect();
    void OnDirectoryAdd();
    void OnDirectoryChange();
    void OnDirectoryDelete();
    void OnDirectoryNew();
    void OnFormChange();
    void OnEntryEdited();
    // Enters an exported record: true if a record was added. An entry that came
    // in a call may not bear the name of a record that is there already.
    enum class EntrySource { Dropped, Received };
    bool ImportDirectoryEntry(const std::string& path, EntrySource source = EntrySource::Dropped);
    // The menu's "Export Directory Entry...": the record on show, to a file
    // chosen in a save dialog.
    EventOutcome OnExportEntry();
    int16_t CurrentEntry() const { return currentEntry_.load(); }

    // ---- Pick-up folders ----

    // Makes record index's folder below "Pick Up"; false after the message
    // when it exists already or cannot be made.
    bool CreatePickUpFolder(int16_t index);
    void OnCreatePickUpFolder();
    // The folder buttons: the folder of the record on show, or with Ctrl held
    // the folder of all pick-up folders.
    void OpenFolderInShell();
    void SelectSendMode();
    void SelectRetrieveMode();

private:
    void CreateControls();
    // Selects the record that carries SelectMark, shows it and makes it the
    // current one.
    void ShowMarkedRecord();
    EventOutcome OnButton(int id);
    EventOutcome OnSelection(int id, int row);
    EventOutcome OnBoxClicked(int id, bool checked);
    EventOutcome OnMenuCommand(int id);
    void StoreIncomingSetting(int id);
    // The program buttons share their rule; which names the preferences'
    // field that holds the program.
    enum class ProgramButton { A, B };
    void OnProgram(ProgramButton which);
    void PickExternalProgram(ProgramButton which);
    // The hot folder timer's tick.
    void SendDueHotFolder();
    void StopEngineThreads();
    // Ends the main loop, after the exit has been prepared.
    void EndDialog();

    std::atomic<int16_t> selectedFileRow_{-1};
    std::atomic<int16_t> currentEntry_{-1};

    // The log list's lines, beside the control: the saved log is made from
    // these. Held while a line goes in, so lines from several threads reach
    // the list, the observer and the file in one order.
    mutable std::mutex logLock_;
    std::vector<std::string> logLines_;
    std::function<void(const std::string&)> logObserver_;

    // Serialises the button rule, so that the last caller's view of the link
    // is the one that stays on the buttons.
    std::mutex buttonsLock_;

    // What the engine's threads call; TheMainWindow points at it while the
    // window exists.
    std::unique_ptr<EngineDisplay> engineDisplay_;

    bool engineStarted_ = false;
    std::atomic<bool> startOver_{false};
    ThreadHandle commThread_;
    bool commThreadStarted_ = false;
    bool exitPrepared_ = false;
};

// The window while it exists, for the front ends; null before and after.
MainWindow* ActiveMainWindow();

// The part of a path behind its last "/"; a path that ends in "/" gives the
// name of the folder before it.
std::string FileNameOfPath(const std::string& path);
// The name shown and announced for a file: at most 31 bytes, as the record
// holds. A longer name keeps its extension and loses the end of its stem, and
// no character of several bytes is cut in two.
std::string ShortDisplayName(const std::string& name);
