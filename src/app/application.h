// The program's start, its run and its end, around the one window.
//
// Everything the program keeps lies below the folder that is current when it
// starts, so two copies started in two folders are two installations.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "app/main_window.h"
#include "platform/clock.h"

namespace kb::app {

using platform::MonotonicClock;

// The window while its loop runs, for work posted to the main loop: null
// before the window's start and after its end. Posted work keeps the handle
// itself, not the program, so work still queued when a program has ended
// finds null rather than a window that has gone.
using WindowHandle = std::shared_ptr<const std::atomic<MainWindow*>>;

class TransferApp {
public:
    // The engine is made with the program and lives as long as it: a front
    // end's thread may ask the link's state at any moment, before the window
    // has started and after it has gone.
    TransferApp();
    ~TransferApp();
    TransferApp(const TransferApp&) = delete;
    TransferApp& operator=(const TransferApp&) = delete;

    // What the front end does with the window before it starts, such as
    // installing its observers. Runs on the main thread.
    std::function<void(MainWindow& window)> PrepareWindow;

    // Loads the stores, makes the folders, starts the window and runs the main
    // loop on the calling thread until the window ends; then closes the port
    // and frees the engine, every engine thread having stopped. Always false:
    // the program ends when its window does.
    bool InitInstance();

    // The window of this program, for work on the main loop's thread.
    [[nodiscard]] WindowHandle Window() const { return window_; }

    // The engine of this program, which a front end names but does not see
    // into.
    [[nodiscard]] TransferEngine& Engine() const { return *engine_; }

    // The state of the link, by name: one of MainWindow::LinkStateNames().
    // Any thread may ask, at any time.
    [[nodiscard]] std::string LinkStateName() const;

private:
    // The clock of the engine and the line, made first and gone last.
    MonotonicClock clock_;
    std::unique_ptr<TransferEngine> engine_;
    std::shared_ptr<std::atomic<MainWindow*>> window_ =
        std::make_shared<std::atomic<MainWindow*>>(nullptr);
};

// Where an installation keeps the manual: its folder below the installation's
// folder, and the start page in it that Help shows.
std::string ManualFolderBelow(const std::string& root);
std::string ManualStartPageBelow(const std::string& root);

}  // namespace kb::app
