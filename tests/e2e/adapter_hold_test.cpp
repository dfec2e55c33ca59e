// A station's idea of its line against its adapter's: when a call that rang
// and was given up is followed at once by a real one.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "peer_fixture.h"

namespace {

using RingGivenUp = PeerAndStation;

}  // namespace

// A caller rings the station, gives up at once and calls again a moment
// later, while the station is still on its way to answer the first ring:
// the one answer takes the call that rings by then, and it is served.
TEST_F(RingGivenUp, TheCallThatFollowsAMomentLaterIsServed) {
    for (const int gapMs : {200, 350, 500}) {
        SCOPED_TRACE(gapMs);
        const std::vector<peer::File> files = {{"after-" + std::to_string(gapMs) + ".txt",
                                                RandomBytes(20000, static_cast<uint32_t>(gapMs))}};
        port_->Send("ATD5552002\r");
        ASSERT_NE(port_->ReceiveUntil("RINGING\r\n", 5000).find("RINGING"), std::string::npos);
        port_->Send(" ");  // gives up
        ASSERT_NE(port_->ReceiveUntil("NO CARRIER\r\n", 5000).find("NO CARRIER"),
                  std::string::npos);
        std::this_thread::sleep_for(std::chrono::milliseconds(gapMs));
        ASSERT_TRUE(port_->Dial("5552002"));
        ASSERT_EQ(peer::SendSession(*port_, files), "") << LogText();
        EndCall();
        EXPECT_TRUE(Incoming(files[0].Name) == files[0].Bytes);
    }
}
