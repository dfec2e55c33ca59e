#include "station/waits.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "app/main_window.h"
#include "platform/event_loop.h"

namespace kb::station {

using namespace kb::app;
using namespace kb::platform;

namespace {

using Clock = std::chrono::steady_clock;

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

Answer StationWaits::OnMainLoop(std::function<Answer()> work) {
    struct Pending {
        bool Done = false;
        Answer Result;
    };
    auto pending = std::make_shared<Pending>();
    MainLoop().Post([this, pending, work = std::move(work)] {
        Answer answer = work();
        std::lock_guard<std::mutex> guard(lock_);
        pending->Result = std::move(answer);
        pending->Done = true;
        changed_.notify_all();
    });
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [&] { return pending->Done || loopEnded_; });
    if (!pending->Done) {
        return Fail("the station is stopping");
    }
    return pending->Result;
}

Answer StationWaits::WaitForLog(const std::string& text, double seconds) {
    const Clock::time_point deadline = DeadlineIn(seconds);
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
        if (seen_.TakeMatch(text)) {
            return Answer{};
        }
        if (loopEnded_) {
            return Fail("the station is stopping");
        }
        if (changed_.wait_until(guard, deadline) == std::cv_status::timeout &&
            !seen_.TakeMatch(text)) {
            return Fail("timed out waiting for " + text);
        }
    }
}

Answer StationWaits::WaitForLinkState(const TransferApp& app, const std::string& state,
                                      double seconds) {
    const Clock::time_point deadline = DeadlineIn(seconds);
    for (;;) {
        // Asked with no lock of ours held: the state waits for the window's
        // buttons, whose changes take that lock to wake us.
        if (app.LinkStateName() == state) {
            return Answer{};
        }
        std::unique_lock<std::mutex> guard(lock_);
        if (loopEnded_) {
            return Fail("the station is stopping");
        }
        if (Clock::now() >= deadline) {
            return Fail("timed out waiting for the state");
        }
        // Most changes of the link show in the window and wake this wait;
        // the short limit covers those that do not.
        changed_.wait_for(guard, std::chrono::milliseconds(20));
    }
}

void StationWaits::NoteLogLine(const std::string& line) {
    output_.PrintLine("log: " + OneLine(line));
    std::lock_guard<std::mutex> guard(lock_);
    seen_.Add(line);
    changed_.notify_all();
}

void StationWaits::NoteCommandsEnded() {
    std::lock_guard<std::mutex> guard(lock_);
    seen_.EndWaits();
}

void StationWaits::NoteChange() {
    std::lock_guard<std::mutex> guard(lock_);
    changed_.notify_all();
}

void StationWaits::NoteLoopEnded() {
    std::lock_guard<std::mutex> guard(lock_);
    loopEnded_ = true;
    changed_.notify_all();
}

}  // namespace kb::station
