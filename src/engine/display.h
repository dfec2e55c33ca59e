// Where the engine's display calls go.
#pragma once

#include "engine/engine_window.h"

#include <cstdint>
#include <string>

// The window when there is none: it shows nothing. The send list keeps its
// own figures, so there is nothing of the engine's to keep right here but the
// time of the transfer.
class NoWindow : public EngineWindow {
public:
    void ShowBatchEstimate(uint32_t) override {}
    void ShowTransferDisplay(bool) override {}
    void SetProgress(uint32_t, uint32_t) override {}
    void ShowThroughput(bool, bool) override {}
    void LogElapsedTime() override;
    void ListIncomingFiles() override {}
    void RemoveTopFileRow() override {}
    void UpdateActionButtons() override {}
    void ShowCorrespondent(int16_t) override {}
    void SelectCorrespondent(int16_t) override {}
    void ShowSelectedCorrespondent() override {}
    void ClearFileList() override {}
    void AddFolderToSendList(const std::string&, const std::string&) override {}
    bool ImportDirectoryEntry(const std::string&) override { return false; }
};

// TheMainWindow while the window exists. Before it exists and after it has
// gone the engine's threads may still run, and then the calls go to a
// NoWindow.
EngineWindow& Display();
