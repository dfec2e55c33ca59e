#include "engine/display.h"

#include "engine/transfer_engine.h"

void NoWindow::LogElapsedTime() {
    TheEngine.TransferStartTime = 0;
}

std::atomic<EngineWindow*> TheMainWindow{nullptr};

namespace {

NoWindow Windowless;

}  // namespace

EngineWindow& Display() {
    EngineWindow* window = TheMainWindow.load();
    return window != nullptr ? *window : Windowless;
}
