// The window's controls, its button rule, the routing of the user's events,
// the log list and the figures of a transfer, through the real control model;
// and the whole start and stop of the program.

#include "app/main_window.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "app/application.h"
#include "app/control_model.h"
#include "app/window_layout.h"
#include "engine/session_threads.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/adapter_family.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "resources/resource.h"
#include "stores/directory.h"
#include "stores/status_log.h"
#include "support/temp_folder.h"
#include "window_fixture.h"

namespace kb::test {

using namespace kb::app;
using namespace kb::engine;
using namespace kb::line;
using namespace kb::platform;
using namespace kb::resources;
using namespace kb::stores;

namespace {

using MainWindowTest = WindowTest;

// The engine's display call measures the rate of a file that moved that many
// bytes in a second, under a ceiling well above it.
void MeasureRate(MainWindow& window, uint32_t bytesPerSecond) {
    FileEntry& entry = window.Engine().SendList[0];
    entry = FileEntry{};
    entry.StartTime = 1000;
    entry.LastBlockTime = 2000;
    entry.BytesDone = bytesPerSecond;
    window.AdapterLine().RateEstimate = 16000;
    window.Display().ShowThroughput(true, false);
    ASSERT_EQ(window.Display().MeasuredRate(), static_cast<int32_t>(bytesPerSecond));
}

TEST_F(MainWindowTest, TheButtonsFollowTheLinkAndTheFileList) {
    struct Row {
        LinkState Link;
        int16_t Count;
        int16_t Selected;
        bool Send, Retrieve, Disconnect, Add, Clear, Remove, Incoming;
    };
    const std::vector<Row> table = {
        {LinkState::Idle, 0, -1, false, true, false, true, false, false, true},
        {LinkState::Idle, 2, -1, true, false, false, true, true, false, true},
        {LinkState::Idle, 2, 1, true, false, false, true, true, true, true},
        {LinkState::Dialing, 2, 1, false, false, true, false, false, false, false},
        {LinkState::Connected, 0, -1, false, false, true, false, false, false, false},
        {LinkState::Transfer, 2, -1, false, false, true, false, false, false, false},
        {LinkState::FileSent, 1, -1, false, false, true, false, false, false, false},
        {LinkState::Recovery, 1, -1, false, false, true, false, false, false, false},
    };
    // At start Retrieve waits for the first run of the rule.
    EXPECT_FALSE(Controls().Enabled(IDC_RETRIEVE));
    for (const Row& row : table) {
        SCOPED_TRACE("state " + std::to_string(static_cast<int>(row.Link)) + " count " +
                     std::to_string(row.Count) + " row " + std::to_string(row.Selected));
        // A selected row is what a click leaves behind.
        engine_->Call.LinkState = LinkState::Idle;
        engine_->SendList.Clear();
        for (int i = 0; i < row.Count; ++i) {
            ASSERT_TRUE(engine_->SendList.Add(FileEntry{}));
        }
        window_->Files().OnFileClick(row.Selected);
        engine_->Call.LinkState = row.Link;
        window_->UpdateActionButtons();
        EXPECT_EQ(EnabledOf({IDC_SEND, IDC_RETRIEVE, IDC_DISCONNECT, IDC_FILE_ADD, IDC_FILE_CLEAR,
                             IDC_FILE_DELETE}),
                  (std::vector<bool>{row.Send, row.Retrieve, row.Disconnect, row.Add, row.Clear,
                                     row.Remove}));
        EXPECT_EQ(EnabledOf({IDC_IN_PROTOCOL, IDC_IN_56K, IDC_IN_2B, IDC_IN_V42}),
                  std::vector<bool>(4, row.Incoming));
        // What stays open during a call.
        EXPECT_EQ(EnabledOf({IDC_DIRECTORY_LIST, IDC_NAME, IDC_PROTOCOL, IDC_56K, IDC_IGNORE_HOT}),
                  std::vector<bool>(5, true));
    }
    // The state a front end is told never runs ahead of the buttons: asked
    // while the end of a call is changing them, it comes once they show idle.
    engine_->SendList.Clear();
    engine_->Call.LinkState = LinkState::Connected;
    window_->UpdateActionButtons();
    std::atomic<bool> asked{false};
    std::thread asker;
    std::string told;
    bool addOpenWhenTold = false;
    const int listener = Controls().AddListener([&](const ControlEvent&) {
        if (asked.exchange(true)) {
            return;
        }
        asker = std::thread([&] {
            told = MainWindow::LinkStateName(*engine_);
            addOpenWhenTold = Controls().Enabled(IDC_FILE_ADD);
        });
        // The rest of the buttons change after the asker has had its chance.
        clock_.SleepMs(100);
    });
    ReturnToIdle(*engine_);
    Controls().RemoveListener(listener);
    asker.join();
    EXPECT_EQ(told, "idle");
    EXPECT_TRUE(addOpenWhenTold);
}

TEST_F(MainWindowTest, EventsReachOnlyControlsAUserCouldUseAndPictureButtonsSayWhatTheyDo) {
    // Hidden and unnamed controls refuse, with the reason, as disabled ones
    // do (the station's refusal to send shows that).
    EXPECT_EQ(Click(IDC_2B, true).Refusal, "IDC_2B is hidden");
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
    EXPECT_EQ(stores_->Prefs.Incoming56K, 1);
    EXPECT_TRUE(Click(IDC_IN_56K, false).Done);
    EXPECT_EQ(stores_->Prefs.Incoming56K, 0);
    stores_->Prefs.AdapterModel = ModelZyXEL;
    EXPECT_TRUE(Choose(IDC_IN_PROTOCOL, 1).Done);
    EXPECT_EQ(stores_->Prefs.IncomingProtocol, 2);
    stores_->Prefs.AdapterModel = ModelBitSURFR;
    EXPECT_TRUE(Choose(IDC_IN_PROTOCOL, 1).Done);
    EXPECT_EQ(stores_->Prefs.IncomingProtocol, 1);

    // An outgoing setting changes the estimate of what waits to go.
    folder_.MakeFile("a", 1000000);
    ASSERT_TRUE(window_->Files().AddFileToList(folder_ / "a", "a"));
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:02:19");
    EXPECT_TRUE(Click(IDC_56K, true).Done);
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:02:56");
    EXPECT_TRUE(Choose(IDC_PROTOCOL, 1).Done);
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:01:09");

    // The Port Speed menu answers only while it is there.
    Controls().RemoveMenu(PortSpeedMenuPosition);
    EXPECT_FALSE(ChooseMenu(ID_PORT_SPEED_230400).Done);
    EXPECT_TRUE(Messages().empty());

    // Every named control belongs to a panel that takes its events: none is
    // refused as unknown. Its own text, typed again, changes nothing. Every
    // picture button says in words what a click on it does: one line per
    // button, with the words that tell it from the others.
    const std::map<int, const char*> told = {
        {IDC_MAKE_FOLDER, "Make a pick-up folder"},
        {IDC_FOLDER_EMPTY, "pick-up folder, now empty"},
        {IDC_FOLDER_FILLED, "pick-up folder, which holds files"},
        {IDC_HOT_EMPTY, "hot folder, now empty"},
        {IDC_HOT_FILLED, "hot folder, whose files go out"},
        {IDC_OPEN_INCOMING, "Incoming Files"},
        {IDC_PROGRAM_1, "program 1"},
        {IDC_PROGRAM_2, "program 2"},
        {IDC_EMBLEM, "About Kestrelbound"},
    };
    size_t buttons = 0;
    for (const ControlPlace& place : MainWindowLayout()) {
        if (*place.Name != '\0') {
            EXPECT_NE(Type(place.Id, Controls().Text(place.Id)).Refusal, "no such control")
                << place.Name;
        }
        const std::string tip = ControlTip(place.Id);
        if (Controls().State(place.Id).Kind != ControlKind::PictureButton) {
            EXPECT_EQ(tip, "") << place.Id << ": its own text says it";
            continue;
        }
        ++buttons;
        const auto words = told.find(place.Id);
        ASSERT_NE(words, told.end()) << place.Name;
        EXPECT_NE(tip.find(words->second), std::string::npos) << place.Name << ": " << tip;
    }
    EXPECT_EQ(buttons, told.size());
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
        std::vector<std::string> Rows;  // of both protocol lists
        int Selection;
        bool SpeedMenu;
        bool Checked230400;
    };
    const AdapterCase cases[] = {
        {"BitSURFR, slow port", ModelBitSURFR, 0, 1, 0, 57600, {"V.120"}, 0, false, false},
        {"BitSURFR, fast port", ModelBitSURFR, 0, 2, 1, 230400, {"V.120", "AIMUX"}, 1, true, true},
        {"AdTran", ModelAdTran, 1, 2, 0, 230400, {"V.120", "AIMUX"}, 0, true, false},
        {"Omni.net", ModelZyXEL, 2, 2, 0, 115200, {"V.120"}, 0, false, false},
        {"Elite with X.75", ModelZyXEL, 1, 2, 2, 230400, {"V.120", "X.75"}, 1, true, true},
        {"3Com", Model3Com, 0, 2, 0, 230400, {"V.120"}, 0, true, false},
    };
    for (const AdapterCase& c : cases) {
        SCOPED_TRACE(c.Name);
        StopWindow();
        StartWindow();
        // Before the adapter has told its number, the title names the folder.
        EXPECT_EQ(Controls().Text(IDD_MAIN_WINDOW),
                  std::filesystem::path(folder_.Path()).filename().string() + " - Kestrelbound");
        stores_->Prefs.AdapterModel = c.Model;
        stores_->Prefs.AdapterVariant = c.Variant;
        stores_->Prefs.IncomingProtocol = c.Incoming;
        stores_->Prefs.Incoming2B = 1;
        stores_->Prefs.MaxPortSpeed = c.MaxSpeed;
        stores_->Prefs.SelectedPortSpeed = c.Checked230400 ? 230400 : 115200;
        line_->SpeedClass.store(c.SpeedClass);
        line_->AdapterFound.store(true);
        window_->ShowAdapter(true);

        EXPECT_EQ(RowTexts(IDC_PROTOCOL), c.Rows);
        EXPECT_EQ(RowTexts(IDC_IN_PROTOCOL), c.Rows);
        EXPECT_EQ(Controls().Selection(IDC_IN_PROTOCOL), c.Selection);
        EXPECT_EQ(Controls().Selection(IDC_PROTOCOL), 0);
        for (int id : {IDC_2B, IDC_V42, IDC_IN_2B, IDC_IN_V42}) {
            EXPECT_EQ(Controls().Shown(id), c.Model == ModelZyXEL) << ControlName(id);
        }
        EXPECT_TRUE(Controls().Checked(IDC_IN_2B)) << "set from the preferences in every family";
        // A record shows its protocol in the row that names it, one that the
        // adapter does not offer as V.120, and a Change stores what is shown.
        for (const LineProtocol protocol : {ProtocolV120, ProtocolAimux, ProtocolX75}) {
            const std::string name = ProtocolNames[protocol];
            const std::string shown = std::ranges::count(c.Rows, name) != 0 ? name : "V.120";
            stores_->Directory[0] = Correspondent{};
            stores_->Directory[0].Protocol = protocol;
            window_->Correspondents().ShowCorrespondent(0);
            EXPECT_EQ(Controls().RowText(IDC_PROTOCOL, Controls().Selection(IDC_PROTOCOL)), shown)
                << name;
            window_->Correspondents().ReadCorrespondentForm(0);
            EXPECT_EQ(stores_->Directory[0].Protocol, ProtocolNamed(shown)) << name;
        }
        std::vector<std::string> menus;
        for (const Menu& menu : Controls().Menus()) {
            menus.push_back(menu.Title);
        }
        EXPECT_EQ(menus, (c.SpeedMenu ? std::vector<std::string>{"&File", "&Port Speed", "&Help"}
                                      : std::vector<std::string>{"&File", "&Help"}));
        if (c.SpeedMenu) {
            EXPECT_EQ(Controls().MenuItemChecked(ID_PORT_SPEED_230400), c.Checked230400);
            EXPECT_EQ(Controls().MenuItemChecked(ID_PORT_SPEED_115200), !c.Checked230400);
        }
        // No adapter is there to take the closing command that a stop sends
        // to a found one.
        line_->AdapterFound.store(false);
    }
}

TEST_F(MainWindowTest, TheAboutBoxOfTheMenuNeitherClosesByItselfNorSearches) {
    // The splash of the start has come and gone, and its search with it.
    window_->OpenAboutBox();
    window_->OnAboutOk();
    MainLoop().KillTimer(TimerFindAdapter);
    // The menu's entry and the emblem open the same box.
    for (const bool emblem : {false, true}) {
        EXPECT_TRUE((emblem ? Press(IDC_EMBLEM) : ChooseMenu(IDM_ABOUTBOX)).Done);
        EXPECT_TRUE(Controls().Shown(IDD_ABOUTBOX)) << emblem;
        EXPECT_FALSE(MainLoop().TimerRunning(TimerSplashClose));
        EXPECT_TRUE(Handle(Event(EventKind::AboutOk, 0)).Done);
        EXPECT_FALSE(Controls().Shown(IDD_ABOUTBOX));
        EXPECT_FALSE(MainLoop().TimerRunning(TimerFindAdapter));
    }

    // The splash of the next start, closed by OK before its time, starts the
    // search once.
    StopWindow();
    StartWindow();
    window_->OpenAboutBox();
    EXPECT_TRUE(MainLoop().TimerRunning(TimerSplashClose));
    window_->OnAboutOk();
    EXPECT_FALSE(MainLoop().TimerRunning(TimerSplashClose));
    EXPECT_TRUE(MainLoop().TimerRunning(TimerFindAdapter));
    MainLoop().KillTimer(TimerFindAdapter);
    window_->OnAboutOk();
    EXPECT_FALSE(MainLoop().TimerRunning(TimerFindAdapter));
}

TEST_F(MainWindowTest, TheLogKeeps600LinesThe601stLeaves301AndClearLogLeavesOnlyStopping) {
    ASSERT_EQ(Controls().RowCount(IDC_LOG), 1);  // the Starting line
    for (size_t i = 1; i < 600; ++i) {
        stores_->Log.Add("line " + std::to_string(i));
    }
    EXPECT_EQ(Controls().RowCount(IDC_LOG), 600);
    stores_->Log.Add("line 600");
    const std::vector<std::string> rows = RowTexts(IDC_LOG);
    ASSERT_EQ(rows.size(), 301u);
    EXPECT_EQ(rows.front(), "line 300");
    EXPECT_EQ(rows.back(), "line 600");
    EXPECT_EQ(window_->Log().LogLines(), rows);
    EXPECT_EQ(Controls().Selection(IDC_LOG), -1);

    // Clear Log empties the list, and the exit saves only its Stopping line.
    window_->Log().OnClearLog();
    EXPECT_EQ(Controls().RowCount(IDC_LOG), 0);
    StopWindow();
    const std::vector<std::string> lines = SavedLog(folder_.Path());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Stopping Kestrelbound ", 0), 0u);
}

// ---- The figures of a transfer ----

// The time for a batch: its size / rate + 1 seconds, at 7200 bytes a second
// for one 64K channel, 5700 at 56K, 15500 for two channels, 14500 for two at
// 56K; the size is shown in whole KB, rounded up, and hours of three digits
// whole.
TEST_F(MainWindowTest, TheEstimateFollowsTheOutgoingSettingsAndRoundsTheSizeUp) {
    struct EstimateCase {
        const char* What;
        uint32_t Bytes;
        int16_t Model;
        int Row;
        bool At56k, TwoChannels, V42;
        const char* Kb;
        const char* Time;
    };
    const EstimateCase cases[] = {
        {"a KB less a byte", 1023, ModelBitSURFR, 0, false, false, false, "1 KB", "00:00:01"},
        {"a KB", 1024, ModelBitSURFR, 0, false, false, false, "2 KB", "00:00:01"},
        {"a second less a byte", 7199, ModelBitSURFR, 0, false, false, false, "8 KB", "00:00:01"},
        {"a second", 7200, ModelBitSURFR, 0, false, false, false, "8 KB", "00:00:02"},
        {"an hour", 3599u * 7200u, ModelBitSURFR, 0, false, false, false, "25306 KB", "01:00:00"},
        {"100 hours", 359999u * 7200u, ModelBitSURFR, 0, false, false, false, "2531243 KB",
         "100:00:00"},
        {"V.120, 2B at 56K", 1000000, ModelBitSURFR, 0, true, true, false, "977 KB", "00:01:09"},
        {"V.120, 2B", 1000000, ModelBitSURFR, 0, false, true, false, "977 KB", "00:01:05"},
        // AIMUX takes two channels whatever 2B says.
        {"AIMUX with 2B", 1000000, ModelBitSURFR, 1, false, true, false, "977 KB", "00:01:05"},
        {"AIMUX without 2B", 1000000, ModelBitSURFR, 1, false, false, false, "977 KB", "00:01:05"},
        // The rows' texts name the protocol: on a ZyXEL, X.75, where 2B decides.
        {"ZyXEL, AIMUX's row", 1000000, ModelZyXEL, 1, false, false, false, "977 KB", "00:02:19"},
        {"ZyXEL X.75", 1000000, ModelZyXEL, 2, false, false, false, "977 KB", "00:02:19"},
        {"ZyXEL X.75, 2B", 1000000, ModelZyXEL, 2, false, true, false, "977 KB", "00:01:05"},
        {"V.42 does not enter", 1000000, ModelZyXEL, 2, false, true, true, "977 KB", "00:01:05"},
        // With no row chosen the estimate is V.120's.
        {"no row, 2B", 1000000, ModelBitSURFR, -1, false, true, true, "977 KB", "00:01:05"},
        {"no row", 1000000, ModelBitSURFR, -1, false, false, false, "977 KB", "00:02:19"},
        {"the most", 4294967295u, ModelBitSURFR, 0, false, false, false, "4194304 KB", "165:42:04"},
    };
    for (const EstimateCase& c : cases) {
        SCOPED_TRACE(c.What);
        stores_->Prefs.AdapterModel = c.Model;
        Controls().Select(IDC_PROTOCOL, c.Row);
        Controls().Check(IDC_56K, c.At56k);
        Controls().Check(IDC_2B, c.TwoChannels);
        Controls().Check(IDC_V42, c.V42);
        window_->Display().ShowBatchEstimate(c.Bytes);
        EXPECT_EQ(Controls().Text(IDC_TOTAL_KB), c.Kb);
        EXPECT_EQ(Controls().Text(IDC_EST_TIME), std::string("Est. Time: ") + c.Time);
        EXPECT_EQ(EnabledOf({IDC_TOTAL_KB, IDC_EST_TIME}), std::vector<bool>(2, true));
    }
    // Nothing to send: no figures are left to be read as the list's.
    window_->Display().ShowBatchEstimate(0);
    EXPECT_EQ(EnabledOf({IDC_TOTAL_KB, IDC_EST_TIME}), std::vector<bool>(2, false));
    EXPECT_EQ(Controls().Text(IDC_TOTAL_KB), "");
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "");
    // A measured rate takes over.
    MeasureRate(*window_, 1000);
    window_->Display().ShowBatchEstimate(1000000);
    EXPECT_EQ(Controls().Text(IDC_EST_TIME), "Est. Time: 00:16:41");
}

// The rate of the file on top of a list, from its stamps, never above the
// ceiling; the steps run in order, each on what the one before left.
TEST_F(MainWindowTest, TheShownRateNeverPassesTheCeiling) {
    struct RateStep {
        const char* What;
        bool Sending;
        uint32_t StartTime;
        uint32_t LastBlockTime;
        uint32_t BytesDone;
        int32_t Ceiling;
        bool Log;
        int32_t Measured;
        const char* Shown;
    };
    const RateStep steps[] = {
        {"nothing has moved yet: nothing changes", true, 0, 0, 0, 16000, true, 0, "untouched"},
        {"at the ceiling, logged", true, 1000, 2000, 20000, 16000, true, 16000, "16000 Bytes/sec"},
        {"below it", true, 1000, 2000, 12000, 16000, false, 12000, "12000 Bytes/sec"},
        {"within the first millisecond: the last rate stays", true, 1000, 1000, 999999, 16000,
         false, 12000, "12000 Bytes/sec"},
        {"a huge count over a millisecond does not overflow", true, 1000, 1001, 4000000000u, 16000,
         false, 16000, "16000 Bytes/sec"},
        {"the clock wraps between the stamps", true, 0xFFFFFC18u, 1000, 10000, 16000, false, 5000,
         "5000 Bytes/sec"},
        {"a ceiling of 0 leaves a rate the estimate can divide by", true, 0xFFFFFC18u, 1000, 10000,
         0, false, 10, "0 Bytes/sec"},
        {"the receiving side reads its own list", false, 10, 2010, 14000, 16000, false, 7000,
         "7000 Bytes/sec"},
    };
    engine_->SendList[0] = FileEntry{};
    engine_->ReceiveList[0] = FileEntry{};
    Controls().SetText(IDC_BYTES_SEC, "untouched");
    for (const RateStep& step : steps) {
        SCOPED_TRACE(step.What);
        FileEntry& entry = step.Sending ? engine_->SendList[0] : engine_->ReceiveList[0];
        entry.StartTime = step.StartTime;
        entry.LastBlockTime = step.LastBlockTime;
        entry.BytesDone = step.BytesDone;
        line_->RateEstimate = step.Ceiling;
        const size_t lines = RowTexts(IDC_LOG).size();
        window_->Display().ShowThroughput(step.Sending, step.Log);
        EXPECT_EQ(window_->Display().MeasuredRate(), step.Measured);
        EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), step.Shown);
        const bool logged = step.Log && step.StartTime != 0;
        ASSERT_EQ(RowTexts(IDC_LOG).size(), lines + (logged ? 1 : 0));
        if (logged) {
            EXPECT_EQ(RowTexts(IDC_LOG).back(), std::string("Average throughput: ") + step.Shown);
        }
    }
}

TEST_F(MainWindowTest, ProgressIsComputedInSixtyFourBitsShownInATransferAndItsTimeLoggedOnce) {
    const uint32_t progress[][3] = {{50u << 20, 60u << 20, 83},
                                    {4000000000u, 4200000000u, 95},
                                    {100, 100, 100},
                                    {0, 0, 0},
                                    {7, 5, 100}};
    for (const auto& [done, total, position] : progress) {
        window_->Display().SetProgress(done, total);
        EXPECT_EQ(Controls().Position(IDC_PROGRESS), static_cast<int>(position)) << done;
    }

    // The transfer state shows the bar afresh and shuts Clear Log; its end
    // hides the bar and leaves the last rate in grey.
    for (const bool transfer : {true, false}) {
        SCOPED_TRACE(transfer);
        MeasureRate(*window_, 7000);
        Controls().SetText(IDC_BYTES_SEC, "7000 Bytes/sec");
        window_->Display().SetProgress(1, 2);
        window_->Display().ShowTransferDisplay(transfer);
        EXPECT_EQ(Controls().Shown(IDC_PROGRESS), transfer);
        EXPECT_EQ(Controls().Position(IDC_PROGRESS), 0);
        EXPECT_EQ(Controls().Enabled(IDC_BYTES_SEC), transfer);
        EXPECT_EQ(Controls().Text(IDC_BYTES_SEC), transfer ? "" : "7000 Bytes/sec");
        EXPECT_EQ(Controls().Enabled(IDC_CLEAR_LOG), !transfer);
        EXPECT_EQ(window_->Display().MeasuredRate(), 0);
    }

    // The elapsed time is logged once per session.
    window_->Display().LogElapsedTime();
    EXPECT_EQ(RowTexts(IDC_LOG).size(), 1u);  // nothing ran: no line
    engine_->Call.TransferStartTime = WallSeconds() - 3725;
    window_->Display().LogElapsedTime();
    window_->Display().LogElapsedTime();
    const std::vector<std::string> observed = RowTexts(IDC_LOG);
    ASSERT_EQ(observed.size(), 2u);
    // A second may pass between the two readings of the clock.
    EXPECT_TRUE(observed[1] == "Elapsed Time: 01:02:05" || observed[1] == "Elapsed Time: 01:02:06")
        << observed[1];
    EXPECT_EQ(engine_->Call.TransferStartTime.load(), 0);
}

TEST_F(MainWindowTest, TheIncomingListShowsTheWireSizesAndLosesItsTopRow) {
    const std::tuple<const char*, FileKind, uint32_t> received[] = {
        {"Smith-A", FileKind::FolderMarker, 0},
        {"report.txt", FileKind::PlainFile, 131075},
        {"tool.exe", FileKind::ProgramFile, 12}};
    for (const auto& [name, kind, length] : received) {
        FileEntry& entry = engine_->ReceiveList[engine_->Call.ReceiveCount++];
        entry = FileEntry{};
        entry.DisplayName.Set(name);
        entry.EntryKind = kind;
        entry.TotalLength = length;
    }
    window_->Files().ListIncomingFiles();
    std::vector<ListRow> rows = Controls().Rows(IDC_FILE_LIST);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].Text, "Smith-A");
    EXPECT_EQ(rows[0].Detail, "");
    EXPECT_EQ(rows[0].Image, KindNumber(FileKind::FolderMarker));
    EXPECT_EQ(rows[1].Detail, "131075");
    EXPECT_EQ(rows[2].Image, KindNumber(FileKind::ProgramFile));
    window_->Files().RemoveTopFileRow();
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), (std::vector<std::string>{"report.txt", "tool.exe"}));
    engine_->Call.ReceiveCount = 0;
}

// A larger window gives its room to the directory list, the file list and
// the log; the rest moves with the edge it stands by. Units throughout.
TEST_F(MainWindowTest, TheListsTakeTheRoomOfALargerWindowAndTheControlsMoveWithTheirEdges) {
    // Grown by X and Y, the control's place.
    const std::tuple<int, int, int, Box> table[] = {
        {90, 40, IDC_DIRECTORY_LIST, {7, 19, 146, 88}},
        {90, 40, IDC_LABEL_DIRECTORY, {65, 7, 29, 8}},
        {90, 40, IDC_NAME, {193, 20, 171, 14}},
        {90, 40, IDC_ADD, {370, 21, 30, 14}},
        {90, 40, IDC_FILE_LIST, {7, 132, 146, 90}},
        {90, 40, IDC_FILE_DELETE, {65, 225, 30, 14}},
        {90, 40, IDC_LOG, {158, 132, 221, 90}},
        {90, 40, IDC_LABEL_LOG, {266, 123, 13, 8}},
        {90, 40, IDC_SEND, {384, 132, 50, 19}},
        {90, 40, IDC_PROGRESS, {158, 245, 221, 7}},
        {90, 40, IDC_HELP, {411, 263, 23, 20}},
        {90, 40, IDC_OWN_NUMBER, {7, 275, 218, 8}},
        {0, SmallestLayoutHeight - LayoutHeight, IDC_LOG, {128, 113, 161, 49}},
        {0, SmallestLayoutHeight - LayoutHeight, IDC_DIRECTORY_LIST, {7, 19, 116, 69}},
    };
    const std::vector<ControlPlace>& layout = MainWindowLayout();
    const auto placeOf = [](const ControlPlace& place) {
        return Box{place.X, place.Y, place.Width, place.Height};
    };
    const auto sides = [](const Box& box) {
        return std::vector<int>{box.X, box.Y, box.Width, box.Height};
    };
    for (const auto& [x, y, id, place] : table) {
        const Box laidOut = placeOf(*std::ranges::find(layout, id, &ControlPlace::Id));
        EXPECT_EQ(sides(GrownPlace(id, laidOut, x, y)), sides(place))
            << ControlName(id) << " " << id << " grown by " << x << "," << y;
    }

    // At any size from the smallest up, every control stays on the page, and
    // controls apart at the laid-out size stay apart (a drop-down counted
    // closed).
    const auto closed = [&](int id, Box place) {
        if (Controls().State(id).Kind == ControlKind::DropDown) {
            place.Height = ClosedDropDownHeight;
        }
        return place;
    };
    const auto meet = [](const Box& a, const Box& b) {
        return a.X < b.X + b.Width && b.X < a.X + a.Width && a.Y < b.Y + b.Height &&
               b.Y < a.Y + a.Height;
    };
    for (const auto& [x, y] : std::vector<std::pair<int, int>>{
             {0, 0}, {0, SmallestLayoutHeight - LayoutHeight}, {1, 1}, {5, 3}, {600, 400}}) {
        // Each control's place laid out and grown.
        std::vector<std::pair<Box, Box>> places;
        for (const ControlPlace& control : layout) {
            const Box laidOut = closed(control.Id, placeOf(control));
            places.emplace_back(laidOut, closed(control.Id, GrownPlace(control.Id, laidOut, x, y)));
        }
        for (size_t a = 0; a < layout.size(); ++a) {
            const auto& [laidOutA, grownA] = places[a];
            EXPECT_TRUE(grownA.X >= 0 && grownA.Y >= 0 &&
                        grownA.X + grownA.Width <= LayoutWidth + x &&
                        grownA.Y + grownA.Height <= LayoutHeight + y)
                << ControlName(layout[a].Id) << " off the page grown by " << x << "," << y;
            for (size_t b = a + 1; b < layout.size(); ++b) {
                EXPECT_FALSE(!meet(laidOutA, places[b].first) && meet(grownA, places[b].second))
                    << layout[a].Id << " meets " << layout[b].Id << " grown by " << x << "," << y;
            }
        }
    }
}

// A saved place is taken only when it is at least the smallest size and
// lies wholly on a screen; a window with none opens at the laid-out size, or
// at what the screen leaves room for, never below the smallest.
TEST(WindowPlaceTest, ASavedPlaceOffTheScreensOrTooSmallGivesWayToTheLaidOutSize) {
    const std::vector<Box> screens = {{0, 0, 1600, 1000}, {1600, 0, 1280, 1024}};
    // What was saved, and whether it is taken.
    const std::tuple<const char*, std::optional<WindowPlace>, bool> cases[] = {
        {"none saved", std::nullopt, false},
        {"on the first screen", WindowPlace{{100, 50, 900, 600}, false}, true},
        {"maximised on the second", WindowPlace{{1700, 20, 800, 500}, true}, true},
        {"partly off the screens", WindowPlace{{1000, 600, 900, 600}, false}, false},
        {"where no screen is", WindowPlace{{-2000, 50, 800, 500}, false}, false},
        {"narrower than the smallest", WindowPlace{{100, 50, 699, 600}, false}, false},
        {"lower than the smallest", WindowPlace{{100, 50, 900, 449}, false}, false},
    };
    for (const auto& [name, saved, taken] : cases) {
        const std::optional<WindowPlace> reopened = PlaceToReopen(saved, screens, 700, 450);
        ASSERT_EQ(reopened.has_value(), taken) << name;
        if (taken) {
            EXPECT_EQ(reopened->Normal.X, saved->Normal.X) << name;
            EXPECT_EQ(reopened->Maximised, saved->Maximised) << name;
        }
    }
    const Box laidOut{0, 0, 704, 490};
    const Box smallest{0, 0, 704, 450};
    for (const auto& [room, width, height] :
         std::vector<std::tuple<Box, int, int>>{{{0, 0, 1600, 1000}, 704, 490},
                                                {{0, 0, 800, 470}, 704, 470},
                                                {{0, 0, 640, 400}, 704, 450}}) {
        const Box opened = OpeningSize(laidOut, smallest, room);
        EXPECT_EQ(std::make_pair(opened.Width, opened.Height), std::make_pair(width, height))
            << room.Width << "x" << room.Height;
    }
}

// ---- The whole start and stop of the program ----

// Run as the program runs it: in the current folder, with the main loop and
// its timers.
using Clock = std::chrono::steady_clock;

class AppStartTest : public ::testing::Test {
protected:
    void SetUp() override {
        previous_ = CurrentFolder().value_or("");
        ASSERT_TRUE(ChangeCurrentFolder(folder_.Path()));
        BlockPorts(folder_.Path());
    }
    void TearDown() override { EXPECT_TRUE(ChangeCurrentFolder(previous_)); }

    // One run of the program; the window's first task is the given one.
    std::vector<std::string> Run(const std::function<void()>& first) {
        std::vector<std::string> lines;
        app_->PrepareWindow = [&](MainWindow& window) {
            window.SetLogObserver([&](const std::string& line) { lines.push_back(line); });
        };
        if (first) {
            MainLoop().Post(first);
        }
        EXPECT_FALSE(app_->InitInstance());
        windowLeftEngine_ = app_->Engine().Window.load() == nullptr;
        // The next run is the program's next start.
        app_ = std::make_unique<TransferApp>();
        return lines;
    }

    // The window of the run under way; on the main loop's thread.
    MainWindow* Window() const { return app_->Window()->load(); }
    void PostEvent(EventKind kind, int id = 0) {
        MainLoop().Post([this, kind, id] { Window()->HandleEvent(Event(kind, id)); });
    }

    TempFolder folder_;
    CapturedOutput output_;
    std::unique_ptr<TransferApp> app_ = std::make_unique<TransferApp>();
    // Whether the last run's window let go of the engine as it ended.
    bool windowLeftEngine_ = false;

private:
    std::string previous_;
};

TEST_F(AppStartTest, AFirstRunSavesNoPreferencesWithoutAnAdapterAndTheNextSplashLastsASecond) {
    const std::vector<std::string> lines = Run([this] {
        // The user changes a preference and leaves at once.
        Window()->HandleEvent(Event(EventKind::BoxClicked, IDC_IGNORE_HOT, -1, true));
        PostEvent(EventKind::Close);
    });

    // The preferences file holds the first run's defaults: 9600 bps and
    // nothing else, the change of this run not saved.
    const std::string prefs = ReadWholeFile(folder_ / "kestrelbound_prefs");
    ASSERT_EQ(prefs.size(), 1176u);
    EXPECT_EQ(prefs.substr(0, 8), std::string("\0\0\0\0\x80\x25\0\0", 8));
    EXPECT_EQ(prefs.find_first_not_of('\0', 8), std::string::npos);
    EXPECT_EQ(ReadWholeFile(folder_ / "kestrelbound_directory"), std::string(2, '\0'));
    EXPECT_TRUE(FolderExists(folder_ / "Incoming Files"));
    EXPECT_TRUE(FolderExists(folder_ / "Pick Up"));

    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("Starting Kestrelbound ", 0), 0u);
    EXPECT_EQ(lines[1].rfind("Stopping Kestrelbound ", 0), 0u);
    EXPECT_EQ(ReadWholeFile(folder_ / "kestrelbound_log"),
              lines[0] + std::string(1, '\0') + lines[1] + std::string(2, '\0'));
    EXPECT_TRUE(output_.Messages().empty());
    EXPECT_TRUE(windowLeftEngine_);

    // The second start shows its splash, which closes itself after a second;
    // the box starts hidden, so its changes alternate: shown, hidden. A
    // listener keeps to what the announcement says.
    Clock::time_point shown;
    Clock::time_point hidden;
    int opened = 0;
    int changes = 0;
    const int listener = Controls().AddListener([&](const ControlEvent& event) {
        if (event.Id == IDD_ABOUTBOX && event.Change == ControlChange::Shown) {
            if (changes++ % 2 == 0) {
                ++opened;
                shown = Clock::now();
            } else {
                hidden = Clock::now();
            }
        }
    });
    // It shows the stored lines above its own Starting line. The search
    // finds nothing and says so; the start is over only once the search has
    // returned, and Retrieve, with an empty list, is on from then. The user
    // then leaves.
    std::vector<std::string> rows;
    std::vector<bool> startOver;
    bool retrieveOn = false;
    MainLoop().Post([&] {
        rows = RowTexts(IDC_LOG);
        startOver.push_back(Window()->StartIsOver());
    });
    output_.OnMessage = [&](const std::string& text) {
        if (text == NoAdapterMessage) {
            startOver.push_back(Window()->StartIsOver());
            MainLoop().Post([&] {
                startOver.push_back(Window()->StartIsOver());
                retrieveOn = Controls().Enabled(IDC_RETRIEVE);
                PostEvent(EventKind::MenuCommand, ID_FILE_EXIT);
            });
        }
    };
    const std::vector<std::string> second = Run(nullptr);
    Controls().RemoveListener(listener);

    // Only lines added in this run went through the log: its Starting line,
    // then the search's.
    ASSERT_GE(second.size(), 2u);
    EXPECT_EQ(second[0].rfind("Starting Kestrelbound ", 0), 0u);
    EXPECT_EQ(second[1], "Searching Comm Port 1");
    EXPECT_EQ(rows, (std::vector<std::string>{lines[0], lines[1], second[0]}));
    EXPECT_EQ(startOver, (std::vector<bool>{false, false, true}));
    EXPECT_TRUE(retrieveOn);
    EXPECT_EQ(opened, 1);
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(hidden - shown).count(), 990);
    // No adapter: the preferences file is as the first run made it.
    EXPECT_EQ(ReadWholeFile(folder_ / "kestrelbound_prefs"), prefs);
}

}  // namespace

}  // namespace kb::test
