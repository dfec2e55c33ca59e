// The window's operations that the engine's threads call, directly and from
// whatever thread they run on, through the engine's one pointer Window. The
// window implements them over its thread-safe controls, so none of them ever
// waits for another thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "engine/call.h"

namespace kb::engine {

class EngineWindow {
public:
    virtual ~EngineWindow() = default;

    // The transfer display.
    virtual void ShowBatchEstimate(uint32_t bytes) = 0;
    virtual void ShowTransferDisplay(bool starting) = 0;
    virtual void SetProgress(uint32_t done, uint32_t total) = 0;
    virtual void ShowThroughput(bool sending, bool log) = 0;
    virtual void LogElapsedTime() = 0;
    virtual void ListIncomingFiles() = 0;
    virtual void RemoveTopFileRow() = 0;

    // The action buttons follow LinkState and the file list.
    virtual void UpdateActionButtons() = 0;
    // The directory panel shows record index.
    virtual void ShowCorrespondent(int16_t index) = 0;
    // The directory list selects record index, and the panel shows it.
    virtual void SelectCorrespondent(int16_t index) = 0;
    // The panel shows again the record selected in the directory list, as it
    // stands now.
    virtual void ShowSelectedCorrespondent() = 0;
    // The file list. The engine empties SendList itself before it clears the
    // rows; the window's own clearing empties it too.
    virtual void ClearFileList() = 0;
    virtual void AddFolderToSendList(const std::string& path, const std::string& name) = 0;
    // Enters an exported directory entry; true if a record was added.
    virtual bool ImportDirectoryEntry(const std::string& path) = 0;
};

// The window when there is none: it shows nothing. The send list keeps its
// own figures, so there is nothing of the engine's to keep right here but the
// time of the transfer.
class NoWindow : public EngineWindow {
public:
    // The call whose transfer's start the elapsed time clears.
    explicit NoWindow(ActiveCall& call) : call_(call) {}
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

private:
    ActiveCall& call_;
};

}  // namespace kb::engine
