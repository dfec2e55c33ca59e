#include "virtual-ta/token_bucket.h"

#include <algorithm>

namespace kb::virtual_ta {

namespace {

constexpr uint64_t Unit = 1000000000;    // token units in one byte
constexpr uint64_t WindowNs = 50000000;  // the most a bucket holds: 50 ms of line

}  // namespace

void TokenBucket::Start(uint64_t bytesPerSecond, uint64_t nowNs) {
    rate_ = bytesPerSecond;
    last_ = nowNs;
    // rate in bytes per second times nanoseconds gives token units.
    cap_ = std::max(rate_ * WindowNs, Unit);
    tokens_ = 0;
}

void TokenBucket::Refill(uint64_t nowNs) {
    if (nowNs <= last_) {
        return;
    }
    const uint64_t elapsed = nowNs - last_;
    last_ = nowNs;
    // Past the time that fills an empty bucket it is full; testing that first
    // also keeps the product below from overflowing after a long idle spell.
    if (elapsed >= cap_ / rate_ + 1) {
        tokens_ = cap_;
        return;
    }
    tokens_ = std::min(cap_, tokens_ + elapsed * rate_);
}

uint64_t TokenBucket::Available(uint64_t nowNs) {
    if (rate_ == 0) {
        return UINT64_MAX;
    }
    Refill(nowNs);
    return tokens_ / Unit;
}

void TokenBucket::Take(uint64_t count) {
    if (rate_ == 0) {
        return;
    }
    const uint64_t spend = count * Unit;
    tokens_ = spend >= tokens_ ? 0 : tokens_ - spend;
}

uint64_t TokenBucket::TimeWhen(uint64_t count, uint64_t nowNs) {
    if (rate_ == 0) {
        return nowNs;
    }
    Refill(nowNs);
    const uint64_t want = std::min(count * Unit, cap_ - cap_ % Unit);
    if (tokens_ >= want) {
        return nowNs;
    }
    const uint64_t missing = want - tokens_;
    return last_ + (missing + rate_ - 1) / rate_;
}

}  // namespace kb::virtual_ta
