// The window's controls, its button rule, the routing of the user's events
// and the log list, through the real control model.

#include "app/main_window.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/control_model.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "platform/event_loop.h"
#include "resources/resource.h"
#include "stores/paths.h"
#include "stores/preferences.h"
#include "stores/status_log.h"
#include "window_fixture.h"

namespace {

using MainWindowTest = WindowTest;

TEST_F(MainWindowTest, TheButtonsFollowTheLinkAndTheFileList) {
    struct Row {
        LinkState Link;
        int16_t Count;
        int16_t Selected;
        bool Send, Retrieve, Disconnect, Add, Clear, Remove, Incoming;
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
        SCOPED_TRACE("state " + std::to_string(row.Link) + " count " + std::to_string(row.Count) +
                     " row " + std::to_string(row.Selected));
        // A selected row is what a click leaves behind.
        TheEngine.LinkState = LinkIdle;
        TheEngine.SendCount = row.Count;
        window_->OnFileClick(row.Selected);
        TheEngine.LinkState = row.Link;
        window_->UpdateActionButtons();
        EXPECT_EQ(Controls().Enabled(IDC_SEND), row.Send);
        EXPECT_EQ(Controls().Enabled(IDC_RETRIEVE), row.Retrieve);
        EXPECT_EQ(Controls().Enabled(IDC_DISCONNECT), row.Disconnect);
        EXPECT_EQ(Controls().Enabled(IDC_FILE_ADD), row.Add);
        EXPECT_EQ(Controls().Enabled(IDC_FILE_CLEAR), row.Clear);
        EXPECT_EQ(Controls().Enabled(IDC_FILE_DELETE), row.Remove);
        for (int id : {IDC_IN_PROTOCOL, IDC_IN_56K, IDC_IN_2B, IDC_IN_V42}) {
            EXPECT_EQ(Controls().Enabled(id), row.Incoming) << ControlName(id);
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
    EventOutcome outcome = Press(IDC_SEND);
    EXPECT_FALSE(outcome.Done);
    EXPECT_EQ(outcome.Refusal, "IDC_SEND is disabled");
    outcome = Click(IDC_2B, true);
    EXPECT_FALSE(outcome.Done);
    EXPECT_EQ(outcome.Refusal, "IDC_2B is hidden");
    EXPECT_FALSE(Controls().Checked(IDC_2B));
    EXPECT_FALSE(Press(4711).Done);
    EXPECT_FALSE(Choose(IDC_PROTOCOL, 3).Done);
    EXPECT_FALSE(Press(IDC_56K).Done);
    EXPECT_FALSE(Handle(Event(EventKind::AboutOk, 0)).Done);

    // An edit field takes at most 31 characters.
    EXPECT_TRUE(Type(IDC_NAME, std::string(40, 'n')).Done);
    EXPECT_EQ(Controls().Text(IDC_NAME), std::string(31, 'n'));

    // The incoming settings are stored at once; without an adapter nothing
    // goes to the line.
    EXPECT_TRUE(Click(IDC_IN_56K, true).Done);
    EXPECT_EQ(ThePreferences.Incoming56K, 1);
    EXPECT_TRUE(Click(IDC_IN_56K, false).Done);
    EXPECT_EQ(ThePreferences.Incoming56K, 0);
    ThePreferences.AdapterModel = ModelZyXEL;
    EXPECT_TRUE(Choose(IDC_IN_PROTOCOL, 1).Done);
    EXPECT_EQ(ThePreferences.IncomingProtocol, 2);
    ThePreferences.AdapterModel = ModelBitSURFR;
    EXPECT_TRUE(Choose(IDC_IN_PROTOCOL, 1).Done);
    EXPECT_EQ(ThePreferences.IncomingProtocol, 1);
    EXPECT_TRUE(Click(IDC_IGNORE_HOT, true).Done);
    EXPECT_EQ(ThePreferences.IgnoreHotFolders, 1);

    // An outgoing setting changes the estimate of what waits to go.
    MakeFile("a", 1000000);
    ASSERT_TRUE(window_->AddFileToList(folder_ / "a", "a"));
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:02:19");
    EXPECT_TRUE(Click(IDC_56K, true).Done);
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:02:56");
    EXPECT_TRUE(Choose(IDC_PROTOCOL, 1).Done);
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:01:09");

    // The Port Speed menu answers only while it is there.
    Controls().RemoveMenu(PortSpeedMenuPosition);
    outcome = ChooseMenu(ID_PORT_SPEED_230400);
    EXPECT_FALSE(outcome.Done);
    EXPECT_TRUE(Messages().empty());
}

// After the search the window shows what the adapter offers on this port:
// the protocol lists lose what it cannot do, the ZyXEL's options show, and
// the incoming settings and the Port Speed menu come from the preferences.
TEST_F(MainWindowTest, TheWindowShowsWhatTheAdapterFoundOffers) {
    struct AdapterCase {
        const char* Name;
        int16_t Model;
        int16_t Variant;
        int16_t SpeedClass;
        int16_t Incoming;  // IncomingProtocol, as the search left it
        uint32_t MaxSpeed;
        const char* Rows;  // of both protocol lists
        int Selection;
        bool SpeedMenu;
        bool Checked230400;
    };
    const AdapterCase cases[] = {
        {"BitSURFR on a slow port", ModelBitSURFR, 0, 1, 0, 57600, "V.120", 0, false, false},
        {"BitSURFR on a fast port", ModelBitSURFR, 0, 2, 1, 230400, "V.120, AIMUX", 1, true, true},
        {"AdTran", ModelAdTran, 1, 2, 0, 230400, "V.120, AIMUX", 0, true, false},
        {"Omni.net", ModelZyXEL, 2, 2, 0, 115200, "V.120", 0, false, false},
        {"Elite with X.75", ModelZyXEL, 1, 2, 2, 230400, "V.120, X.75", 1, true, true},
        {"3Com", Model3Com, 0, 2, 0, 230400, "V.120", 0, true, false},
    };
    for (const AdapterCase& c : cases) {
        SCOPED_TRACE(c.Name);
        StopWindow();
        StartWindow();
        ThePreferences.AdapterModel = c.Model;
        ThePreferences.AdapterVariant = c.Variant;
        ThePreferences.IncomingProtocol = c.Incoming;
        ThePreferences.Incoming2B = 1;
        ThePreferences.MaxPortSpeed = c.MaxSpeed;
        ThePreferences.SelectedPortSpeed = c.Checked230400 ? 230400 : 115200;
        SpeedClass.store(c.SpeedClass);
        AdapterFound.store(true);
        window_->ShowAdapter(true);

        EXPECT_EQ(Joined(RowTexts(IDC_PROTOCOL)), c.Rows);
        EXPECT_EQ(Joined(RowTexts(IDC_IN_PROTOCOL)), c.Rows);
        EXPECT_EQ(Controls().Selection(IDC_IN_PROTOCOL), c.Selection);
        EXPECT_EQ(Controls().Selection(IDC_PROTOCOL), 0);
        const bool options = c.Model == ModelZyXEL;
        for (int id : {IDC_2B, IDC_V42, IDC_IN_2B, IDC_IN_V42}) {
            EXPECT_EQ(Controls().Shown(id), options) << ControlName(id);
        }
        EXPECT_TRUE(Controls().Checked(IDC_IN_2B)) << "set from the preferences in every family";
        std::vector<std::string> menus;
        for (const Menu& menu : Controls().Menus()) {
            menus.push_back(menu.Title);
        }
        EXPECT_EQ(Joined(menus), c.SpeedMenu ? "&File, &Port Speed" : "&File");
        if (c.SpeedMenu) {
            EXPECT_EQ(Controls().MenuItemChecked(ID_PORT_SPEED_230400), c.Checked230400);
            EXPECT_EQ(Controls().MenuItemChecked(ID_PORT_SPEED_115200), !c.Checked230400);
        }
    }
    AdapterFound.store(false);
}

TEST_F(MainWindowTest, TheAboutBoxOfTheMenuNeitherClosesByItselfNorSearches) {
    SplashPending = 0;
    EXPECT_TRUE(ChooseMenu(IDM_ABOUTBOX).Done);
    EXPECT_TRUE(Controls().Shown(IDD_ABOUTBOX));
    EXPECT_FALSE(MainLoop().TimerRunning(TimerSplashClose));
    EXPECT_TRUE(Handle(Event(EventKind::AboutOk, 0)).Done);
    EXPECT_FALSE(Controls().Shown(IDD_ABOUTBOX));
    EXPECT_FALSE(MainLoop().TimerRunning(TimerFindAdapter));

    // The splash, closed by OK before its time, starts the search once.
    SplashPending = 1;
    window_->OpenAboutBox();
    EXPECT_TRUE(MainLoop().TimerRunning(TimerSplashClose));
    window_->OnAboutOk();
    EXPECT_FALSE(MainLoop().TimerRunning(TimerSplashClose));
    EXPECT_TRUE(MainLoop().TimerRunning(TimerFindAdapter));
    EXPECT_EQ(SplashPending.load(), 0);
    MainLoop().KillTimer(TimerFindAdapter);
    window_->OnAboutOk();
    EXPECT_FALSE(MainLoop().TimerRunning(TimerFindAdapter));
}

TEST_F(MainWindowTest, TheLogKeeps600LinesThe601stLeaves301AndClearLogLeavesOnlyStopping) {
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
    EXPECT_EQ(window_->LogLines(), rows);
    EXPECT_EQ(Controls().Selection(IDC_LOG), -1);

    // Clear Log empties the list, and the exit saves only its Stopping line.
    window_->OnClearLog();
    EXPECT_EQ(Controls().RowCount(IDC_LOG), 0);
    StopWindow();
    const std::string bytes = ReadWholeFile(LogPath);
    const std::vector<std::string> lines = LogLinesFromBuffer(bytes.data(), bytes.size());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Stopping Kestrelbound ", 0), 0u);
}

}  // namespace
