#include "support/test_clock.h"

#include <algorithm>

namespace kb::test {

int64_t TestClock::ReadMs() const {
    return real_.ReadMs() + offset_.load();
}

void TestClock::SleepMs(uint32_t milliseconds) const {
    real_.SleepMs(std::min(milliseconds, longestPause_.load()));
}

}  // namespace kb::test
