#include <gtest/gtest.h>

#include <cstdint>

#include "platform/clock.h"
#include "support/test_clock.h"

namespace kb::test {

using namespace kb::platform;

TEST(Clock, IntervalArithmeticIsSixteenBitAndStampIntervalsSurviveTheWrap) {
    EXPECT_EQ(ElapsedBetween(100, 900, 101, 150), 250);
    EXPECT_EQ(ElapsedBetween(100, 0, 104, 0), 4000);
    EXPECT_EQ(ElapsedBetween(100, 0, 132, 767), 32767);
    EXPECT_LT(ElapsedBetween(100, 0, 132, 768), 0) << "turns negative past 32767 ms";

    // Stamp intervals survive the wrap.
    TestClock clock;
    clock.MoveOn(0xFFFFFFFFu - clock.NowMs() - 5);  // the clock now stands 5 ms before the wrap
    const uint32_t before = clock.NowMs();
    clock.SleepMs(20);
    const uint32_t after = clock.NowMs();
    EXPECT_LT(after, before) << "the stamp wrapped";
    EXPECT_GE(static_cast<uint32_t>(after - before), 20u);
    EXPECT_LT(static_cast<uint32_t>(after - before), 5000u);

    // The interval clock of a line reads the clock it was made with, so that
    // moving it on crosses the line's limits with the engine's.
    IntervalClock interval(clock);
    interval.Start();
    clock.MoveOn(4000);
    EXPECT_GE(interval.Elapsed(), 4000);
}

}  // namespace kb::test
