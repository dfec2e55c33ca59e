// Calls through the exchange: dialling, ringing, answering, and the ways a
// dial fails, as each end's port shows them.
#include <gtest/gtest.h>

#include <string>

#include "support/temp_folder.h"
#include "vta_harness.h"

namespace {

int Count(const std::string& text, const std::string& what) {
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

class VirtualTaCalls : public testing::Test {
protected:
    void Start(const std::vector<std::string>& extra = {}) {
        std::vector<std::string> arguments = {"--rate",
                                              "0",
                                              folder_ / "alice=bitsurfr:5551001",
                                              folder_ / "bob=zyxel-2864:5551002",
                                              folder_ / "carol=3com:5551003,no-dialtone",
                                              folder_ / "dave=adtran-xr:5551004"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        tool_ = std::make_unique<VirtualTa>(arguments);
        ASSERT_TRUE(tool_->Ready());
    }
    std::string Link(const char* name) { return folder_ / name; }

    TempFolder folder_;
    std::unique_ptr<VirtualTa> tool_;
};

TEST_F(VirtualTaCalls, AliceCallsBobAndEachEndReportsItsOwnPortSpeed) {
    Start();
    TaPort alice(Link("alice"), 57600);
    TaPort bob(Link("bob"), 115200);
    const int64_t dialled = MonotonicMs();
    alice.Send("ATD5551002\r");
    EXPECT_EQ(bob.ReadUntil("RING\r\n", 2000), "\r\nRING\r\n");
    EXPECT_LT(MonotonicMs() - dialled, 500) << "the called end rings at once";
    EXPECT_EQ(alice.ReadUntil("RINGING\r\n", 2000), "ATD5551002\r\r\nRINGING\r\n");
    bob.Send("ATA\r");
    EXPECT_EQ(bob.ReadUntil("CONNECT 115200\r\n", 2000), "ATA\r\r\nCONNECT 115200\r\n");
    EXPECT_EQ(alice.ReadUntil("CONNECT 57600\r\n", 2000), "\r\nCONNECT 57600\r\n");
    // Both are in data mode now: what one sends, the other gets.
    const Transfer transfer = TransferBothWays(alice, bob, "from alice", "from bob", 2000);
    EXPECT_EQ(transfer.AtB, "from alice");
    EXPECT_EQ(transfer.AtA, "from bob");
}

TEST_F(VirtualTaCalls, BobCallsAliceWithCarrierCodesAndASecondNumber) {
    Start();
    TaPort alice(Link("alice"), 115200);
    TaPort bob(Link("bob"), 115200);
    const CallSetUp call = SetUpCall(bob, alice, "102885551001+102885551001");
    ASSERT_TRUE(call.Connected) << call.AtCaller << " / " << call.AtAnswerer;
    EXPECT_EQ(call.AtAnswerer, "\r\nRING\r\nATA\r\r\nCONNECT 115200\r\n");
    const Transfer transfer = TransferBothWays(bob, alice, "to alice", "to bob", 2000);
    EXPECT_EQ(transfer.AtB, "to alice");
    EXPECT_EQ(transfer.AtA, "to bob");
}

TEST_F(VirtualTaCalls, AnAdapterInACallIsBusy) {
    Start();
    TaPort alice(Link("alice"), 115200);
    TaPort bob(Link("bob"), 115200);
    TaPort dave(Link("dave"), 115200);
    ASSERT_TRUE(SetUpCall(alice, bob, "5551002").Connected);
    for (const char* number : {"5551002", "5551001"}) {
        const int64_t start = MonotonicMs();
        dave.Send(std::string("ATD") + number + "\r");
        EXPECT_EQ(dave.ReadUntil("BUSY\r\n", 3000), std::string("ATD") + number + "\r\r\nBUSY\r\n");
        EXPECT_LT(MonotonicMs() - start, 2000);
    }
    // The call itself goes on undisturbed.
    const Transfer transfer = TransferBothWays(alice, bob, "still", "here", 2000);
    EXPECT_EQ(transfer.AtB, "still");
    EXPECT_EQ(transfer.AtA, "here");
    // Calling oneself meets a busy line too.
    dave.Send("ATD5551004\r");
    EXPECT_EQ(dave.ReadUntil("BUSY\r\n", 3000), "ATD5551004\r\r\nBUSY\r\n");
}

TEST_F(VirtualTaCalls, AnUnknownNumberGetsNoCarrierAfterAShortDelay) {
    Start();
    TaPort alice(Link("alice"), 115200);
    TaPort bob(Link("bob"), 115200);
    const int64_t start = MonotonicMs();
    alice.Send("ATD5559999\r");
    EXPECT_EQ(alice.ReadUntil("NO CARRIER\r\n", 3000), "ATD5559999\r\r\nNO CARRIER\r\n");
    const int64_t took = MonotonicMs() - start;
    EXPECT_GE(took, 200);
    EXPECT_LT(took, 2500);
    // A number with no digits at all dials nobody, with or without a carrier code.
    alice.Send("ATD10333\r");
    EXPECT_EQ(alice.ReadUntil("NO CARRIER\r\n", 3000), "ATD10333\r\r\nNO CARRIER\r\n");
    EXPECT_EQ(bob.ReadFor(100), "") << "nobody else rang";
    // Back in command mode.
    EXPECT_EQ(alice.Command("AT"), "AT\r\r\nOK\r\n");
}

TEST_F(VirtualTaCalls, AnUnpluggedLineHasNoDialToneAndCannotBeReached) {
    Start();
    TaPort alice(Link("alice"), 115200);
    TaPort carol(Link("carol"), 115200);
    carol.Send("ATD5551001\r");
    EXPECT_EQ(carol.ReadUntil("NO DIAL TONE\r\n", 3000), "ATD5551001\r\r\nNO DIAL TONE\r\n");
    EXPECT_EQ(alice.ReadFor(100), "") << "the call never left";
    alice.Send("ATD5551003\r");
    EXPECT_EQ(alice.ReadUntil("NO CARRIER\r\n", 3000), "ATD5551003\r\r\nNO CARRIER\r\n");
    EXPECT_EQ(carol.ReadFor(100), "") << "no RING on an unplugged line";
}

TEST_F(VirtualTaCalls, ABlankBreaksTheDialOff) {
    Start();
    TaPort alice(Link("alice"), 115200);
    TaPort bob(Link("bob"), 115200);
    alice.Send("ATD5551002\r");
    EXPECT_EQ(bob.ReadUntil("RING\r\n", 2000), "\r\nRING\r\n");
    EXPECT_EQ(alice.ReadUntil("RINGING\r\n", 2000), "ATD5551002\r\r\nRINGING\r\n");
    alice.Send(" ");
    EXPECT_EQ(alice.ReadUntil("NO CARRIER\r\n", 1000), "\r\nNO CARRIER\r\n") << "no echo of it";
    // Bob's answer comes too late: nothing rings any more.
    bob.Send("ATA\r");
    EXPECT_EQ(bob.ReadUntil("NO CARRIER\r\n", 1000), "ATA\r\r\nNO CARRIER\r\n");
    EXPECT_EQ(alice.Command("AT"), "AT\r\r\nOK\r\n");
}

TEST_F(VirtualTaCalls, ABlankBreaksOffAFailingDialToo) {
    Start();
    TaPort alice(Link("alice"), 115200);
    alice.Send("ATD5559999\r");
    EXPECT_EQ(alice.ReadUntil("\r", 1000), "ATD5559999\r");
    alice.Send(" ");
    EXPECT_EQ(alice.ReadFor(1000), "\r\nNO CARRIER\r\n") << "one result only";
}

TEST_F(VirtualTaCalls, HangingUpARingingAdapterRefusesTheCall) {
    Start();
    TaPort alice(Link("alice"), 115200);
    TaPort bob(Link("bob"), 115200);
    alice.Send("ATD5551002\r");
    EXPECT_EQ(bob.ReadUntil("RING\r\n", 2000), "\r\nRING\r\n");
    EXPECT_EQ(bob.Command("ATH"), "ATH\r\r\nOK\r\n");
    EXPECT_EQ(alice.ReadUntil("NO CARRIER\r\n", 1000),
              "ATD5551002\r\r\nRINGING\r\n\r\nNO CARRIER\r\n");
    EXPECT_EQ(bob.ReadFor(300), "") << "no more rings";
}

TEST_F(VirtualTaCalls, ARingRepeatsEveryTwoSecondsUntilTheCallerGivesUp) {
    Start({"--answer-wait", "3"});
    TaPort alice(Link("alice"), 115200);
    TaPort bob(Link("bob"), 115200);
    const int64_t start = MonotonicMs();
    alice.Send("ATD5551002\r");
    const std::string atAlice = alice.ReadUntil("NO CARRIER\r\n", 5000);
    const int64_t gaveUp = MonotonicMs() - start;
    EXPECT_EQ(atAlice, "ATD5551002\r\r\nRINGING\r\n\r\nRINGING\r\n\r\nNO CARRIER\r\n");
    EXPECT_GE(gaveUp, 2900);
    EXPECT_LT(gaveUp, 4000);
    EXPECT_EQ(bob.ReadFor(200), "\r\nRING\r\n\r\nRING\r\n");
    bob.Send("ATA\r");
    EXPECT_EQ(bob.ReadUntil("NO CARRIER\r\n", 1000), "ATA\r\r\nNO CARRIER\r\n");
}

TEST_F(VirtualTaCalls, AnAdapterToldToAnswerByItselfDoesSo) {
    Start();
    TaPort alice(Link("alice"), 115200);
    TaPort dave(Link("dave"), 115200);
    EXPECT_EQ(dave.Command("ATS0=1"), "ATS0=1\r\r\nOK\r\n");
    alice.Send("ATD5551004\r");
    EXPECT_EQ(dave.ReadUntil("CONNECT 115200\r\n", 2000), "\r\nRING\r\n\r\nCONNECT 115200\r\n");
    EXPECT_EQ(alice.ReadUntil("CONNECT 115200\r\n", 2000),
              "ATD5551004\r\r\nRINGING\r\n\r\nCONNECT 115200\r\n");
}

TEST_F(VirtualTaCalls, AProfileWithS0Eq0LeavesTheAnswerToTheProgram) {
    Start();
    TaPort alice(Link("alice"), 115200);
    TaPort bob(Link("bob"), 115200);
    const std::string profile = "AT&H3&D0&C1&E0&S0Q0E1V1B20&O2S0=0X1&J0&K00";
    ASSERT_EQ(bob.Command(profile), profile + "\r\r\nOK\r\n");
    alice.Send("ATD5551002\r");
    EXPECT_EQ(bob.ReadUntil("RING\r\n", 2000), "\r\nRING\r\n");
    EXPECT_EQ(bob.ReadFor(700), "") << "S0=0: no answer of its own";
    // The program answers as it does: a pause, then ATA.
    const CallSetUp late = [&] {
        bob.Send("ATA\r");
        CallSetUp result;
        result.AtAnswerer = bob.ReadUntil("CONNECT 115200\r\n", 2000);
        result.AtCaller = alice.ReadUntil("CONNECT 115200\r\n", 2000);
        return result;
    }();
    EXPECT_EQ(late.AtAnswerer, "ATA\r\r\nCONNECT 115200\r\n");
    EXPECT_EQ(late.AtCaller, "ATD5551002\r\r\nRINGING\r\n\r\nCONNECT 115200\r\n");
    EXPECT_EQ(Count(late.AtCaller, "RINGING"), 1);
}

}  // namespace
