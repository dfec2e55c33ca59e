// The tool's times: nanoseconds of the platform's monotonic clock
// (MonotonicNs). Pacing needs a finer grain than milliseconds, and a change of
// the wall clock must not stretch a ring or a guard time.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace kb::virtual_ta {

constexpr uint64_t NsPerMs = 1000000;
// A deadline that is not set.
constexpr uint64_t Never = UINT64_MAX;

}  // namespace kb::virtual_ta
