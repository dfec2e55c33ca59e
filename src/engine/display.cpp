#include "engine/display.h"

#include "engine/transfer_engine.h"

namespace kb::engine {

void NoWindow::LogElapsedTime() {
    call_.TransferStartTime = 0;
}

void SetEngineWindow(TransferEngine& engine, EngineWindow* window) {
    engine.Window = window;
}

EngineWindow& Display(TransferEngine& engine) {
    EngineWindow* window = engine.Window.load();
    return window != nullptr ? *window : engine.Windowless;
}

}  // namespace kb::engine
