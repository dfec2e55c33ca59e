// The whole start and stop of the program, run as the program runs it: in
// the current folder, with the main loop and its timers.

#include "app/application.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "app/control_model.h"
#include "app/main_window.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "resources/resource.h"
#include "support/temp_folder.h"
#include "window_fixture.h"

namespace kb::test {

using namespace kb::app;
using namespace kb::line;
using namespace kb::platform;
using namespace kb::resources;

namespace {

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
    const std::string log = ReadWholeFile(folder_ / "kestrelbound_log");
    EXPECT_EQ(log, lines[0] + std::string(1, '\0') + lines[1] + std::string(2, '\0'));
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
