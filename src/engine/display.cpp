#include "engine/display.h"

#include "engine/transfer_engine.h"

void NoWindow::LogElapsedTime() {
    TheEngine.Call.TransferStartTime = 0;
}

void SetEngineWindow(EngineWindow* window) {
    TheEngine.Window = window;
}

EngineWindow& Display() {
    EngineWindow* window = TheEngine.Window.load();
    return window != nullptr ? *window : TheEngine.Windowless;
}
