#include "engine/display.h"

#include "engine/transfer_engine.h"

void NoWindow::RecomputeSendTotal() {
    const int16_t count = TheEngine.SendCount.load();
    uint32_t total = 0;
    for (int16_t i = 0; i < count && i < ListCapacity; ++i) {
        if (TheEngine.SendList[i].EntryKind != FileKind::FolderMarker) {
            total += TheEngine.SendList[i].TotalLength;
        }
    }
    TheEngine.SendRemaining = total;
}

void NoWindow::LogElapsedTime() {
    TheEngine.TransferStartTime = 0;
}

void NoWindow::ClearFileList() {
    TheEngine.SendCount = 0;
    TheEngine.SendRemaining = 0;
}

std::atomic<EngineWindow*> TheMainWindow{nullptr};

namespace {

NoWindow Windowless;

}  // namespace

EngineWindow& Display() {
    EngineWindow* window = TheMainWindow.load();
    return window != nullptr ? *window : Windowless;
}
