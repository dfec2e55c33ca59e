// Clocks of the line and the engine.
//
// NowMs is a 32-bit millisecond stamp whose intervals are taken by unsigned
// subtraction, so its wrap does no harm. The interval clock (IntervalClock)
// keeps the 16-bit arithmetic that the line's time limits are written
// against: Elapsed is signed 16-bit and turns negative after 32767 ms.
// Both run on a monotonic clock, so a change of the wall clock never shortens
// or stretches a time limit.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace kb::platform {

// Milliseconds of a monotonic clock, in unsigned 32-bit arithmetic.
uint32_t NowMs();

// Nanoseconds of the same monotonic clock, in 64 bits, for timing finer than
// a millisecond: it never wraps and never moves with the wall clock.
uint64_t MonotonicNs();

// The clock of a line's timed reads: started at the beginning of a read and
// asked how long the read has taken. Each line has its own, so two lines time
// their reads apart; on one line the reads follow each other, since only the
// holder of its read side reads.
class IntervalClock {
public:
    // Starts the interval.
    void Start();
    // Milliseconds since the last Start, computed in 16-bit arithmetic.
    [[nodiscard]] int16_t Elapsed() const;

private:
    std::atomic<int64_t> seconds_{0};
    std::atomic<int32_t> millis_{0};
};

// The arithmetic of IntervalClock::Elapsed: (seconds now - seconds then) x 1000 - ms then
// + ms now, every step in 16 bits.
int16_t ElapsedBetween(int64_t thenSeconds, int32_t thenMillis, int64_t nowSeconds,
                       int32_t nowMillis);

// Wall clock time in whole seconds, as time(0).
std::time_t WallSeconds();

// Pauses the calling thread.
void SleepMs(uint32_t milliseconds);

}  // namespace kb::platform
