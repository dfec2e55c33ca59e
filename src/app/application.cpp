#include "app/application.h"

#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/message_box.h"
#include "stores/installation.h"

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

bool TransferApp::InitInstance() {
    const std::string root = CurrentFolder();
    if (root.empty()) {
        ShowMessageBox("Failed to resolve Current Directory");
    }
    Installation stores(root);
    LineStores = &stores;
    MainWindow window(stores);
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

    CommPortClose();
    CommPortDestroy();
    if (window.EngineStarted()) {
        EngineShutdown();
    }
    stores.Log.Free();
    LineStores = nullptr;
    return false;
}
