#include "station/waits.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "app/main_window.h"
#include "platform/event_loop.h"
#include "station/station_io.h"

namespace {

using Clock = std::chrono::steady_clock;

std::mutex SeenLock;
std::condition_variable SeenChanged;
SeenLines Seen;
bool LoopEnded = false;

Clock::time_point DeadlineIn(double seconds) {
    return Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

}  // namespace

void SeenLines::Add(const std::string& line) {
    if (!ended_) {
        lines_.push_back(line);
    }
}

bool SeenLines::TakeMatch(const std::string& text) {
    for (size_t i = 0; i < lines_.size(); ++i) {
        if (lines_[i].find(text) != std::string::npos) {
            lines_.erase(lines_.begin(), lines_.begin() + static_cast<std::ptrdiff_t>(i) + 1);
            return true;
        }
    }
    return false;
}

void SeenLines::EndWaits() {
    ended_ = true;
    lines_.clear();
    lines_.shrink_to_fit();
}

Answer Fail(std::string why) {
    return Answer{false, std::move(why)};
}

Answer OnMainLoop(std::function<Answer()> work) {
    struct Pending {
        bool Done = false;
        Answer Result;
    };
    auto pending = std::make_shared<Pending>();
    MainLoop().Post([pending, work = std::move(work)] {
        Answer answer = work();
        std::lock_guard<std::mutex> guard(SeenLock);
        pending->Result = std::move(answer);
        pending->Done = true;
        SeenChanged.notify_all();
    });
    std::unique_lock<std::mutex> guard(SeenLock);
    SeenChanged.wait(guard, [&] { return pending->Done || LoopEnded; });
    if (!pending->Done) {
        return Fail("the station is stopping");
    }
    return pending->Result;
}

Answer WaitForLog(const std::string& text, double seconds) {
    const Clock::time_point deadline = DeadlineIn(seconds);
    std::unique_lock<std::mutex> guard(SeenLock);
    for (;;) {
        if (Seen.TakeMatch(text)) {
            return Answer{};
        }
        if (LoopEnded) {
            return Fail("the station is stopping");
        }
        if (SeenChanged.wait_until(guard, deadline) == std::cv_status::timeout &&
            !Seen.TakeMatch(text)) {
            return Fail("timed out waiting for " + text);
        }
    }
}

Answer WaitForLinkState(const std::string& state, double seconds) {
    const Clock::time_point deadline = DeadlineIn(seconds);
    std::unique_lock<std::mutex> guard(SeenLock);
    for (;;) {
        if (MainWindow::LinkStateName() == state) {
            return Answer{};
        }
        if (LoopEnded) {
            return Fail("the station is stopping");
        }
        if (Clock::now() >= deadline) {
            return Fail("timed out waiting for the state");
        }
        // Most changes of the link show in the window and wake this wait;
        // the short limit covers those that do not.
        SeenChanged.wait_for(guard, std::chrono::milliseconds(20));
    }
}

void NoteLogLine(const std::string& line) {
    PrintLine("log: " + OneLine(line));
    std::lock_guard<std::mutex> guard(SeenLock);
    Seen.Add(line);
    SeenChanged.notify_all();
}

void NoteCommandsEnded() {
    std::lock_guard<std::mutex> guard(SeenLock);
    Seen.EndWaits();
}

void NoteChange() {
    std::lock_guard<std::mutex> guard(SeenLock);
    SeenChanged.notify_all();
}

void NoteLoopEnded() {
    std::lock_guard<std::mutex> guard(SeenLock);
    LoopEnded = true;
    SeenChanged.notify_all();
}
