#include "engine/display.h"

#include "engine/transfer_engine.h"

namespace {

class NoWindow final : public EngineWindow {
public:
    void ShowBatchEstimate(uint32_t) override {}
    void RecomputeSendTotal() override {
        const int16_t count = TheEngine.SendCount.load();
        uint32_t total = 0;
        for (int16_t i = 0; i < count && i < ListCapacity; ++i) {
            if (TheEngine.SendList[i].EntryKind != KindFolderMarker) {
                total += TheEngine.SendList[i].TotalLength;
            }
        }
        TheEngine.SendRemaining = total;
    }
    void ShowTransferDisplay(bool) override {}
    void SetProgress(uint32_t, uint32_t) override {}
    void ShowThroughput(bool, bool) override {}
    void LogElapsedTime() override { TheEngine.TransferStartTime = 0; }
    void ListIncomingFiles() override {}
    void RemoveTopFileRow() override {}
    void UpdateActionButtons() override {}
    void ShowCorrespondent(int16_t) override {}
    void ClearFileList() override {
        TheEngine.SendCount = 0;
        TheEngine.SendRemaining = 0;
    }
    void AddFolderToSendList(const std::string&, const std::string&) override {}
    int ImportDirectoryEntry(const std::string&) override { return 0; }
};

NoWindow noWindow;

}  // namespace

EngineWindow& Display() {
    EngineWindow* window = TheMainWindow;
    return window != nullptr ? *window : noWindow;
}
