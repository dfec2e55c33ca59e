// Hooks into the clocks, for tests and the fuzz targets only: nothing of the
// program includes this header but clock.cpp, which implements it (the style
// check refuses any other).
#pragma once

#include <cstdint>

namespace kb::platform {

// Caps every later SleepMs at the given milliseconds. The fuzz targets use
// it: their adapter answers at once and needs no guard time around an escape,
// and a million inputs cannot each wait out the real one. So do the engine
// tests whose adapter needs no guard time and that assert no pause.
void CapPausesForTest(uint32_t milliseconds);

// Moves every later NowMs stamp, and the interval clocks' readings with it,
// by the given amount: to see how stamps behave across the 32-bit wrap, and
// so that an engine test crosses a time limit without waiting it out.
void ShiftNowMsForTest(uint32_t offset);

}  // namespace kb::platform
