// Calls between two virtual-ta processes over TCP on loopback: Alice's
// adapter in one, Bob's and Carol's in the other, each process listening and
// routing the other's numbers to it. Seen from the ports, such a call is a
// call between two adapters of one process.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/tcp_relay.h"
#include "vta_harness.h"

namespace {

class CallsAway : public VirtualTaTest {
protected:
    // Bob's process runs unthrottled; Alice's takes the extra options. Her
    // dials of Bob's numbers go through a relay, which a test may cut.
    void StartBoth(const std::vector<std::string>& aliceOptions) {
        const std::string alicePort = std::to_string(FreePort());
        Start({"--rate", "0", "--listen", "127.0.0.1:0", "--route",
               "5551001=127.0.0.1:" + alicePort, folder_ / "bob=zyxel-2864:5552002",
               folder_ / "carol=3com:5552003"});
        ASSERT_NE(ListeningPort(tool_->AllLines()), 0);
        relay_ = std::make_unique<TcpRelay>(ListeningPort(tool_->AllLines()));
        const std::string bobs = "127.0.0.1:" + std::to_string(relay_->Port());
        std::vector<std::string> arguments = {
            "--rate", "0", "--listen", "127.0.0.1:" + alicePort, "--route", "5552002=" + bobs,
            "--route", "5552003=" + bobs, "--route", "5559999=" + bobs,
            // Nobody listens there.
            "--route", "5550000=127.0.0.1:" + std::to_string(FreePort()),
            folder_ / "alice=bitsurfr:5551001"};
        arguments.insert(arguments.end(), aliceOptions.begin(), aliceOptions.end());
        alicesTool_ = std::make_unique<ChildProcess>(VIRTUAL_TA_PATH, arguments);
        ASSERT_TRUE(alicesTool_->WaitForLine("ready", std::chrono::seconds(10)));
    }

    std::unique_ptr<TcpRelay> relay_;
    std::unique_ptr<ChildProcess> alicesTool_;
};

// More than one message of the link holds, both ways at once; Bob calls back
// with a carrier code in front.
TEST_F(CallsAway, ACallEachWayRingsConnectsAndCarriesEveryByteInOrder) {
    StartBoth({});
    CallEachWay(Port("alice"), Port("bob"), "5552002", "102885551001", RandomBytes(300000, 1),
                RandomBytes(200000, 2));
}

// Alice's process runs at 16000 bytes per second and Bob's unthrottled: the
// slower sets the pace of a call between them, each way. Alice's gives up a
// ringing call after a second.
TEST_F(CallsAway, BusyUnknownAndUnreachableFailAsLocallyAndTheSlowerRatePacesTheCall) {
    StartBoth({"--rate", "16000", "--answer-wait", "1"});
    FarEnd& alice = Port("alice");
    FarEnd& bob = Port("bob");
    FarEnd& carol = Port("carol");
    ASSERT_TRUE(SetUpCall(carol, bob, "5552002").Connected);
    ExpectFailedDial(alice, "5552002", "BUSY");        // in a call in the far process
    ExpectFailedDial(alice, "5559999", "NO CARRIER");  // routed there, but nobody's number
    ExpectFailedDial(alice, "5550000", "NO CARRIER");  // nobody listens at the route's address
    EXPECT_EQ(bob.ReceiveFor(100), "") << "no RING in a call";
    ASSERT_TRUE(carol.HangUp());
    EXPECT_EQ(bob.ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");

    // Unanswered: the caller's process gives up, and Bob's stops ringing.
    alice.Send("ATD5552002\r");
    EXPECT_EQ(alice.ReceiveUntil("NO CARRIER\r\n", 3000),
              "ATD5552002\r\r\nRINGING\r\n\r\nNO CARRIER\r\n");
    // The release travels over the connection: Bob answers a moment later.
    EXPECT_EQ(bob.ReceiveFor(300), "\r\nRING\r\n");
    bob.Send("ATA\r");
    EXPECT_EQ(bob.ReceiveUntil("NO CARRIER\r\n", 1000), "ATA\r\r\nNO CARRIER\r\n");

    const CallSetUp call = SetUpCall(alice, carol, "5552003");
    ASSERT_TRUE(call.Connected) << call.AtCaller << " / " << call.AtAnswerer;
    const std::string up = RandomBytes(24000, 3);
    const std::string down = RandomBytes(24000, 4);
    const Transfer transfer = TransferBothWays(alice, carol, up, down, 10000);
    EXPECT_TRUE(transfer.AtB == up);
    EXPECT_TRUE(transfer.AtA == down);
    // 24000 bytes at 16000 a second, less the 50 ms the line may hold.
    EXPECT_GE(transfer.Seconds, 1.4);
}

TEST_F(CallsAway, ALostConnectionIsNoCarrierAtBothEndsAndTheNextCallGoesThrough) {
    StartBoth({});
    FarEnd& alice = Port("alice");
    FarEnd& bob = Port("bob");
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        ASSERT_TRUE(SetUpCall(alice, bob, "5552002").Connected);
        ExpectCarried(alice, bob, "hello bob", "hello alice");
        relay_->Cut();
        EXPECT_EQ(alice.ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");
        EXPECT_EQ(bob.ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");
        EXPECT_EQ(alice.Command("AT"), "AT\r\r\nOK\r\n");
        EXPECT_EQ(bob.Command("AT"), "AT\r\r\nOK\r\n");
    }
}

}  // namespace
