#include "platform/clock.h"

#include <chrono>
#include <cstdint>
#include <thread>

namespace kb::platform {

int64_t MonotonicClock::ReadMs() const {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
}

void MonotonicClock::SleepMs(uint32_t milliseconds) const {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

uint64_t MonotonicNs() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

void IntervalClock::Start() {
    const int64_t now = clock_.ReadMs();
    seconds_.store(now / 1000);
    millis_.store(static_cast<int32_t>(now % 1000));
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
    const int64_t now = clock_.ReadMs();
    return ElapsedBetween(seconds_.load(), millis_.load(), now / 1000,
                          static_cast<int32_t>(now % 1000));
}

std::time_t WallSeconds() {
    return std::time(nullptr);
}

}  // namespace kb::platform
