// Clocks of the line and the engine.
//
// A Clock is what the engine and the line read time from and pause on. Each
// Line and each TransferEngine is handed the one it works on when it is
// made: the program hands them the monotonic clock (MonotonicClock), and a
// test hands them one it can move on and whose pauses it can shorten, so
// that it crosses a time limit without waiting it out, and so that two
// engines in one process never move each other's time.
//
// NowMs is a 32-bit millisecond stamp whose intervals are taken by unsigned
// subtraction, so its wrap does no harm. The interval clock (IntervalClock)
// keeps the 16-bit arithmetic that the line's time limits are written
// against: Elapsed is signed 16-bit and turns negative after 32767 ms.
// Both are read from the same Clock, so a test that moves it crosses the
// line's limits as it crosses the engine's; the program's runs on a
// monotonic clock, so a change of the wall clock never shortens or
// stretches a time limit.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace kb::platform {

class Clock {
public:
    Clock() = default;
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;
    virtual ~Clock() = default;

    // Milliseconds since a fixed moment, never going back: the one reading
    // that NowMs and the interval clocks are taken from.
    [[nodiscard]] virtual int64_t ReadMs() const = 0;
    // Pauses the calling thread.
    virtual void SleepMs(uint32_t milliseconds) const = 0;

    // The reading in unsigned 32-bit arithmetic.
    [[nodiscard]] uint32_t NowMs() const { return static_cast<uint32_t>(ReadMs()); }
};

// The program's clock: the system's monotonic clock, and real pauses.
class MonotonicClock final : public Clock {
public:
    [[nodiscard]] int64_t ReadMs() const override;
    void SleepMs(uint32_t milliseconds) const override;
};

// Nanoseconds of the system's monotonic clock, in 64 bits, for timing finer
// than a millisecond: it never wraps and never moves with the wall clock.
// Only virtual-ta's pacing and the tests' own waits read it, and nothing
// needs to move it, so it is no part of the Clock.
uint64_t MonotonicNs();

// The clock of a line's timed reads: started at the beginning of a read and
// asked how long the read has taken, on the clock it was made with. Each
// line has its own, so two lines time their reads apart; on one line the
// reads follow each other, since only the holder of its read side reads.
class IntervalClock {
public:
    explicit IntervalClock(const Clock& clock) : clock_(clock) {}

    // Starts the interval.
    void Start();
    // Milliseconds since the last Start, computed in 16-bit arithmetic.
    [[nodiscard]] int16_t Elapsed() const;

private:
    const Clock& clock_;
    std::atomic<int64_t> seconds_{0};
    std::atomic<int32_t> millis_{0};
};

// The arithmetic of IntervalClock::Elapsed: (seconds now - seconds then) x 1000 - ms then
// + ms now, every step in 16 bits.
int16_t ElapsedBetween(int64_t thenSeconds, int32_t thenMillis, int64_t nowSeconds,
                       int32_t nowMillis);

// Wall clock time in whole seconds, as time(0): the start of a transfer that
// the window shows as a time of day. No time limit is counted on it, so no
// test needs to move it.
std::time_t WallSeconds();

}  // namespace kb::platform
