// Pacing of one direction of a line: tokens flow in at the line's rate, and a
// byte may go on the line for each token. The bucket holds at most 50 ms of
// tokens, so a line that was idle starts again with a short burst at most.
#pragma once

#include <cstdint>

namespace kb::virtual_ta {

class TokenBucket {
public:
    // A bucket for bytesPerSecond; 0 makes it unlimited.
    void Start(uint64_t bytesPerSecond, uint64_t nowNs);
    [[nodiscard]] bool Unlimited() const { return rate_ == 0; }
    // Whole bytes that may go now.
    uint64_t Available(uint64_t nowNs);
    // Spends tokens for count bytes; count must not exceed Available.
    void Take(uint64_t count);
    // The time at which count bytes will be available (the largest count the
    // bucket can hold if count is larger).
    uint64_t TimeWhen(uint64_t count, uint64_t nowNs);

private:
    void Refill(uint64_t nowNs);

    uint64_t rate_ = 0;    // bytes per second
    uint64_t last_ = 0;    // time of the last refill
    uint64_t tokens_ = 0;  // in units of 1e-9 byte
    uint64_t cap_ = 0;     // in the same units
};

}  // namespace kb::virtual_ta
