// Clocks of the line and the engine.
//
// NowMs is a 32-bit millisecond stamp whose intervals are taken by unsigned
// subtraction, so its wrap does no harm. The interval clock (StartElapsed and
// ElapsedMs) keeps the 16-bit arithmetic that the line's time limits are
// written against: ElapsedMs is signed 16-bit and turns negative after 32767 ms.
// Both run on a monotonic clock, so a change of the wall clock never shortens
// or stretches a time limit.
#pragma once

#include <cstdint>
#include <ctime>

// Milliseconds of a monotonic clock, in unsigned 32-bit arithmetic.
uint32_t NowMs();

// Nanoseconds of the same monotonic clock, in 64 bits, for timing finer than
// a millisecond: it never wraps and never moves with the wall clock.
uint64_t MonotonicNs();

// Starts the process-wide interval clock. There is one pair of stored values
// for the whole program: two timed reads must never run at once.
void StartElapsed();

// Milliseconds since the last StartElapsed, computed in 16-bit arithmetic.
int16_t ElapsedMs();

// The arithmetic of ElapsedMs: (seconds now - seconds then) x 1000 - ms then
// + ms now, every step in 16 bits.
int16_t ElapsedBetween(int64_t thenSeconds, int32_t thenMillis, int64_t nowSeconds,
                       int32_t nowMillis);

// Wall clock time in whole seconds, as time(0).
std::time_t WallSeconds();

// Pauses the calling thread.
void SleepMs(uint32_t milliseconds);
