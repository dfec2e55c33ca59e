// The main thread's loop. Work posted from any thread and the window's timers
// run on it one at a time, in the order they became due. While one of them
// runs (a search for the adapter may take seconds) the others wait, as they
// would in a window's message loop. An idle loop sleeps in the kernel.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace kb::platform {

class EventLoop {
public:
    using Task = std::function<void()>;
    using TimerHandler = std::function<void(int id)>;

    // Runs the task on the loop's thread, after what is already waiting.
    void Post(Task task);
    // The window's handler of timer ticks; every timer's ticks go to it.
    void SetTimerHandler(TimerHandler handler);
    // Starts, or starts anew, timer id: every periodMs the handler is called
    // with id on the loop's thread, until KillTimer. A one-shot timer is killed
    // by the handler first thing.
    void SetTimer(int id, uint32_t periodMs);
    void KillTimer(int id);
    bool TimerRunning(int id) const;

    // Runs posted work and timers on the calling thread until Quit.
    void Run();
    // Ends Run after the task under way; callable from any thread.
    void Quit();
    // True on the thread inside Run.
    bool OnLoopThread() const;

private:
    using Clock = std::chrono::steady_clock;
    struct Timer {
        uint32_t PeriodMs = 0;
        Clock::time_point Due;
    };

    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::deque<Task> tasks_;
    std::map<int, Timer> timers_;
    TimerHandler handler_;
    bool quit_ = false;
    std::thread::id runner_;
};

// The loop of the program's main thread.
EventLoop& MainLoop();

}  // namespace kb::platform
