#include "platform/clock.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace {

std::atomic<uint32_t> nowShift{0};
std::atomic<uint32_t> longestPause{UINT32_MAX};

// Seconds and milliseconds of the monotonic clock, the two parts that the
// interval clock stores.
struct ClockReading {
    int64_t seconds;
    int32_t millis;
};

ClockReading ReadClock() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
    return {ms / 1000, static_cast<int32_t>(ms % 1000)};
}

std::atomic<int64_t> elapsedSeconds{0};
std::atomic<int32_t> elapsedMillis{0};

}  // namespace

uint32_t NowMs() {
    const ClockReading now = ReadClock();
    return static_cast<uint32_t>(now.seconds * 1000 + now.millis) + nowShift.load();
}

void StartElapsed() {
    const ClockReading now = ReadClock();
    elapsedSeconds.store(now.seconds);
    elapsedMillis.store(now.millis);
}

int16_t ElapsedBetween(int64_t thenSeconds, int32_t thenMillis, int64_t nowSeconds,
                       int32_t nowMillis) {
    const auto seconds = static_cast<int16_t>(nowSeconds - thenSeconds);
    auto sum = static_cast<int16_t>(seconds * 1000);
    sum = static_cast<int16_t>(sum - static_cast<int16_t>(thenMillis));
    sum = static_cast<int16_t>(sum + static_cast<int16_t>(nowMillis));
    return sum;
}

int16_t ElapsedMs() {
    const ClockReading now = ReadClock();
    return ElapsedBetween(elapsedSeconds.load(), elapsedMillis.load(), now.seconds, now.millis);
}

std::time_t WallSeconds() {
    return std::time(nullptr);
}

void SleepMs(uint32_t milliseconds) {
    const uint32_t pause = std::min(milliseconds, longestPause.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(pause));
}

void CapPausesForTest(uint32_t milliseconds) {
    longestPause.store(milliseconds);
}

void ShiftNowMsForTest(uint32_t offset) {
    nowShift.store(offset);
}
