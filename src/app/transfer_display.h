// The row of figures under the lists: the batch's size and estimated time,
// the measured rate and the progress bar, and the lines that close a
// transfer in the log. The engine's threads call these directly.
#pragma once

#include <atomic>
#include <cstdint>

#include "app/window_panel.h"

namespace kb::stores {
class Installation;
}  // namespace kb::stores

namespace kb::app {

using stores::Installation;
class MainWindow;

class TransferDisplay final : public WindowPanel {
public:
    TransferDisplay(MainWindow& window, Installation& stores) : window_(window), stores_(stores) {}

    [[nodiscard]] std::span<const int> ControlIds() const override;

    void ShowBatchEstimate(uint32_t bytes);
    void RecomputeSendTotal();
    void ShowTransferDisplay(bool starting);
    void SetProgress(uint32_t done, uint32_t total);
    void ShowThroughput(bool sending, bool log);
    void LogElapsedTime();
    // Bytes per second measured in the present transfer; 0: none yet.
    [[nodiscard]] int32_t MeasuredRate() const { return measuredRate_.load(); }

private:
    // Bytes per second that the outgoing settings promise, before anything
    // has been measured.
    [[nodiscard]] uint32_t FixedRate() const;

    MainWindow& window_;
    Installation& stores_;
    // Written by the engine's display calls, read by the window's estimate.
    std::atomic<int32_t> measuredRate_{0};
};

}  // namespace kb::app
