#include "platform/thread.h"

#include <pthread.h>
#include <sched.h>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace kb::platform {

struct ThreadRecord {
    std::mutex Lock;
    std::condition_variable Changed;
    bool WakePending = false;
    bool Finished = false;
    std::thread Thread;
    std::once_flag Joined;

    ~ThreadRecord() {
        // The running thread holds a reference to its record, so the last
        // reference goes either on that thread, as it ends, or elsewhere after
        // its function has returned; a join here is then short.
        if (Thread.joinable()) {
            if (Thread.get_id() == std::this_thread::get_id()) {
                Thread.detach();
            } else {
                Thread.join();
            }
        }
    }
};

namespace {

void RaisePriority() {
    // Best effort: a real-time class is refused to unprivileged processes, and
    // then the thread simply keeps the normal priority.
    sched_param param{};
    param.sched_priority = sched_get_priority_min(SCHED_RR);
    pthread_setschedparam(pthread_self(), SCHED_RR, &param);
}

void KeepOnProcessor(int processor) {
    if (processor < 0) {
        return;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    // Refused, for instance where the processor is not ours to use: the thread
    // then simply runs wherever the system puts it.
    pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

}  // namespace

int CurrentProcessor() {
    const int processor = sched_getcpu();
    return processor >= 0 ? processor : AnyProcessor;
}

ThreadHandle StartThread(ThreadFunction function, void* parameter, ThreadPriority priority,
                         bool suspended, int processor) {
    auto record = std::make_shared<ThreadRecord>();
    try {
        ThreadRecord* raw = record.get();
        record->Thread =
            std::thread([self = record, raw, function, parameter, priority, suspended, processor] {
                KeepOnProcessor(processor);
                if (priority == ThreadPriority::Highest) {
                    RaisePriority();
                }
                if (suspended) {
                    std::unique_lock<std::mutex> guard(raw->Lock);
                    raw->Changed.wait(guard, [raw] { return raw->WakePending; });
                    raw->WakePending = false;
                }
                function(parameter);
                std::lock_guard<std::mutex> guard(raw->Lock);
                raw->Finished = true;
                raw->Changed.notify_all();
            });
    } catch (const std::system_error&) {
        return nullptr;
    }
    return record;
}

void ParkThread(const ThreadHandle& self) {
    if (!self) {
        return;
    }
    std::unique_lock<std::mutex> guard(self->Lock);
    self->Changed.wait(guard, [&self] { return self->WakePending; });
    self->WakePending = false;
}

void WakeThread(const ThreadHandle& thread) {
    if (!thread) {
        return;
    }
    std::lock_guard<std::mutex> guard(thread->Lock);
    thread->WakePending = true;
    thread->Changed.notify_all();
}

void JoinThread(const ThreadHandle& thread) {
    if (!thread) {
        return;
    }
    if (thread->Thread.get_id() == std::this_thread::get_id()) {
        return;
    }
    std::call_once(thread->Joined, [&thread] {
        if (thread->Thread.joinable()) {
            thread->Thread.join();
        }
    });
}

bool ThreadFinished(const ThreadHandle& thread) {
    if (!thread) {
        return true;
    }
    std::lock_guard<std::mutex> guard(thread->Lock);
    return thread->Finished;
}

}  // namespace kb::platform
