#include "window_fixture.h"

#include "platform/event_loop.h"
#include "platform/files.h"
#include "resources/resource.h"

namespace kb::test {

using namespace kb::app;
using namespace kb::platform;
using namespace kb::resources;
using namespace kb::stores;

void WindowTest::SetUp() {
    BlockPorts(folder_.Path());
    const StorePaths paths(folder_.Path());
    ASSERT_TRUE(CreateFolder(paths.IncomingPath));
    ASSERT_TRUE(CreateFolder(paths.PickUpPath));
    StartWindow();
}

void WindowTest::TearDown() {
    StopWindow();
}

void WindowTest::StartWindow() {
    line_.reset();
    stores_ = std::make_unique<Installation>(folder_.Path());
    stores_->Load();
    line_ = std::make_unique<Line>(*stores_, clock_);
    // The next start's engine holds nothing of the last run's.
    engine_ = std::make_unique<TransferEngine>(clock_);
    window_ = std::make_unique<MainWindow>(*stores_, *line_, *engine_);
    ASSERT_TRUE(window_->OnInitDialog());
}

void WindowTest::StopWindow() {
    if (!window_) {
        return;
    }
    window_->PrepareExit();
    for (int timer : {TimerSplashOpen, TimerSplashClose, TimerFindAdapter, TimerHotFolders}) {
        MainLoop().KillTimer(timer);
    }
    line_->CommPortClose();
    line_->CommPortDestroy();
    if (window_->EngineStarted()) {
        EngineShutdown(*engine_);
    }
    stores_->Log.Free();
    window_.reset();
    // The stopped installation stays for a look at what it left on the disk,
    // until the next start.
}

std::string WindowTest::MakeFolder(const std::string& name) {
    const std::string path = folder_ / name;
    EXPECT_TRUE(CreateFolder(path));
    return path;
}

std::vector<std::string> RowTexts(int id, const ControlModel& model) {
    std::vector<std::string> texts;
    for (const ListRow& row : model.Rows(id)) {
        texts.push_back(row.Text);
    }
    return texts;
}

std::vector<bool> EnabledOf(const std::vector<int>& ids) {
    std::vector<bool> enabled;
    for (int id : ids) {
        enabled.push_back(Controls().Enabled(id));
    }
    return enabled;
}

}  // namespace kb::test
