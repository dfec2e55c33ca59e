// Threads that park and are woken.
//
// A thread parks itself with ParkThread and goes on when another thread calls
// WakeThread. A wake that arrives before the park is kept: the park then
// returns at once. Several wakes before one park count as one. A thread
// started suspended runs its function only after its first wake.
#pragma once

#include <memory>

namespace kb::platform {

struct ThreadRecord;
using ThreadHandle = std::shared_ptr<ThreadRecord>;

// Scheduling wish of a thread. Linux gives ordinary users no higher priority
// than normal, so Highest is honoured where the process may raise it and is
// otherwise the same as Normal.
enum class ThreadPriority { Normal, Highest };

// A thread that may run on any processor.
inline constexpr int AnyProcessor = -1;

// The function a thread runs; its parameter is passed through untouched.
using ThreadFunction = unsigned (*)(void* parameter);

// Starts a thread running function(parameter), at once or suspended until the
// first WakeThread. With a processor number of 0 or more, the thread runs on
// that processor only, where the system allows it: two threads that hand work
// to each other at a high pace wake each other far more cheaply on one
// processor. Returns null if no thread could be made.
ThreadHandle StartThread(ThreadFunction function, void* parameter, ThreadPriority priority,
                         bool suspended, int processor = AnyProcessor);

// The processor the calling thread runs on now, or AnyProcessor.
int CurrentProcessor();

// Parks the calling thread, which must be the thread of the handle, until it
// is woken. Returns at once if a wake is pending.
void ParkThread(const ThreadHandle& self);

// Wakes a parked thread, or keeps the wake for its next park. Null is ignored.
void WakeThread(const ThreadHandle& thread);

// Waits until the thread's function has returned. Null is ignored; calling it
// from the thread itself does not wait.
void JoinThread(const ThreadHandle& thread);

// True once the thread's function has returned.
bool ThreadFinished(const ThreadHandle& thread);

}  // namespace kb::platform
