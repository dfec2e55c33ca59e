// The program's start, its run and its end, around the one window.
//
// Everything the program keeps lies below the folder that is current when it
// starts, so two copies started in two folders are two installations.
#pragma once

#include <functional>
#include <string>

#include "app/main_window.h"

class TransferApp {
public:
    // What the front end does with the window before it starts, such as
    // installing its observers. Runs on the main thread.
    std::function<void(MainWindow& window)> PrepareWindow;

    // Loads the stores, makes the folders, starts the window and runs the main
    // loop on the calling thread until the window ends; then closes the port
    // and frees the engine, every engine thread having stopped. Always false:
    // the program ends when its window does.
    bool InitInstance();
};

// Where an installation keeps the manual: its folder below the installation's
// folder, and the start page in it that Help shows.
std::string ManualFolderBelow(const std::string& root);
std::string ManualStartPageBelow(const std::string& root);
