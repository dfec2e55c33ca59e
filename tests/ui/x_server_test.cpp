// The window under a real X server with a window manager, where its size and
// place are the desktop's to give: a virtual X server of 1600 x 1000 pixels
// and a window manager, started by the test program itself on a free
// display. Without an X server the tests are skipped, and say so.

#include <QApplication>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "app/window_layout.h"
#include "resources/resource.h"
#include "support/child_process.h"
#include "ui/about_box.h"
#include "ui_fixture.h"

namespace kb::test {

using namespace kb::app;
using namespace kb::resources;

namespace {

using namespace std::chrono_literals;

// The X server and the window manager, for the whole test program.
std::unique_ptr<ChildProcess> Server;
std::unique_ptr<ChildProcess> WindowManager;

// Starts both on a display of their own; the reason when it cannot.
std::optional<std::string> StartDesktop() {
    const QString serverPath = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
    const QString managerPath = QStandardPaths::findExecutable(QStringLiteral("openbox"));
    if (serverPath.isEmpty() || managerPath.isEmpty()) {
        return "Xvfb or openbox is not installed (scripts/ensure-packages.sh installs them)";
    }
    // The server picks a free display and writes its number.
    Server =
        std::make_unique<ChildProcess>(serverPath.toStdString(),
                                       std::vector<std::string>{"-displayfd", "1", "-screen", "0",
                                                                "1600x1000x24", "-nolisten", "tcp"},
                                       "", ChildProcess::Errors::Kept);
    std::string display;
    if (!Server->NextLine(display, 10s) || display.empty()) {
        return "Xvfb gave no display: " + Server->ErrorText();
    }
    setenv("DISPLAY", (":" + display).c_str(), 1);
    // The window manager is up once it runs what it starts with.
    WindowManager = std::make_unique<ChildProcess>(
        managerPath.toStdString(), std::vector<std::string>{"--startup", "echo ready"}, "",
        ChildProcess::Errors::Kept);
    if (!WindowManager->WaitForLine("ready", 10s)) {
        return "openbox did not start: " + WindowManager->ErrorText();
    }
    return std::nullopt;
}

std::optional<std::string> NoDesktop = "not started";

class XServerTest : public UiTest {
protected:
    void SetUp() override {
        if (NoDesktop) {
            GTEST_SKIP() << *NoDesktop;
        }
        UiTest::SetUp();
    }

    // The log's distance from the page's right and bottom edges.
    QSize LogToCorner() const {
        const QRect log = Widget(IDC_LOG)->geometry();
        return View().Page()->size() - QSize(log.right() + 1, log.bottom() + 1);
    }
};

// The window manager's resize and maximise reach the window, the log takes
// the room, and the window opens where and as it was when it last ended. The
// splash opens over the window.
TEST_F(XServerTest, TheWindowResizesMaximisesAndOpensAsItWasLeft) {
    ASSERT_TRUE(WaitUntil([&] { return View().About()->isVisible(); }));
    // Within a title bar's height: Qt may not know the window's frame yet.
    // The window manager may still place and frame the window after the
    // splash has shown, on a loaded machine well after; the splash follows.
    constexpr int TitleBar = 24;
    const auto offCentre = [&] {
        return (View().About()->geometry().center() - View().frameGeometry().center())
            .manhattanLength();
    };
    EXPECT_TRUE(WaitUntil([&] { return offCentre() <= TitleBar; })) << offCentre();
    WaitForStart();
    const QSize laidOutPage(View().Units().X(LayoutWidth), View().Units().Y(LayoutHeight));
    ASSERT_EQ(View().Page()->size(), laidOutPage);
    const QRect laidOutLog = Widget(IDC_LOG)->geometry();
    const QSize corner = LogToCorner();

    // Dragged larger by the user.
    const QSize grown = View().size() + QSize(200, 100);
    View().resize(grown);
    ASSERT_TRUE(WaitUntil([&] { return View().size() == grown; }));
    ASSERT_TRUE(WaitUntil([&] { return LogToCorner() == corner; }));
    EXPECT_EQ(View().Page()->size(), laidOutPage + QSize(200, 100));
    const QRect log = Widget(IDC_LOG)->geometry();
    EXPECT_GT(log.width(), laidOutLog.width() + 100);
    EXPECT_GT(log.height(), laidOutLog.height() + 40);
    View().move(120, 80);
    ASSERT_TRUE(WaitUntil([&] { return View().pos() == QPoint(120, 80); }));

    // Maximised, it fills the screen, and the log keeps to the corner.
    View().showMaximized();
    // (Qt learns the frame of the new state late; the window itself reaches
    // the screen's sides and bottom.)
    ASSERT_TRUE(WaitUntil(
        [&] { return View().geometry().width() == 1600 && View().geometry().bottom() == 999; }));
    ASSERT_TRUE(WaitUntil([&] { return LogToCorner() == corner; }));
    View().grab().save(QString::fromStdString(ScreensFolder() + "/window-maximised.png"));

    // The next run opens maximised, and at the size it had before.
    View().close();
    ASSERT_TRUE(WaitUntil([&] { return frontEnd_->Ended(); }));
    frontEnd_ = std::make_unique<ui::FrontEnd>();
    frontEnd_->Start();
    WaitForStart();
    ASSERT_TRUE(WaitUntil([&] { return View().isMaximized(); }));
    View().showNormal();
    ASSERT_TRUE(WaitUntil([&] { return View().size() == grown; }));
    EXPECT_EQ(View().pos(), QPoint(120, 80));
}

}  // namespace

}  // namespace kb::test

// The test program's main: the desktop first, then one QApplication on it.
// Listing the tests needs neither.
int main(int argc, char** argv) {
    bool listing = false;
    for (int i = 1; i < argc; ++i) {
        listing = listing || std::string(argv[i]) == "--gtest_list_tests";
    }
    if (!listing) {
        kb::test::NoDesktop = kb::test::StartDesktop();
    }
    qputenv("QT_QPA_PLATFORM", kb::test::NoDesktop ? "offscreen" : "xcb");
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    kb::test::WindowManager.reset();
    kb::test::Server.reset();
    return status;
}
