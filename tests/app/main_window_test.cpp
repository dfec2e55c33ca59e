// The window's controls, its button rule, the routing of the user's events
// and the log list, through the real control model.

#include "app/main_window.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "platform/control_model.h"
#include "platform/event_loop.h"
#include "resources/resource.h"
#include "stores/paths.h"
#include "stores/preferences.h"
#include "stores/status_log.h"
#include "window_fixture.h"

namespace {

struct Expected {
    int id;
    ControlKind kind;
    std::string text;
    bool enabled;
    bool shown;
    std::vector<std::string> rows;
    int selection;
};

WindowEvent Event(WindowEvent::Kind kind, int id) {
    WindowEvent event;
    event.kind = kind;
    event.id = id;
    return event;
}

WindowEvent Click(int id, bool checked) {
    WindowEvent event = Event(WindowEvent::Kind::BoxClicked, id);
    event.checked = checked;
    return event;
}

WindowEvent Choose(int id, int row) {
    WindowEvent event = Event(WindowEvent::Kind::SelectionChanged, id);
    event.row = row;
    return event;
}

using MainWindowTest = WindowTest;

TEST_F(MainWindowTest, EveryControlStartsAsTheWindowDefinesIt) {
    using K = ControlKind;
    const std::vector<std::string> protocols = {"V.120", "AIMUX", "X.75"};
    const std::vector<Expected> expected = {
        {IDC_DIRECTORY_LIST, K::ListBox, "", true, true, {}, -1},
        {IDC_FORM, K::DropDown, "", true, true, {"Firm:", "Contact:"}, 0},
        {IDC_NAME, K::Edit, "", true, true, {}, -1},
        {IDC_NUMBER, K::Edit, "", true, true, {}, -1},
        {IDC_LABEL_ISDN, K::Label, "ISDN:", true, true, {}, -1},
        {IDC_LABEL_TELEPHONE, K::Label, "Telephone:", true, false, {}, -1},
        {IDC_PROTOCOL, K::DropDown, "", true, true, protocols, -1},
        {IDC_CARRIER, K::DropDown, "", true, true, {"Default", "AT&T", "MCI", "Sprint"}, -1},
        {IDC_56K, K::CheckBox, "56K", true, true, {}, -1},
        {IDC_2B, K::CheckBox, "2B", true, false, {}, -1},
        {IDC_V42, K::CheckBox, "V.42", true, false, {}, -1},
        {IDC_ADD, K::Button, "Add", false, true, {}, -1},
        {IDC_CHANGE, K::Button, "Change", false, true, {}, -1},
        {IDC_DELETE, K::Button, "Delete", false, true, {}, -1},
        {IDC_NEW, K::Button, "New", false, true, {}, -1},
        {IDC_MAKE_FOLDER, K::PictureButton, "", true, false, {}, -1},
        {IDC_FOLDER_EMPTY, K::PictureButton, "", true, false, {}, -1},
        {IDC_FOLDER_FILLED, K::PictureButton, "", true, false, {}, -1},
        {IDC_HOT_EMPTY, K::PictureButton, "", true, false, {}, -1},
        {IDC_HOT_FILLED, K::PictureButton, "", true, false, {}, -1},
        {IDC_HOT_RETRIEVE, K::RadioButton, "Retrieve", true, false, {}, -1},
        {IDC_HOT_SEND, K::RadioButton, "Send", true, false, {}, -1},
        {IDC_IGNORE_HOT, K::CheckBox, "Ignore Hot Folders", true, true, {}, -1},
        {IDC_FILE_LIST, K::ListView, "", true, true, {}, -1},
        {IDC_FILE_ADD, K::Button, "Add", true, true, {}, -1},
        {IDC_FILE_DELETE, K::Button, "Delete", false, true, {}, -1},
        {IDC_FILE_CLEAR, K::Button, "Clear", false, true, {}, -1},
        {IDC_TOTAL_KB, K::Label, "", false, true, {}, -1},
        {IDC_EST_TIME, K::Label, "", false, true, {}, -1},
        {IDC_BYTES_SEC, K::Label, "", false, true, {}, -1},
        {IDC_CLEAR_LOG, K::Button, "Clear Log", true, true, {}, -1},
        {IDC_DIR_SCRATCH, K::DropDown, "", true, false, {}, -1},
        {IDC_PROGRESS, K::ProgressBar, "", true, false, {}, -1},
        {IDC_SEND, K::Button, "Send", false, true, {}, -1},
        {IDC_RETRIEVE, K::Button, "Retrieve", false, true, {}, -1},
        {IDC_DISCONNECT, K::Button, "Disconnect", false, true, {}, -1},
        {IDC_IN_PROTOCOL, K::DropDown, "", true, true, protocols, -1},
        {IDC_IN_56K, K::CheckBox, "56K", true, true, {}, -1},
        {IDC_IN_2B, K::CheckBox, "2B", true, false, {}, -1},
        {IDC_IN_V42, K::CheckBox, "V.42", true, false, {}, -1},
        {IDC_OPEN_INCOMING, K::PictureButton, "", true, true, {}, -1},
        {IDC_PROGRAM_1, K::PictureButton, "", true, true, {}, -1},
        {IDC_PROGRAM_2, K::PictureButton, "", true, true, {}, -1},
        {IDC_HELP, K::Button, "Help", true, true, {}, -1},
        {IDC_OWN_NUMBER, K::Label, "Your ISDN Number: ", false, true, {}, -1},
    };
    std::set<int> named;
    for (const Expected& e : expected) {
        SCOPED_TRACE(ControlName(e.id));
        ASSERT_TRUE(Controls().Exists(e.id));
        const ControlState state = Controls().State(e.id);
        EXPECT_EQ(state.kind, e.kind);
        EXPECT_EQ(state.text, e.text);
        EXPECT_EQ(state.enabled, e.enabled);
        EXPECT_EQ(state.shown, e.shown);
        EXPECT_FALSE(state.checked);
        EXPECT_EQ(RowTexts(e.id), e.rows);
        EXPECT_EQ(state.selection, e.selection);
        named.insert(e.id);
    }
    // The log list holds only the Starting line of a first run.
    const ControlState log = Controls().State(IDC_LOG);
    EXPECT_EQ(log.kind, K::ListBox);
    EXPECT_TRUE(log.enabled && log.shown);
    ASSERT_EQ(log.rows.size(), 1u);
    EXPECT_EQ(log.rows[0].text.rfind("Starting Kestrelbound ", 0), 0u);
    EXPECT_EQ(log.selection, -1);
    named.insert(IDC_LOG);
    // No other control carries a resource name.
    for (const ControlState& state : Controls().AllStates()) {
        if (!ControlName(state.id).empty()) {
            EXPECT_EQ(named.count(state.id), 1u) << ControlName(state.id);
        }
    }
    EXPECT_EQ(Controls().State(IDC_MAKE_FOLDER).picture, IDB_MAKE_FOLDER);
    EXPECT_EQ(Controls().State(IDC_HOT_FILLED).picture, IDB_HOT_FILLED);
    EXPECT_EQ(Controls().State(IDC_OPEN_INCOMING).picture, IDB_OPEN_INCOMING);

    const ControlState about = Controls().State(IDD_ABOUTBOX);
    EXPECT_EQ(about.text, "Kestrelbound Version 1.0.3");
    EXPECT_FALSE(about.shown);

    const std::vector<Menu> menus = Controls().Menus();
    ASSERT_EQ(menus.size(), 2u);
    EXPECT_EQ(menus[0].title, "&File");
    ASSERT_EQ(menus[0].items.size(), 3u);
    EXPECT_EQ(menus[0].items[0].text, "&Export Directory Entry...");
    EXPECT_EQ(menus[0].items[0].command, ID_FILE_EXPORT_ENTRY);
    EXPECT_EQ(menus[0].items[1].text, "");
    EXPECT_EQ(menus[0].items[2].text, "E&xit");
    EXPECT_EQ(menus[0].items[2].command, ID_FILE_EXIT);
    EXPECT_EQ(menus[PortSpeedMenuPosition].title, "&Port Speed");
    ASSERT_EQ(menus[1].items.size(), 2u);
    EXPECT_EQ(menus[1].items[0].text, "115200");
    EXPECT_EQ(menus[1].items[1].text, "230400");
    EXPECT_FALSE(Controls().MenuItemChecked(ID_PORT_SPEED_115200));

    // The splash is on its way.
    EXPECT_TRUE(MainLoop().TimerRunning(TimerSplashOpen));
    EXPECT_EQ(window->SelectedFileRow(), -1);
    EXPECT_EQ(window->CurrentEntry(), -1);
}

TEST_F(MainWindowTest, TheButtonsFollowTheLinkAndTheFileList) {
    struct Row {
        int16_t link;
        int16_t count;
        int16_t selected;
        bool send, retrieve, disconnect, add, clear, remove, incoming;
    };
    const std::vector<Row> table = {
        {LinkIdle, 0, -1, false, true, false, true, false, false, true},
        {LinkIdle, 2, -1, true, false, false, true, true, false, true},
        {LinkIdle, 2, 1, true, false, false, true, true, true, true},
        {LinkDialing, 2, 1, false, false, true, false, false, false, false},
        {LinkConnected, 0, -1, false, false, true, false, false, false, false},
        {LinkTransfer, 2, -1, false, false, true, false, false, false, false},
        {LinkFileSent, 1, -1, false, false, true, false, false, false, false},
        {LinkRecovery, 1, -1, false, false, true, false, false, false, false},
    };
    // At start Retrieve waits for the first run of the rule.
    EXPECT_FALSE(Controls().Enabled(IDC_RETRIEVE));
    for (const Row& row : table) {
        SCOPED_TRACE("state " + std::to_string(row.link) + " count " + std::to_string(row.count) +
                     " row " + std::to_string(row.selected));
        // A selected row is what a click leaves behind.
        TheEngine.LinkState = LinkIdle;
        TheEngine.SendCount = row.count;
        window->OnFileClick(row.selected);
        TheEngine.LinkState = row.link;
        window->UpdateActionButtons();
        EXPECT_EQ(Controls().Enabled(IDC_SEND), row.send);
        EXPECT_EQ(Controls().Enabled(IDC_RETRIEVE), row.retrieve);
        EXPECT_EQ(Controls().Enabled(IDC_DISCONNECT), row.disconnect);
        EXPECT_EQ(Controls().Enabled(IDC_FILE_ADD), row.add);
        EXPECT_EQ(Controls().Enabled(IDC_FILE_CLEAR), row.clear);
        EXPECT_EQ(Controls().Enabled(IDC_FILE_DELETE), row.remove);
        for (int id : {IDC_IN_PROTOCOL, IDC_IN_56K, IDC_IN_2B, IDC_IN_V42}) {
            EXPECT_EQ(Controls().Enabled(id), row.incoming) << ControlName(id);
        }
        // What stays open during a call.
        for (int id : {IDC_DIRECTORY_LIST, IDC_NAME, IDC_PROTOCOL, IDC_56K, IDC_IGNORE_HOT}) {
            EXPECT_TRUE(Controls().Enabled(id)) << ControlName(id);
        }
    }
    TheEngine.LinkState = LinkIdle;
    TheEngine.SendCount = 0;
}

TEST_F(MainWindowTest, EventsReachOnlyControlsAUserCouldUse) {
    // Disabled, hidden and unnamed controls refuse, with the reason.
    EventOutcome outcome = window->HandleEvent(Event(WindowEvent::Kind::ButtonPressed, IDC_SEND));
    EXPECT_FALSE(outcome.done);
    EXPECT_EQ(outcome.refusal, "IDC_SEND is disabled");
    outcome = window->HandleEvent(Click(IDC_2B, true));
    EXPECT_FALSE(outcome.done);
    EXPECT_EQ(outcome.refusal, "IDC_2B is hidden");
    EXPECT_FALSE(Controls().Checked(IDC_2B));
    EXPECT_FALSE(window->HandleEvent(Event(WindowEvent::Kind::ButtonPressed, 4711)).done);
    EXPECT_FALSE(window->HandleEvent(Choose(IDC_PROTOCOL, 3)).done);
    EXPECT_FALSE(window->HandleEvent(Event(WindowEvent::Kind::ButtonPressed, IDC_56K)).done);
    EXPECT_FALSE(window->HandleEvent(Event(WindowEvent::Kind::AboutOk, 0)).done);

    // An edit field takes at most 31 characters.
    WindowEvent typed = Event(WindowEvent::Kind::TextEdited, IDC_NAME);
    typed.text = std::string(40, 'n');
    EXPECT_TRUE(window->HandleEvent(typed).done);
    EXPECT_EQ(Controls().Text(IDC_NAME), std::string(31, 'n'));

    // The incoming settings are stored at once; without an adapter nothing
    // goes to the line.
    EXPECT_TRUE(window->HandleEvent(Click(IDC_IN_56K, true)).done);
    EXPECT_EQ(ThePreferences.Incoming56K, 1);
    EXPECT_TRUE(window->HandleEvent(Click(IDC_IN_56K, false)).done);
    EXPECT_EQ(ThePreferences.Incoming56K, 0);
    ThePreferences.AdapterModel = ModelZyXEL;
    EXPECT_TRUE(window->HandleEvent(Choose(IDC_IN_PROTOCOL, 1)).done);
    EXPECT_EQ(ThePreferences.IncomingProtocol, 2);
    ThePreferences.AdapterModel = ModelBitSURFR;
    EXPECT_TRUE(window->HandleEvent(Choose(IDC_IN_PROTOCOL, 1)).done);
    EXPECT_EQ(ThePreferences.IncomingProtocol, 1);
    EXPECT_TRUE(window->HandleEvent(Click(IDC_IGNORE_HOT, true)).done);
    EXPECT_EQ(ThePreferences.IgnoreHotFolders, 1);

    // An outgoing setting changes the estimate of what waits to go.
    MakeFile("a", 1000000);
    ASSERT_TRUE(window->AddFileToList(folder / "a", "a"));
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:02:19");
    EXPECT_TRUE(window->HandleEvent(Click(IDC_56K, true)).done);
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:02:56");
    EXPECT_TRUE(window->HandleEvent(Choose(IDC_PROTOCOL, 1)).done);
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:01:09");

    // The Port Speed menu answers only while it is there.
    Controls().RemoveMenu(PortSpeedMenuPosition);
    outcome = window->HandleEvent(Event(WindowEvent::Kind::MenuCommand, ID_PORT_SPEED_230400));
    EXPECT_FALSE(outcome.done);
    EXPECT_TRUE(Messages().empty());
}

TEST_F(MainWindowTest, TheAboutBoxOfTheMenuNeitherClosesByItselfNorSearches) {
    SplashPending = 0;
    EXPECT_TRUE(window->HandleEvent(Event(WindowEvent::Kind::MenuCommand, IDM_ABOUTBOX)).done);
    EXPECT_TRUE(Controls().Shown(IDD_ABOUTBOX));
    EXPECT_FALSE(MainLoop().TimerRunning(TimerSplashClose));
    EXPECT_TRUE(window->HandleEvent(Event(WindowEvent::Kind::AboutOk, 0)).done);
    EXPECT_FALSE(Controls().Shown(IDD_ABOUTBOX));
    EXPECT_FALSE(MainLoop().TimerRunning(TimerFindAdapter));

    // The splash, closed by OK before its time, starts the search once.
    SplashPending = 1;
    window->OpenAboutBox();
    EXPECT_TRUE(MainLoop().TimerRunning(TimerSplashClose));
    window->OnAboutOk();
    EXPECT_FALSE(MainLoop().TimerRunning(TimerSplashClose));
    EXPECT_TRUE(MainLoop().TimerRunning(TimerFindAdapter));
    EXPECT_EQ(SplashPending.load(), 0);
    MainLoop().KillTimer(TimerFindAdapter);
    window->OnAboutOk();
    EXPECT_FALSE(MainLoop().TimerRunning(TimerFindAdapter));
}

TEST_F(MainWindowTest, TheLogKeeps600LinesAndThe601stLeaves301) {
    const size_t start = RowTexts(IDC_LOG).size();
    ASSERT_EQ(start, 1u);  // the Starting line
    for (size_t i = start; i < 600; ++i) {
        AddLogLine("line " + std::to_string(i));
    }
    EXPECT_EQ(Controls().RowCount(IDC_LOG), 600);
    EXPECT_EQ(Controls().Selection(IDC_LOG), -1);
    AddLogLine("line 600");
    const std::vector<std::string> rows = RowTexts(IDC_LOG);
    ASSERT_EQ(rows.size(), 301u);
    EXPECT_EQ(rows.front(), "line 300");
    EXPECT_EQ(rows.back(), "line 600");
    EXPECT_EQ(window->LogLines(), rows);
    EXPECT_EQ(Controls().Selection(IDC_LOG), -1);
    // The observer saw every line once, in order.
    const std::vector<std::string> observed = Observed();
    ASSERT_EQ(observed.size(), 601u);
    EXPECT_EQ(observed[1], "line 1");
    EXPECT_EQ(observed.back(), "line 600");
}

TEST_F(MainWindowTest, LinesFromSeveralThreadsReachTheListAndTheObserverInOneOrder) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                AddLogLine("thread " + std::to_string(t) + " line " + std::to_string(i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<std::string> observed = Observed();
    ASSERT_EQ(observed.size(), 801u);
    // 801 lines: the trim came once, and the list holds the newest 501.
    const std::vector<std::string> rows = RowTexts(IDC_LOG);
    ASSERT_EQ(rows.size(), 501u);
    EXPECT_EQ(std::vector<std::string>(observed.end() - 501, observed.end()), rows);
}

TEST_F(MainWindowTest, ClearLogEmptiesTheListAndExitLeavesTheStoppingLineFirst) {
    AddLogLine("an older line");
    window->OnClearLog();
    EXPECT_EQ(Controls().RowCount(IDC_LOG), 0);
    StopWindow();
    const std::string bytes = ReadWholeFile(LogPath);
    const std::vector<std::string> lines = LogLinesFromBuffer(bytes.data(), bytes.size());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Stopping Kestrelbound ", 0), 0u);

    // The next start reads only up to the end mark.
    StartWindow();
    const std::vector<std::string> rows = RowTexts(IDC_LOG);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].rfind("Stopping Kestrelbound ", 0), 0u);
    EXPECT_EQ(rows[1].rfind("Starting Kestrelbound ", 0), 0u);
}

TEST_F(MainWindowTest, AStoredLogOf700LinesComesBackWholeAndTheNextLineTrimsIt) {
    StopWindow();
    std::string file;
    for (int i = 0; i < 700; ++i) {
        file += "old " + std::to_string(i) + std::string(1, '\0');
    }
    file += std::string(1, '\0');
    WriteWholeFile(LogPath, file);
    StartWindow();
    // 700 stored lines and the Starting line, which trims the list.
    const std::vector<std::string> rows = RowTexts(IDC_LOG);
    ASSERT_EQ(rows.size(), 401u);
    EXPECT_EQ(rows.front(), "old 300");
    EXPECT_EQ(rows.back().rfind("Starting Kestrelbound ", 0), 0u);
}

}  // namespace
