// The tool's one clock: nanoseconds of the monotonic clock. Pacing needs a
// finer grain than milliseconds, and a change of the wall clock must not
// stretch a ring or a guard time.
#pragma once

#include <cstdint>

constexpr uint64_t NsPerMs = 1000000;
constexpr uint64_t Never = UINT64_MAX;

uint64_t MonoNs();
