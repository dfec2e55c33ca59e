#include "platform/clock.h"
#include "platform/clock_test_hooks.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace kb::platform {

namespace {

std::atomic<uint32_t> NowShift{0};
std::atomic<uint32_t> LongestPause{UINT32_MAX};

// Seconds and milliseconds of the monotonic clock, the two parts that the
// interval clock stores.
struct ClockReading {
    int64_t Seconds;
    int32_t Millis;
};

// A test's shift moves both clocks alike, so that it crosses the line's read
// limits as it crosses the engine's, without waiting them out.
ClockReading ReadClock() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(since).count() +
                    int64_t{NowShift.load()};
    return {ms / 1000, static_cast<int32_t>(ms % 1000)};
}

}  // namespace

uint32_t NowMs() {
    const ClockReading now = ReadClock();
    return static_cast<uint32_t>(now.Seconds * 1000 + now.Millis);
}

uint64_t MonotonicNs() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

void IntervalClock::Start() {
    const ClockReading now = ReadClock();
    seconds_.store(now.Seconds);
    millis_.store(now.Millis);
}

int16_t ElapsedBetween(int64_t thenSeconds, int32_t thenMillis, int64_t nowSeconds,
                       int32_t nowMillis) {
    const auto seconds = static_cast<int16_t>(nowSeconds - thenSeconds);
    auto sum = static_cast<int16_t>(seconds * 1000);
    sum = static_cast<int16_t>(sum - static_cast<int16_t>(thenMillis));
    sum = static_cast<int16_t>(sum + static_cast<int16_t>(nowMillis));
    return sum;
}

int16_t IntervalClock::Elapsed() const {
    const ClockReading now = ReadClock();
    return ElapsedBetween(seconds_.load(), millis_.load(), now.Seconds, now.Millis);
}

std::time_t WallSeconds() {
    return std::time(nullptr);
}

void SleepMs(uint32_t milliseconds) {
    const uint32_t pause = std::min(milliseconds, LongestPause.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(pause));
}

void CapPausesForTest(uint32_t milliseconds) {
    LongestPause.store(milliseconds);
}

void ShiftNowMsForTest(uint32_t offset) {
    NowShift.store(offset);
}

}  // namespace kb::platform
