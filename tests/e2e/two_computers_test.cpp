// Alice and Bob as on two computers: each station's adapter in a virtual-ta
// of its own, the call between them over TCP on loopback.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "two_stations.h"

namespace {

constexpr size_t SectionData = 131070;

}  // namespace

TEST(TwoComputersTest, FilesArriveWholeAcrossTheConnection) {
    AliceAndBob line("zyxel-2864", {"--rate", "0"}, AliceAndBob::OverTcp{});
    const std::string big = RandomBytes(600000, 21);
    const std::string note = RandomBytes(5000, 22);
    line.Choose({{"big.bin", big}, {"note.txt", note}});
    line.SendThrough();
    ExpectSameBytes(line.IncomingPath("big.bin"), big);
    ExpectSameBytes(line.IncomingPath("note.txt"), note);
}

// The connection between the two virtual-ta processes fails in the middle of
// a file: both stations lose the call as when a line falls, and the next call
// takes the file up where it stopped.
TEST(TwoComputersTest, AConnectionCutInTheMiddleOfAFileIsALostCallAndTheResendResumes) {
    AliceAndBob line("zyxel-2864", {"--rate", "64000"}, AliceAndBob::OverTcp{});
    const std::string big = RandomBytes(4 * SectionData, 23);
    line.Choose({{"big.bin", big}});
    ASSERT_EQ(line.Alice->Command("send"), "ok");
    ASSERT_TRUE(line.Bob->WaitForLog("Receiving File: big.bin"));
    // Past the first section and short of the last: about 2 seconds of line.
    for (int wait = 0; wait < 3000 && line.Relay->Carried() < 2 * SectionData; ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    line.Relay->Cut();
    ASSERT_TRUE(line.Alice->WaitForLog("Disconnected"));
    ASSERT_TRUE(line.Bob->WaitForLog("Disconnected"));
    line.BackToIdle();
    const size_t kept = ReadWholeFile(line.IncomingPath("big.bin")).size();
    EXPECT_GT(kept, 0u);
    EXPECT_LT(kept, big.size());
    EXPECT_EQ(kept % SectionData, 0u) << "whole sections only";

    line.SendThrough();
    EXPECT_EQ(LinesHolding(line.Alice->LogLines(), {"Sending Recovered File: "}),
              std::vector<std::string>{"Sending Recovered File: big.bin"});
    ExpectSameBytes(line.IncomingPath("big.bin"), big);
    EXPECT_FALSE(PathExists(line.IncomingPath("big.bin-A")));
}
