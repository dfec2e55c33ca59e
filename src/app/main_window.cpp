#include "app/main_window.h"

#include <map>
#include <utility>

#include "app/chosen_call.h"
#include "app/control_model.h"
#include "engine/dialing.h"
#include "engine/display.h"
#include "engine/engine_window.h"
#include "engine/pickup.h"
#include "engine/session_threads.h"
#include "engine/teardown.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/adapter_family.h"
#include "line/comm_port.h"
#include "line/line.h"
#include "line/port_speed.h"
#include "line/profiles.h"
#include "platform/event_loop.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/directory.h"
#include "stores/installation.h"

namespace kb::app {

using namespace kb::engine;
using namespace kb::line;
using namespace kb::platform;
using namespace kb::resources;
using namespace kb::stores;

namespace {

// How a control starts, besides its place.
struct ControlStart {
    ControlPlace Place;
    ControlKind Kind;
    const char* Text;
    std::vector<const char*> Rows;
    bool Enabled;
    bool Shown;
    int Selection;
    int Picture;
};

const std::vector<ControlStart>& StartTable() {
    using K = ControlKind;
    constexpr bool On = true;
    constexpr bool Off = false;
    // clang-format off
    static const std::vector<ControlStart> Table = {
        {{IDC_LABEL_DIRECTORY, "", 50, 7, 29, 8}, K::Label, "Directory", {}, On, On, -1, 0},
        {{IDC_DIRECTORY_LIST, "IDC_DIRECTORY_LIST", 7, 19, 116, 75}, K::ListBox, "", {}, On, On, -1, 0},
        {{IDC_FORM, "IDC_FORM", 125, 21, 36, 30}, K::DropDown, "", {"Firm:", "Contact:"}, On, On, 0, 0},
        {{IDC_NAME, "IDC_NAME", 163, 20, 111, 14}, K::Edit, "", {}, On, On, -1, 0},
        {{IDC_NUMBER, "IDC_NUMBER", 163, 37, 111, 14}, K::Edit, "", {}, On, On, -1, 0},
        {{IDC_LABEL_ISDN, "IDC_LABEL_ISDN", 130, 40, 30, 9}, K::Label, "ISDN:", {}, On, On, -1, 0},
        {{IDC_LABEL_TELEPHONE, "IDC_LABEL_TELEPHONE", 123, 40, 37, 9}, K::Label, "Telephone:", {}, On, Off, -1, 0},
        {{IDC_LABEL_PROTOCOL, "", 131, 57, 29, 8}, K::Label, "Protocol:", {}, On, On, -1, 0},
        {{IDC_PROTOCOL, "IDC_PROTOCOL", 163, 55, 111, 30}, K::DropDown, "", {"V.120", "AIMUX", "X.75"}, On, On, -1, 0},
        {{IDC_LABEL_CARRIER, "", 126, 74, 34, 8}, K::Label, "LD Carrier:", {}, On, On, -1, 0},
        {{IDC_CARRIER, "IDC_CARRIER", 163, 72, 111, 30}, K::DropDown, "", {"Default", "AT&T", "MCI", "Sprint"}, On, On, -1, 0},
        {{IDC_56K, "IDC_56K", 163, 89, 23, 10}, K::CheckBox, "56K", {}, On, On, -1, 0},
        {{IDC_2B, "IDC_2B", 192, 89, 20, 10}, K::CheckBox, "2B", {}, On, Off, -1, 0},
        {{IDC_V42, "IDC_V42", 218, 89, 23, 10}, K::CheckBox, "V.42", {}, On, Off, -1, 0},
        {{IDC_ADD, "IDC_ADD", 280, 21, 30, 14}, K::Button, "Add", {}, Off, On, -1, 0},
        {{IDC_CHANGE, "IDC_CHANGE", 280, 39, 30, 14}, K::Button, "Change", {}, Off, On, -1, 0},
        {{IDC_DELETE, "IDC_DELETE", 314, 21, 30, 14}, K::Button, "Delete", {}, Off, On, -1, 0},
        {{IDC_NEW, "IDC_NEW", 314, 39, 30, 14}, K::Button, "New", {}, Off, On, -1, 0},
        {{IDC_MAKE_FOLDER, "IDC_MAKE_FOLDER", 280, 61, 23, 20}, K::PictureButton, "", {}, On, Off, -1, IDB_MAKE_FOLDER},
        {{IDC_FOLDER_EMPTY, "IDC_FOLDER_EMPTY", 280, 61, 23, 20}, K::PictureButton, "", {}, On, Off, -1, IDB_FOLDER_EMPTY},
        {{IDC_FOLDER_FILLED, "IDC_FOLDER_FILLED", 280, 61, 23, 20}, K::PictureButton, "", {}, On, Off, -1, IDB_FOLDER_FILLED},
        {{IDC_HOT_EMPTY, "IDC_HOT_EMPTY", 280, 61, 23, 20}, K::PictureButton, "", {}, On, Off, -1, IDB_HOT_EMPTY},
        {{IDC_HOT_FILLED, "IDC_HOT_FILLED", 280, 61, 23, 20}, K::PictureButton, "", {}, On, Off, -1, IDB_HOT_FILLED},
        {{IDC_HOT_RETRIEVE, "IDC_HOT_RETRIEVE", 307, 61, 37, 10}, K::RadioButton, "Retrieve", {}, On, Off, -1, 0},
        {{IDC_HOT_SEND, "IDC_HOT_SEND", 307, 72, 28, 10}, K::RadioButton, "Send", {}, On, Off, -1, 0},
        {{IDC_IGNORE_HOT, "IDC_IGNORE_HOT", 279, 89, 72, 10}, K::CheckBox, "Ignore Hot Folders", {}, On, On, -1, 0},
        {{IDC_LABEL_FILE_LIST, "", 52, 110, 24, 8}, K::Label, "File List", {}, On, On, -1, 0},
        {{IDC_FILE_LIST, "IDC_FILE_LIST", 7, 119, 116, 63}, K::ListView, "", {}, On, On, -1, 0},
        {{IDC_FILE_ADD, "IDC_FILE_ADD", 7, 185, 30, 14}, K::Button, "Add", {}, On, On, -1, 0},
        {{IDC_FILE_DELETE, "IDC_FILE_DELETE", 50, 185, 30, 14}, K::Button, "Delete", {}, Off, On, -1, 0},
        {{IDC_FILE_CLEAR, "IDC_FILE_CLEAR", 93, 185, 30, 14}, K::Button, "Clear", {}, Off, On, -1, 0},
        {{IDC_TOTAL_KB, "IDC_TOTAL_KB", 7, 204, 45, 8}, K::Label, "", {}, Off, On, -1, 0},
        {{IDC_EST_TIME, "IDC_EST_TIME", 50, 205, 73, 8}, K::Label, "", {}, Off, On, -1, 0},
        {{IDC_LABEL_LOG, "", 206, 110, 13, 8}, K::Label, "Log", {}, On, On, -1, 0},
        {{IDC_LOG, "IDC_LOG", 128, 119, 161, 63}, K::ListBox, "", {}, On, On, -1, 0},
        {{IDC_BYTES_SEC, "IDC_BYTES_SEC", 129, 188, 51, 8}, K::Label, "", {}, Off, On, -1, 0},
        {{IDC_CLEAR_LOG, "IDC_CLEAR_LOG", 188, 185, 50, 14}, K::Button, "Clear Log", {}, On, On, -1, 0},
        {{IDC_DIR_SCRATCH, "IDC_DIR_SCRATCH", 256, 188, 16, 30}, K::DropDown, "", {}, On, Off, -1, 0},
        {{IDC_EMBLEM, "IDC_EMBLEM", 311, 187, 16, 16}, K::PictureButton, "", {}, On, On, -1, IDB_EMBLEM},
        {{IDC_PROGRESS, "IDC_PROGRESS", 128, 205, 161, 7}, K::ProgressBar, "", {}, On, Off, -1, 0},
        {{IDC_SEND, "IDC_SEND", 294, 119, 50, 19}, K::Button, "Send", {}, Off, On, -1, 0},
        {{IDC_RETRIEVE, "IDC_RETRIEVE", 294, 141, 50, 19}, K::Button, "Retrieve", {}, Off, On, -1, 0},
        {{IDC_DISCONNECT, "IDC_DISCONNECT", 294, 163, 50, 19}, K::Button, "Disconnect", {}, Off, On, -1, 0},
        {{IDC_LABEL_IN_PROTOCOL, "", 7, 220, 56, 8}, K::Label, "Incoming Protocol:", {}, On, On, -1, 0},
        {{IDC_IN_PROTOCOL, "IDC_IN_PROTOCOL", 66, 218, 57, 30}, K::DropDown, "", {"V.120", "AIMUX", "X.75"}, On, On, -1, 0},
        {{IDC_IN_56K, "IDC_IN_56K", 130, 220, 21, 10}, K::CheckBox, "56K", {}, On, On, -1, 0},
        {{IDC_IN_2B, "IDC_IN_2B", 160, 220, 19, 10}, K::CheckBox, "2B", {}, On, Off, -1, 0},
        {{IDC_IN_V42, "IDC_IN_V42", 188, 220, 29, 10}, K::CheckBox, "V.42", {}, On, Off, -1, 0},
        {{IDC_OPEN_INCOMING, "IDC_OPEN_INCOMING", 231, 223, 23, 20}, K::PictureButton, "", {}, On, On, -1, IDB_OPEN_INCOMING},
        {{IDC_PROGRAM_1, "IDC_PROGRAM_1", 261, 223, 23, 20}, K::PictureButton, "", {}, On, On, -1, IDB_PROGRAM_1},
        {{IDC_PROGRAM_2, "IDC_PROGRAM_2", 291, 223, 23, 20}, K::PictureButton, "", {}, On, On, -1, IDB_PROGRAM_2},
        {{IDC_HELP, "IDC_HELP", 321, 223, 23, 20}, K::Button, "Help", {}, On, On, -1, 0},
        {{IDC_OWN_NUMBER, "IDC_OWN_NUMBER", 7, 235, 218, 8}, K::Label, "Your ISDN Number: ", {}, Off, On, -1, 0},
    };
    // clang-format on
    return Table;
}

std::vector<Menu> StartMenus() {
    return {
        {"&File",
         {{ID_FILE_ADD_FOLDER, "Add &Folder to File List...", false},
          {ID_FILE_EXPORT_ENTRY, "&Export Directory Entry...", false},
          {0, "", false},
          {ID_FILE_EXIT, "E&xit", false}}},
        {"&Port Speed",
         {{ID_PORT_SPEED_115200, "115200", false}, {ID_PORT_SPEED_230400, "230400", false}}},
        // A Linux desktop has no window menu for About; the manual comes
        // first, as in any program's Help menu.
        {"&Help",
         {{ID_HELP_CONTENTS, "&Contents", false},
          {0, "", false},
          {IDM_ABOUTBOX, "&About Kestrelbound...", false}}},
    };
}

// What each picture says in words, to a pointer resting on it and to a
// screen reader; a picture tells a newcomer nothing of what a click does.
struct PictureWords {
    int Id;
    const char* Tip;
};

constexpr PictureWords PictureTips[] = {
    {IDC_MAKE_FOLDER, "Make a pick-up folder for this correspondent"},
    {IDC_FOLDER_EMPTY,
     "Open this correspondent's pick-up folder, now empty (Ctrl-click: all pick-up folders)"},
    {IDC_FOLDER_FILLED,
     "Open this correspondent's pick-up folder, which holds files (Ctrl-click: all pick-up "
     "folders)"},
    {IDC_HOT_EMPTY,
     "Open this correspondent's hot folder, now empty (Ctrl-click: all pick-up folders)"},
    {IDC_HOT_FILLED,
     "Open this correspondent's hot folder, whose files go out by themselves (Ctrl-click: all "
     "pick-up folders)"},
    {IDC_OPEN_INCOMING, "Open the folder in Incoming Files where the latest received file is"},
    {IDC_PROGRAM_1, "Run program 1 (the first click, or a Shift-click, chooses the program)"},
    {IDC_PROGRAM_2, "Run program 2 (the first click, or a Shift-click, chooses the program)"},
    {IDC_EMBLEM, "About Kestrelbound"},
};

// The hot folders are looked at this often.
constexpr uint32_t HotFolderPeriodMs = 15000;

}  // namespace

std::string WindowTitle(const std::string& installation, const std::string& ownNumber) {
    std::string folder = installation;
    while (!folder.empty() && folder.back() == '/') {
        folder.pop_back();
    }
    folder = folder.substr(folder.find_last_of('/') + 1);
    if (folder.empty()) {
        return WindowCaption;
    }
    const std::string number = ownNumber.empty() ? "" : " (" + ownNumber + ")";
    return folder + number + " - " + WindowCaption;
}

std::string ControlTip(int id) {
    for (const PictureWords& words : PictureTips) {
        if (words.Id == id) {
            return words.Tip;
        }
    }
    return "";
}

const std::vector<ControlPlace>& MainWindowLayout() {
    static const std::vector<ControlPlace> Layout = [] {
        std::vector<ControlPlace> places;
        for (const ControlStart& start : StartTable()) {
            places.push_back(start.Place);
        }
        return places;
    }();
    return Layout;
}

std::string ControlName(int id) {
    static const std::map<int, std::string> Names = [] {
        std::map<int, std::string> byId;
        for (const ControlStart& start : StartTable()) {
            byId[start.Place.Id] = start.Place.Name;
        }
        return byId;
    }();
    const auto found = Names.find(id);
    return found == Names.end() ? std::string() : found->second;
}

// The window as the engine's threads see it: each display call goes to the
// operation of the same name of the panel that shows it. It keeps the
// engine's interface out of MainWindow's header, which front ends include.
class EngineDisplay final : public EngineWindow {
public:
    explicit EngineDisplay(MainWindow& window) : window_(window) {}

    void ShowBatchEstimate(uint32_t bytes) override { window_.Display().ShowBatchEstimate(bytes); }
    void ShowTransferDisplay(bool starting) override {
        window_.Display().ShowTransferDisplay(starting);
    }
    void SetProgress(uint32_t done, uint32_t total) override {
        window_.Display().SetProgress(done, total);
    }
    void ShowThroughput(bool sending, bool log) override {
        window_.Display().ShowThroughput(sending, log);
    }
    void LogElapsedTime() override { window_.Display().LogElapsedTime(); }
    void ListIncomingFiles() override { window_.Files().ListIncomingFiles(); }
    void RemoveTopFileRow() override { window_.Files().RemoveTopFileRow(); }
    void UpdateActionButtons() override { window_.UpdateActionButtons(); }
    void ShowCorrespondent(int16_t index) override {
        window_.Correspondents().ShowCorrespondent(index);
    }
    void SelectCorrespondent(int16_t index) override {
        window_.Correspondents().SelectCorrespondent(index);
    }
    void ShowSelectedCorrespondent() override {
        window_.Correspondents().ShowSelectedCorrespondent();
    }
    void ClearFileList() override { window_.Files().ClearFileList(); }
    void AddFolderToSendList(const std::string& path, const std::string& name) override {
        window_.Files().AddFolderToSendList(path, name);
    }
    bool ImportDirectoryEntry(const std::string& path) override {
        return window_.Correspondents().ImportDirectoryEntry(path,
                                                             DirectoryPanel::EntrySource::Received);
    }

private:
    MainWindow& window_;
};

MainWindow::MainWindow(Installation& stores, line::Line& line, TransferEngine& engine)
    : stores_(stores),
      adapterLine_(line),
      engine_(engine),
      directory_(*this, stores),
      files_(*this, stores),
      display_(*this, stores),
      log_(stores.Log),
      desktop_(stores),
      line_(*this, stores),
      engineDisplay_(std::make_unique<EngineDisplay>(*this)) {}

MainWindow::~MainWindow() {
    if (initialised_) {
        stores_.Log.SetSink(nullptr);
        MainLoop().SetTimerHandler(nullptr);
        SetEngineWindow(engine_, nullptr);
    }
}

void MainWindow::SetLogObserver(std::function<void(const std::string&)> observer) {
    log_.SetObserver(std::move(observer));
}

const std::vector<std::string>& MainWindow::LinkStateNames() {
    // By the values of LinkState, Idle first.
    static const std::vector<std::string> Names = {"idle",     "dialing",  "connected",
                                                   "transfer", "filesent", "recovery"};
    return Names;
}

std::string MainWindow::LinkStateName(TransferEngine& engine) {
    const int state = static_cast<int>(LinkStateAsShown(engine));
    const std::vector<std::string>& names = LinkStateNames();
    return state >= 0 && state < static_cast<int>(names.size()) ? names[static_cast<size_t>(state)]
                                                                : "unknown";
}

// ---------------------------------------------------------------------------
// Start and stop

void MainWindow::CreateControls() {
    ControlModel& controls = Controls();
    controls.Reset();
    for (const ControlStart& start : StartTable()) {
        ControlState state;
        state.Id = start.Place.Id;
        state.Kind = start.Kind;
        state.Text = start.Text;
        for (const char* row : start.Rows) {
            state.Rows.push_back(ListRow{row, "", 0});
        }
        state.Enabled = start.Enabled;
        state.Shown = start.Shown;
        state.Selection = start.Selection;
        state.Picture = start.Picture;
        if (start.Kind == ControlKind::ListView) {
            state.Columns = {"Name", "Size"};
        }
        controls.Create(state);
    }
    ControlState window;
    window.Id = IDD_MAIN_WINDOW;
    window.Kind = ControlKind::Window;
    window.Text = WindowTitle(stores_.Paths.RootDirectory, "");
    controls.Create(window);
    ControlState about;
    about.Id = IDD_ABOUTBOX;
    about.Kind = ControlKind::Picture;
    about.Text = AboutText;
    about.Shown = false;
    about.Picture = IDB_ABOUT;
    controls.Create(about);
    controls.SetMenus(StartMenus());
    // The system menu keeps what the desktop puts there; ours follows.
    controls.SetSystemMenu({{0, "", false}, {IDM_ABOUTBOX, "&About Kestrelbound...", false}});
}

bool MainWindow::OnInitDialog() {
    SetEngineWindow(engine_, engineDisplay_.get());
    initialised_ = true;
    CreateControls();
    MainLoop().SetTimerHandler([this](int id) { OnTimer(id); });

    SetEngineLine(engine_, adapterLine_);
    if (!adapterLine_.CommPortCreate()) {
        // Nothing runs in this state; the log list still takes what is logged.
        stores_.Log.SetSink([this](const std::string& line) { log_.AddLogLine(line); });
        ShowMessageBox("Cannot create comm port information.");
        // No search follows: the start is over as it is.
        startOver_ = true;
        return false;
    }
    EngineStartup(engine_, stores_);
    engineStarted_ = true;
    log_.FillLogList();
    // Lines logged before the window existed follow the stored ones.
    stores_.Log.SetSink([this](const std::string& line) { log_.AddLogLine(line); });
    directory_.FillDirectoryList();
    ClearHotFolderCounters(engine_);
    log_.LogStartStop(true);
    commThread_ = StartCommThread(engine_);
    commThreadStarted_ = commThread_ != nullptr;
    MainLoop().SetTimer(TimerSplashOpen, 1);
    return true;
}

void MainWindow::OnTimer(int id) {
    switch (id) {
        case TimerSplashOpen:
            MainLoop().KillTimer(TimerSplashOpen);
            OpenAboutBox();
            break;
        case TimerSplashClose:
            MainLoop().KillTimer(TimerSplashClose);
            OnAboutOk();
            break;
        case TimerFindAdapter: {
            MainLoop().KillTimer(TimerFindAdapter);
            const AdapterSearch search = adapterLine_.FindAdapter();
            ShowAdapter(search != AdapterSearch::NotFound);
            if (search == AdapterSearch::WaitingForCalls) {
                MainLoop().SetTimer(TimerHotFolders, HotFolderPeriodMs);
            }
            // The buttons follow the rule from the start on, not from the
            // first record put on show.
            UpdateActionButtons();
            startOver_ = true;
            break;
        }
        case TimerHotFolders:
            if (stores_.Prefs.IgnoreHotFolders == 0) {
                SendDueHotFolder();
            }
            break;
        default:
            break;
    }
}

void MainWindow::OnClose() {
    PrepareExit();
    EndDialog();
}

void MainWindow::EndDialog() {
    // The window's timers go with it.
    for (int timer : {TimerSplashOpen, TimerSplashClose, TimerFindAdapter, TimerHotFolders}) {
        MainLoop().KillTimer(timer);
    }
    MainLoop().Quit();
}

void MainWindow::StopEngineThreads() {
    StopCommThread(engine_);
    if (!commThreadStarted_) {
        return;
    }
    // The communications thread may be waiting for the port; it leaves its
    // loop at the end of the pass it is in.
    adapterLine_.InterruptPortWait();
    JoinThread(commThread_);
    // A send under way ends with its feeder and writer, a block on its way
    // cut off.
    StopFeeder(engine_);
}

void MainWindow::PrepareExit() {
    if (exitPrepared_) {
        return;
    }
    exitPrepared_ = true;
    MainLoop().KillTimer(TimerHotFolders);
    // Nothing may use the port or the engine's buffers once they go, so every
    // engine thread has ended before this returns, also during a transfer.
    StopEngineThreads();
    if (engineStarted_) {
        // Files that can no longer be finished do not stay behind; the one
        // kept for a resume stays, and the next start takes it up.
        DiscardUnfinishedFiles(engine_);
    }
    if (adapterLine_.AdapterFound.load() != 0) {
        adapterLine_.SendClosingCommand();
        // Preferences are saved here and only here: a run that found no
        // adapter leaves the file as it was.
        SavePreferences(stores_.Prefs, stores_.Paths.PrefsPath);
    }
    log_.LogStartStop(false);
    // At exit there is no one left to tell that the log could not be kept.
    static_cast<void>(stores_.Log.Save(log_.LogLines()));
}

// ---------------------------------------------------------------------------
// The adapter

void MainWindow::ShowAdapter(bool searchSucceeded) {
    // An adapter that stopped answering half way through its start leaves the
    // window as it was, but for its speed.
    if (adapterLine_.AdapterFound.load()) {
        ShowPortSpeed();
    }
    if (!searchSucceeded) {
        return;
    }
    // Both protocol lists lose what the adapter cannot do on this port.
    std::vector<std::string> notOffered;
    for (const LineProtocol protocol : {ProtocolAimux, ProtocolX75}) {
        if (!adapterLine_.ProtocolOffered(protocol)) {
            notOffered.emplace_back(ProtocolNames[protocol]);
        }
    }
    const bool channelOptions = CurrentFamily(stores_.Prefs).HasChannelOptions;
    line_.OfferAdapter(notOffered, channelOptions);
    // The number is known once the adapter has shown it on the window's line.
    const bool numberKnown = !adapterLine_.OwnNumberCaption().empty();
    Controls().SetText(IDD_MAIN_WINDOW, WindowTitle(stores_.Paths.RootDirectory,
                                                    numberKnown ? adapterLine_.LocalNumber : ""));
    directory_.OfferAdapter(notOffered, channelOptions);
}

void MainWindow::ShowPortSpeed() {
    ControlModel& controls = Controls();
    const SpeedChoice choice = PortSpeedChoice(stores_.Prefs);
    if (choice == SpeedChoice::None) {
        // The menu has a choice only where the port reaches 230400 bps.
        if (controls.HasMenuItem(ID_PORT_SPEED_115200)) {
            controls.RemoveMenu(PortSpeedMenuPosition);
        }
        return;
    }
    controls.CheckMenuItem(ID_PORT_SPEED_115200, choice == SpeedChoice::At115200);
    controls.CheckMenuItem(ID_PORT_SPEED_230400, choice == SpeedChoice::At230400);
}

void MainWindow::SendDueHotFolder() {
    const std::optional<int16_t> due = HotFolderDue(engine_);
    if (!due) {
        return;
    }
    LoadPickUpFolder(engine_, *due);
    // The panel shows the record, and the call goes out as the panel sets it.
    directory_.SelectCorrespondent(*due);
    SendHotFolder(engine_, ChosenCall());
}

// ---------------------------------------------------------------------------
// The About box

void MainWindow::OpenAboutBox() {
    // The box is modal: while it is open a second one cannot be opened.
    if (Controls().Shown(IDD_ABOUTBOX)) {
        return;
    }
    Controls().Show(IDD_ABOUTBOX, true);
    if (splashPending_.load()) {
        MainLoop().SetTimer(TimerSplashClose, SplashMs);
    }
}

void MainWindow::OnAboutOk() {
    if (!Controls().Shown(IDD_ABOUTBOX)) {
        return;
    }
    // The box's timer goes with the box.
    MainLoop().KillTimer(TimerSplashClose);
    Controls().Show(IDD_ABOUTBOX, false);
    if (splashPending_.exchange(false)) {
        MainLoop().SetTimer(TimerFindAdapter, 1);
    }
}

// ---------------------------------------------------------------------------
// What the user may do

Permissions MainWindow::WhatTheUserMay() const {
    const bool linkUp = engine_.Call.LinkState.load() > LinkState::Idle;
    const bool haveFiles = files_.HasFiles();
    Permissions may;
    // With files in the list a call sends them; with an empty list the only
    // thing a call can do is fetch. Neither waits for a record to be chosen:
    // the call refuses an empty number.
    may.Send = !linkUp && haveFiles;
    may.Retrieve = !linkUp && !haveFiles;
    may.Disconnect = linkUp;
    may.EditFiles = !linkUp;
    may.ClearFiles = !linkUp && haveFiles;
    return may;
}

void MainWindow::UpdateActionButtons() {
    std::lock_guard<std::mutex> guard(buttonsLock_);
    const Permissions may = WhatTheUserMay();
    line_.ShowCallPermissions(may);
    files_.ShowPermissions(may);
    line_.ShowIncomingPermissions(may);
}

// ---------------------------------------------------------------------------
// Events of the front ends

WindowPanel* MainWindow::PanelOwning(int id) {
    for (WindowPanel* panel : std::initializer_list<WindowPanel*>{&directory_, &files_, &display_,
                                                                  &log_, &desktop_, &line_}) {
        if (panel->Owns(id)) {
            return panel;
        }
    }
    return nullptr;
}

EventOutcome MainWindow::HandleEvent(const WindowEvent& event) {
    using Kind = EventKind;
    ControlModel& controls = Controls();
    switch (event.Kind) {
        case Kind::AboutOk:
            if (!controls.Shown(IDD_ABOUTBOX)) {
                return Refused("the About box is not open");
            }
            OnAboutOk();
            return {};
        case Kind::Close:
            OnClose();
            return {};
        case Kind::MenuCommand:
            return OnMenuCommand(event.Id);
        case Kind::FilesDropped:
            // The file list and Send take nothing while a call is up, and a
            // drop there says so rather than vanish.
            if ((event.Id == IDC_FILE_LIST || event.Id == IDC_SEND) &&
                engine_.Call.LinkState.load() != LinkState::Idle) {
                ShowMessageBox(FileListShutMessage);
                return Refused("the file list is shut during a call");
            }
            OnDropFiles(event.Id, event.Paths);
            return {};
        default:
            break;
    }

    WindowPanel* panel = PanelOwning(event.Id);
    if (panel == nullptr || !controls.Exists(event.Id) || ControlName(event.Id).empty()) {
        return Refused("no such control");
    }
    const std::string name = ControlName(event.Id);
    if (!controls.Shown(event.Id)) {
        return Refused(name + " is hidden");
    }
    if (!controls.Enabled(event.Id)) {
        return Refused(name + " is disabled");
    }
    const ControlKind kind = controls.State(event.Id).Kind;
    switch (event.Kind) {
        case Kind::ButtonPressed:
            if (kind != ControlKind::Button && kind != ControlKind::PictureButton) {
                return Refused(name + " is no button");
            }
            // The emblem is the program's own mark, and a click on it tells
            // what the program is, as About in the Help menu does.
            if (event.Id == IDC_EMBLEM) {
                OpenAboutBox();
                return {};
            }
            return panel->OnButton(event.Id);
        case Kind::SelectionChanged:
            if (kind != ControlKind::ListBox && kind != ControlKind::DropDown &&
                kind != ControlKind::ListView) {
                return Refused(name + " has no rows");
            }
            if (event.Row < -1 || event.Row >= controls.RowCount(event.Id)) {
                return Refused(name + " has no row " + std::to_string(event.Row));
            }
            return panel->OnSelection(event.Id, event.Row);
        case Kind::TextEdited:
            if (kind != ControlKind::Edit) {
                return Refused(name + " takes no text");
            }
            // An edit field takes what the record's field holds, cut between
            // two characters, and the cut shows in the field as it is typed.
            controls.SetText(
                event.Id, std::string(CutToWholeCharacters(
                              event.Text, controls.Selection(IDC_FORM) == 1 ? ContactMaxLength
                                                                            : FirmNameMaxLength)));
            return panel->OnTextEdited(event.Id);
        case Kind::BoxClicked:
            if (kind != ControlKind::CheckBox && kind != ControlKind::RadioButton) {
                return Refused(name + " is no check box");
            }
            return OnBoxClicked(*panel, event.Id, event.Checked);
        default:
            return Refused("unknown event");
    }
}

EventOutcome MainWindow::OnBoxClicked(WindowPanel& panel, int id, bool checked) {
    ControlModel& controls = Controls();
    if (controls.State(id).Kind == ControlKind::RadioButton) {
        // A click on a radio button chooses it; the pair excludes each other.
        if (!checked) {
            return Refused(ControlName(id) + " is cleared by choosing the other one");
        }
        return panel.OnBoxClicked(id, checked);
    }
    if (controls.Checked(id) == checked) {
        return {};
    }
    controls.Check(id, checked);
    return panel.OnBoxClicked(id, checked);
}

void MainWindow::OnDropFiles(int targetId, const std::vector<std::string>& paths) {
    const bool onList = targetId == IDC_FILE_LIST || targetId == IDC_SEND;
    if (onList && engine_.Call.LinkState.load() == LinkState::Idle) {
        // One drop on Send fills the list and starts the call; a drop the
        // user took back starts nothing.
        if (files_.OnDropFiles(paths) && targetId == IDC_SEND) {
            line_.OnSend();
        }
        return;
    }
    if (targetId == IDC_DIRECTORY_LIST) {
        directory_.OnDropFiles(paths);
    }
    // Raising the window is the front end's; a drop here always ends with
    // the window in front.
}

EventOutcome MainWindow::OnMenuCommand(int id) {
    switch (id) {
        case IDM_ABOUTBOX:
            OpenAboutBox();
            return {};
        case ID_HELP_CONTENTS:
            desktop_.OnHelp();
            return {};
        case ID_FILE_EXIT:
            OnClose();
            return {};
        case ID_PORT_SPEED_115200:
        case ID_PORT_SPEED_230400:
            if (!Controls().HasMenuItem(id)) {
                return Refused("the Port Speed menu is not there");
            }
            adapterLine_.ChangePortSpeed(id == ID_PORT_SPEED_115200 ? 115200 : 230400);
            ShowPortSpeed();
            return {};
        case ID_FILE_EXPORT_ENTRY:
            return directory_.OnExportEntry();
        case ID_FILE_ADD_FOLDER:
            files_.OnAddFolder();
            return {};
        default:
            return Refused("no such menu command");
    }
}

}  // namespace kb::app
