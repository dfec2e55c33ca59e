// The receiving side's two limits on silence, each on the real clock.

#include <gtest/gtest.h>

#include <string>

#include "engine/wire.h"
#include "engine_harness.h"

namespace {

using WatchdogTest = EngineHarness;

}  // namespace

TEST_F(WatchdogTest, FiveSecondsWithoutABlockAbortTheTransfer) {
    ConnectAsReceiver();
    Send(ListFor({{"stall.bin", RandomBytes(8191, 1)}}));
    EXPECT_EQ(Take(6), "ACK3\r\n");
    // Not before the limit...
    EXPECT_EQ(TakeFor(4900), "");
    // ...but just after it.
    EXPECT_EQ(Take(7, 1000), "ABORT\r\n");
    EXPECT_TRUE(WaitForState(LinkConnected));
    const std::vector<std::string> log = Log();
    const auto bytes = std::find(log.begin(), log.end(), "Bytes Read: 0");
    ASSERT_NE(bytes, log.end());
    EXPECT_EQ(*(bytes + 1), "Sending disconnect...");
}

TEST_F(WatchdogTest, TenSecondsOfSilenceAfterConnectEndTheCall) {
    ConnectAsAnswerer();
    EXPECT_EQ(TakeFor(9800), "");
    // The adapter is asked whether the call is still up: it is not.
    EXPECT_EQ(AnswerCommand(1000), "AT");
    EXPECT_TRUE(AnswerProfile());
    EXPECT_TRUE(WaitForState(LinkIdle));
    EXPECT_TRUE(WaitForLog("Disconnected"));
}
