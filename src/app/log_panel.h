// The log list and its Clear Log button: the window's side of the status
// log.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "app/window_panel.h"

namespace kb::stores {
class StatusLog;
}  // namespace kb::stores

namespace kb::app {

using stores::StatusLog;

class LogPanel final : public WindowPanel {
public:
    explicit LogPanel(StatusLog& log) : log_(log) {}

    std::span<const int> ControlIds() const override;
    EventOutcome OnButton(int id) override;

    // Called with every line the log receives, in the order of the list,
    // once the line is in it.
    void SetObserver(std::function<void(const std::string& line)> observer);
    // The stored lines, whatever their number.
    void FillLogList();
    // The line goes into the list, the oldest 300 go when there are more
    // than 600, and the newest comes into view.
    void AddLogLine(const std::string& text);
    void LogStartStop(bool starting);
    void OnClearLog();
    // Clear Log is shut while a transfer runs.
    void AllowClearing(bool allowed);
    // The lines of the list, oldest first.
    std::vector<std::string> LogLines() const;

private:
    StatusLog& log_;
    // The log list's lines, beside the control: the saved log is made from
    // these. Held while a line goes in, so lines from several threads reach
    // the list, the observer and the file in one order.
    mutable std::mutex logLock_;
    std::vector<std::string> logLines_;
    std::function<void(const std::string&)> logObserver_;
};

}  // namespace kb::app
