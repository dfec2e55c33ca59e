#include "platform/event_loop.h"

namespace kb::platform {

EventLoop& MainLoop() {
    static EventLoop Loop;
    return Loop;
}

void EventLoop::Post(Task task) {
    std::lock_guard<std::mutex> guard(lock_);
    tasks_.push_back(std::move(task));
    changed_.notify_all();
}

void EventLoop::SetTimerHandler(TimerHandler handler) {
    std::lock_guard<std::mutex> guard(lock_);
    handler_ = std::move(handler);
}

void EventLoop::SetTimer(int id, uint32_t periodMs) {
    std::lock_guard<std::mutex> guard(lock_);
    Timer& timer = timers_[id];
    timer.PeriodMs = periodMs;
    timer.Due = Clock::now() + std::chrono::milliseconds(periodMs);
    changed_.notify_all();
}

void EventLoop::KillTimer(int id) {
    std::lock_guard<std::mutex> guard(lock_);
    timers_.erase(id);
}

bool EventLoop::TimerRunning(int id) const {
    std::lock_guard<std::mutex> guard(lock_);
    return timers_.count(id) != 0;
}

void EventLoop::Run() {
    std::unique_lock<std::mutex> guard(lock_);
    runner_ = std::this_thread::get_id();
    quit_ = false;
    while (!quit_) {
        if (!tasks_.empty()) {
            Task task = std::move(tasks_.front());
            tasks_.pop_front();
            guard.unlock();
            task();
            guard.lock();
            continue;
        }
        // The timer that is due first, if any is due.
        auto first = timers_.end();
        for (auto it = timers_.begin(); it != timers_.end(); ++it) {
            if (first == timers_.end() || it->second.Due < first->second.Due) {
                first = it;
            }
        }
        if (first != timers_.end() && first->second.Due <= Clock::now()) {
            Timer& timer = first->second;
            const int id = first->first;
            const TimerHandler handler = handler_;
            // The next tick is counted from now, so a loop held up by long
            // work does not fire a burst of ticks afterwards.
            timer.Due = Clock::now() + std::chrono::milliseconds(timer.PeriodMs);
            guard.unlock();
            if (handler) {
                handler(id);
            }
            guard.lock();
            continue;
        }
        if (first != timers_.end()) {
            changed_.wait_until(guard, first->second.Due);
        } else {
            changed_.wait(guard);
        }
    }
    runner_ = std::thread::id();
}

void EventLoop::Quit() {
    std::lock_guard<std::mutex> guard(lock_);
    quit_ = true;
    changed_.notify_all();
}

bool EventLoop::OnLoopThread() const {
    std::lock_guard<std::mutex> guard(lock_);
    return runner_ == std::this_thread::get_id();
}

}  // namespace kb::platform
