#include "station/waits.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "app/main_window.h"
#include "platform/event_loop.h"
#include "station/station_io.h"

namespace {

using Clock = std::chrono::steady_clock;

std::mutex SeenLock;
std::condition_variable SeenChanged;
std::vector<std::string> LogSeen;
// The log lines before this one have been matched by a wait.
size_t WaitMark = 0;
bool LoopEnded = false;

Clock::time_point DeadlineIn(double seconds) {
    return Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

// Looks for the text from the mark on; moves the mark behind a line found.
bool FindFromMark(const std::string& text) {
    for (size_t i = WaitMark; i < LogSeen.size(); ++i) {
        if (LogSeen[i].find(text) != std::string::npos) {
            WaitMark = i + 1;
            return true;
        }
    }
    return false;
}

}  // namespace

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
        if (FindFromMark(text)) {
            return Answer{};
        }
        if (LoopEnded) {
            return Fail("the station is stopping");
        }
        if (SeenChanged.wait_until(guard, deadline) == std::cv_status::timeout &&
            !FindFromMark(text)) {
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
    LogSeen.push_back(line);
    SeenChanged.notify_all();
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
