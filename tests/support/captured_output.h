// The message boxes and questions, and if asked the log lines, that the
// program shows while a test runs, caught from whichever thread shows them;
// a question is answered as Answer says. The program's own handling is back
// once the capture goes.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/message_box.h"
#include "stores/status_log.h"

namespace kb::test {

using stores::StatusLog;

class CapturedOutput {
public:
    // Catches the lines of the log given; without one, the log is left
    // alone, as a window under test shows it itself.
    explicit CapturedOutput(StatusLog* log = nullptr) : caught_(log) {
        if (caught_ != nullptr) {
            caught_->SetSink([this](const std::string& line) { Add(log_, line); });
        }
        platform::SetMessageBoxHandler([this](const std::string& text) {
            if (OnMessage) {
                OnMessage(text);
            }
            Add(messages_, text);
        });
        platform::SetQuestionHandler([this](const std::string& text) {
            Add(messages_, text);
            return Answer.load();
        });
    }
    ~CapturedOutput() {
        platform::SetMessageBoxHandler(nullptr);
        platform::SetQuestionHandler(nullptr);
        if (caught_ != nullptr) {
            caught_->SetSink(nullptr);
        }
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    std::vector<std::string> Log() const { return Copy(log_); }
    // The messages and the questions, in the order they were shown.
    std::vector<std::string> Messages() const { return Copy(messages_); }
    // How often the log holds exactly this line.
    long Count(const std::string& line) const {
        const std::vector<std::string> lines = Log();
        return std::count(lines.begin(), lines.end(), line);
    }
    void Clear() {
        std::lock_guard<std::mutex> guard(lock_);
        log_.clear();
        messages_.clear();
    }

    // Called with each message as it is shown, before it is acknowledged.
    std::function<void(const std::string&)> OnMessage;
    // The answer to every question: true for Yes.
    std::atomic<bool> Answer{true};

private:
    void Add(std::vector<std::string>& to, const std::string& text) {
        std::lock_guard<std::mutex> guard(lock_);
        to.push_back(text);
    }
    std::vector<std::string> Copy(const std::vector<std::string>& from) const {
        std::lock_guard<std::mutex> guard(lock_);
        return from;
    }

    StatusLog* const caught_;
    mutable std::mutex lock_;
    std::vector<std::string> log_;
    std::vector<std::string> messages_;
};

}  // namespace kb::test
