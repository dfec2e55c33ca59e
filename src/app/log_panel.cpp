#include "app/log_panel.h"

#include "app/control_model.h"
#include "app/main_window.h"
#include "resources/resource.h"
#include "stores/status_log.h"

namespace kb::app {

using namespace kb::resources;
using namespace kb::stores;

namespace {

constexpr int LogControls[] = {IDC_LABEL_LOG, IDC_LOG, IDC_CLEAR_LOG};

}  // namespace

std::span<const int> LogPanel::ControlIds() const {
    return LogControls;
}

EventOutcome LogPanel::OnButton(int id) {
    if (id == IDC_CLEAR_LOG) {
        OnClearLog();
        return {};
    }
    return WindowPanel::OnButton(id);
}

void LogPanel::SetObserver(std::function<void(const std::string&)> observer) {
    std::lock_guard<std::mutex> guard(logLock_);
    logObserver_ = std::move(observer);
}

void LogPanel::FillLogList() {
    std::lock_guard<std::mutex> guard(logLock_);
    // The stored lines come back whatever their number; the limit applies
    // from the next line on.
    logLines_ = log_.StoredLines();
    Controls().ClearRows(IDC_LOG);
    for (const std::string& line : logLines_) {
        Controls().AddRow(IDC_LOG, ListRow{line, "", 0});
    }
}

void LogPanel::AddLogLine(const std::string& text) {
    std::lock_guard<std::mutex> guard(logLock_);
    ControlModel& controls = Controls();
    const size_t removed = AppendLogLine(logLines_, text);
    controls.AddRow(IDC_LOG, ListRow{text, "", 0});
    if (removed != 0) {
        controls.DeleteFirstRows(IDC_LOG, static_cast<int>(removed));
    }
    // Selecting the newest line brings it into view; selecting none then
    // leaves no line highlighted.
    controls.Select(IDC_LOG, static_cast<int>(logLines_.size()) - 1);
    controls.Select(IDC_LOG, -1);
    if (logObserver_) {
        logObserver_(text);
    }
}

void LogPanel::LogStartStop(bool starting) {
    log_.Add(StartStopLine(starting));
}

void LogPanel::OnClearLog() {
    std::lock_guard<std::mutex> guard(logLock_);
    // The file is not touched; it catches up at exit.
    logLines_.clear();
    Controls().ClearRows(IDC_LOG);
}

std::vector<std::string> LogPanel::LogLines() const {
    std::lock_guard<std::mutex> guard(logLock_);
    return logLines_;
}

void LogPanel::AllowClearing(bool allowed) {
    Controls().Enable(IDC_CLEAR_LOG, allowed);
}

}  // namespace kb::app
