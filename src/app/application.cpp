#include "app/application.h"

#include <optional>
#include <string>

#include "engine/transfer_engine.h"
#include "line/line.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/message_box.h"
#include "stores/installation.h"

namespace kb::app {

using namespace kb::engine;
using namespace kb::line;
using namespace kb::platform;
using namespace kb::stores;

namespace {

// On every start but the first the folders are there already, so a failure
// to make them says nothing; the file operations that need them fail by
// themselves if they are truly missing.
void EnsureIncomingFolder(const StorePaths& paths) {
    static_cast<void>(CreateFolder(paths.IncomingPath));
}

void EnsurePickUpRoot(const StorePaths& paths) {
    static_cast<void>(CreateFolder(paths.PickUpPath));
}

}  // namespace

std::string ManualStartPageBelow(const std::string& root) {
    const bool slashed = !root.empty() && root.back() == '/';
    return root + (slashed ? "" : "/") + HelpPageName;
}

std::string ManualFolderBelow(const std::string& root) {
    const std::string page = ManualStartPageBelow(root);
    return page.substr(0, page.rfind('/'));
}

TransferApp::TransferApp() : engine_(std::make_unique<TransferEngine>(clock_)) {}

TransferApp::~TransferApp() = default;

std::string TransferApp::LinkStateName() const {
    return MainWindow::LinkStateName(*engine_);
}

bool TransferApp::InitInstance() {
    const std::optional<std::string> current = CurrentFolder();
    if (!current) {
        ShowMessageBox("Failed to resolve Current Directory");
    }
    // Without a folder of its own the program still runs, its stores named
    // from the root of the file system.
    const std::string root = current.value_or("");
    Installation stores(root);
    // The line lives for the run: made here, where the front end's start
    // reaches the layers below it, and handed to the window and, through it,
    // to the engine; it goes after every thread that used it has ended. It
    // runs on the engine's clock.
    Line line(stores, clock_);
    MainWindow window(stores, line, *engine_);
    if (PrepareWindow) {
        PrepareWindow(window);
    }
    // A loader that fails has told the user so itself; the program runs on.
    stores.Load();
    EnsureIncomingFolder(stores.Paths);
    EnsurePickUpRoot(stores.Paths);

    window.OnInitDialog();
    window_->store(&window);
    MainLoop().Run();
    window_->store(nullptr);
    // The loop ends only through the window's two ways out, which prepare
    // the exit; this call finds it done.
    window.PrepareExit();

    line.CommPortClose();
    line.CommPortDestroy();
    if (window.EngineStarted()) {
        EngineShutdown(*engine_);
    }
    stores.Log.Free();
    return false;
}

}  // namespace kb::app
