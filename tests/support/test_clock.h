// The clock that tests and the fuzz targets hand to their lines and
// engines: the monotonic clock, moved on by what the test has added, with
// pauses no longer than the test allows. A test moves it to cross a time
// limit without waiting it out; the engine's stamps and the line's interval
// clock, both read from it, move together. Each clock is its own, so two
// engines in one process never move each other's time.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/clock.h"

namespace kb::test {

class TestClock final : public platform::Clock {
public:
    [[nodiscard]] int64_t ReadMs() const override;
    // Pauses for the time asked, or the cap if that is shorter.
    void SleepMs(uint32_t milliseconds) const override;

    // Every later reading is ms further on.
    void MoveOn(uint32_t ms) { offset_.fetch_add(ms); }
    // Caps every later pause at ms: for an adapter that answers at once and
    // needs no guard time around an escape, in a test that asserts no pause.
    void CapPauses(uint32_t ms) { longestPause_.store(ms); }

private:
    platform::MonotonicClock real_;
    std::atomic<int64_t> offset_{0};
    std::atomic<uint32_t> longestPause_{UINT32_MAX};
};

}  // namespace kb::test
