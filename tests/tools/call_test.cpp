// Calls through the exchange: dialling, ringing, answering, and the ways a
// dial fails, as each end's port shows them; a port that its program left
// without closing it properly; and calls to the adapters of another
// virtual-ta process.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <sstream>
#include <thread>

#include "platform/clock.h"
#include "support/process_state.h"
#include "support/tcp_relay.h"
#include "virtual-ta/event_loop.h"
#include "virtual-ta/exchange.h"
#include "virtual-ta/resolver.h"
#include "vta_harness.h"

namespace kb::test {

using namespace kb::platform;

namespace {

// Alice, Bob, Carol, whose line is unplugged, and Dave. A caller gives up
// after three seconds of ringing.
class VirtualTaCalls : public VirtualTaTest {
protected:
    void SetUp() override {
        Start({"--rate", "0", "--answer-wait", "3", folder_ / "alice=bitsurfr:5551001",
               folder_ / "bob=zyxel-2864:5551002", folder_ / "carol=3com:5551003,no-dialtone",
               folder_ / "dave=adtran-xr:5551004"});
    }
};

// Bob calls Alice back with carrier codes and a second number. Then, while
// they are in a call, Dave and Carol (whose line is unplugged) dial: each
// failure rings nobody, and leaves the call undisturbed.
TEST_F(VirtualTaCalls, CallsEachWayReportEachEndsSpeedAndAFailedDialRingsNobody) {
    FarEnd& alice = Port("alice");
    FarEnd& bob = Port("bob");
    FarEnd& carol = Port("carol");
    FarEnd& dave = Port("dave");
    CallEachWay(alice, bob, "5551002", "102885551001+102885551001", "from alice", "from bob");
    ASSERT_TRUE(SetUpCall(alice, bob, "5551002"));
    ExpectFailedDial(dave, "5551002", "BUSY");           // the called end of a call
    ExpectFailedDial(dave, "5551001", "BUSY");           // its calling end
    ExpectFailedDial(dave, "5551004", "BUSY");           // the caller itself
    ExpectFailedDial(dave, "5559999", "NO CARRIER");     // nobody's number
    ExpectFailedDial(dave, "10333", "NO CARRIER");       // a carrier code and no number at all
    ExpectFailedDial(dave, "5551003", "NO CARRIER");     // an unplugged line
    ExpectFailedDial(carol, "5551004", "NO DIAL TONE");  // from an unplugged line
    EXPECT_EQ(carol.ReceiveFor(100), "") << "no RING on an unplugged line";
    EXPECT_EQ(dave.ReceiveFor(100), "") << "no call left an unplugged line";
    ExpectCarried(alice, bob, "still", "here");
}

TEST_F(VirtualTaCalls, ABlankATHOrGivingUpEndsADialInOneNoCarrierAndOnlyS0AnswersByItself) {
    FarEnd& alice = Port("alice");
    FarEnd& bob = Port("bob");
    alice.Send("ATD5551002\r");
    EXPECT_EQ(bob.ReceiveUntil("RING\r\n", 2000), "\r\nRING\r\n");
    EXPECT_EQ(alice.ReceiveUntil("RINGING\r\n", 2000), "ATD5551002\r\r\nRINGING\r\n");
    alice.Send(" ");
    EXPECT_EQ(alice.ReceiveUntil("NO CARRIER\r\n", 1000), "\r\nNO CARRIER\r\n") << "no echo of it";
    // Bob's answer comes too late: nothing rings any more.
    bob.Send("ATA\r");
    EXPECT_EQ(bob.ReceiveUntil("NO CARRIER\r\n", 1000), "ATA\r\r\nNO CARRIER\r\n");
    // A dial that is going to fail, broken off before its result comes.
    alice.Send("ATD5559999\r");
    EXPECT_EQ(alice.ReceiveUntil("\r", 1000), "ATD5559999\r");
    alice.Send(" ");
    EXPECT_EQ(alice.ReceiveFor(1000), "\r\nNO CARRIER\r\n") << "one result only";
    EXPECT_EQ(alice.Command("AT"), "AT\r\r\nOK\r\n");

    // Hanging up a ringing adapter refuses the call.
    alice.Send("ATD5551002\r");
    EXPECT_EQ(bob.ReceiveUntil("RING\r\n", 2000), "\r\nRING\r\n");
    EXPECT_EQ(bob.Command("ATH"), "ATH\r\r\nOK\r\n");
    EXPECT_EQ(alice.ReceiveUntil("NO CARRIER\r\n", 1000),
              "ATD5551002\r\r\nRINGING\r\n\r\nNO CARRIER\r\n");
    EXPECT_EQ(bob.ReceiveFor(300), "") << "no more rings";

    // Unanswered, the ring repeats every two seconds until the caller gives up.
    const MonotonicClock clock;
    const uint32_t start = clock.NowMs();
    alice.Send("ATD5551002\r");
    const std::string atAlice = alice.ReceiveUntil("NO CARRIER\r\n", 5000);
    const uint32_t gaveUp = clock.NowMs() - start;
    EXPECT_EQ(atAlice, "ATD5551002\r\r\nRINGING\r\n\r\nRINGING\r\n\r\nNO CARRIER\r\n");
    EXPECT_GE(gaveUp, 2900u);
    EXPECT_LT(gaveUp, 4000u);
    EXPECT_EQ(bob.ReceiveFor(200), "\r\nRING\r\n\r\nRING\r\n");
    bob.Send("ATA\r");
    EXPECT_EQ(bob.ReceiveUntil("NO CARRIER\r\n", 1000), "ATA\r\r\nNO CARRIER\r\n");

    // Bob, left as he started, did not answer by himself; Dave, told to, does.
    FarEnd& dave = Port("dave");
    EXPECT_EQ(dave.Command("ATS0=1"), "ATS0=1\r\r\nOK\r\n");
    alice.Send("ATD5551004\r");
    EXPECT_EQ(dave.ReceiveUntil("CONNECT 115200\r\n", 2000), "\r\nRING\r\n\r\nCONNECT 115200\r\n");
    EXPECT_EQ(alice.ReceiveUntil("CONNECT 115200\r\n", 2000),
              "ATD5551004\r\r\nRINGING\r\n\r\nCONNECT 115200\r\n");
}

// Terminal programs hang up by dropping DTR: they set the port's speed to 0,
// or close the port. With &D2, the default, the call ends behind what was
// sent; with &D0 it goes on. Either way the port opened again, or at its
// speed again, finds the adapter in command mode and nothing stale.
TEST_F(VirtualTaCalls, DroppingDtrEndsTheCallUnlessTheAdapterIgnoresIt) {
    FarEnd& bob = Port("bob");
    const struct {
        const char* Setting;
        bool Closes;
        bool Ends;
    } drops[] = {{"AT", false, true}, {"AT", true, true}, {"AT&D0", true, false}};
    for (const auto& drop : drops) {
        SCOPED_TRACE(std::string(drop.Setting) + (drop.Closes ? " close" : " speed 0"));
        auto alice = std::make_unique<FarEnd>(folder_ / "alice");
        ASSERT_EQ(alice->Command(drop.Setting), drop.Setting + std::string("\r\r\nOK\r\n"));
        ASSERT_TRUE(SetUpCall(*alice, bob, "5551002"));
        alice->Send("last words");
        if (drop.Closes) {
            alice.reset();
        } else {
            alice->SetSpeed(0);
        }
        EXPECT_EQ(bob.ReceiveUntil(drop.Ends ? "NO CARRIER\r\n" : "last words", 2000),
                  drop.Ends ? "last words\r\nNO CARRIER\r\n" : "last words");
        if (drop.Closes) {
            alice = std::make_unique<FarEnd>(folder_ / "alice");
        } else {
            EXPECT_EQ(alice->ReceiveUntil("NO CARRIER\r\n", 2000), "\r\nNO CARRIER\r\n");
            alice->SetSpeed(115200);
        }
        if (drop.Ends) {
            EXPECT_EQ(alice->Command("AT"), "AT\r\r\nOK\r\n");
            EXPECT_EQ(bob.Command("AT"), "AT\r\r\nOK\r\n");
        } else {
            ExpectCarried(*alice, bob, "still", "here");
            EXPECT_TRUE(alice->HangUp());
        }
    }
}

// A program of the unprivileged user (a shell) opens the port at path, raw
// at 115200 bps, sends the bytes and reads as many as expected or for 3 s:
// what it read, or what the shell said when the open failed.
std::string TalkAsNobody(const std::string& path, const std::string& bytes, size_t expected) {
    ChildProcess shell("/bin/sh",
                       {"-c",
                        "exec 3<>\"$0\" && stty raw -echo 115200 <&3 && printf %s \"$1\" >&3 && "
                        "timeout 3 head -c \"$2\" <&3 | od -An -v -tx1",
                        path, bytes, std::to_string(expected)},
                       "", ChildProcess::Errors::Kept, 0, true);
    shell.WaitForExit(std::chrono::seconds(10));
    std::string said = shell.ErrorText();
    for (const std::string& line : shell.AllLines()) {
        std::istringstream hex(line);
        for (unsigned byte = 0; hex >> std::hex >> byte;) {
            said += static_cast<char>(byte);
        }
    }
    return said;
}

// The tool runs as an unprivileged user, as a person runs it.
using VirtualTaPorts = VirtualTaTest;

// A program that ends without closing its port properly (killed, say)
// leaves the pseudo-terminal in exclusive mode, which a serial port drops at
// its last close. The next program opens the port all the same, as a user
// who is not privileged, and finds the adapter as it was left: idle with its
// settings, or still in its call where it ignores DTR. The tool never spins.
TEST_F(VirtualTaPorts, APortLeftExclusiveOpensForAnyUserWithTheAdapterAsItWas) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to run the tool and a program as an unprivileged user";
    }
    // The tool makes its links and its trace in the folder.
    ASSERT_EQ(::chmod(folder_.Path().c_str(), 0777), 0);
    const std::string trace = folder_ / "trace";
    const std::string alicesPort = folder_ / "alice";
    Start({"--rate", "0", "--trace", trace, alicesPort + "=bitsurfr:5551001",
           folder_ / "bob=zyxel-2864:5551002"},
          0, true);
    const double cpuAtStart = ProcessCpuMs(tool_->Pid());
    ASSERT_GE(cpuAtStart, 0.0) << "the tool's processor time cannot be read";
    // Each program closes the port without clearing the mode, as the system
    // closes it for a killed program.
    {
        FarEnd alice(alicesPort);
        ASSERT_EQ(::ioctl(alice.Descriptor(), TIOCEXCL), 0);
        ASSERT_EQ(alice.Command("ATE0"), "ATE0\r\r\nOK\r\n");
    }
    EXPECT_TRUE(WaitForTrace(trace, "port left in exclusive mode", 1, 5000));
    EXPECT_EQ(TalkAsNobody(alicesPort, "AT\r", 6), "\r\nOK\r\n") << "E0 still holds";

    FarEnd& bob = Port("bob");
    {
        FarEnd alice(alicesPort);
        ASSERT_EQ(::ioctl(alice.Descriptor(), TIOCEXCL), 0);
        EXPECT_EQ(alice.Command("ATE1&D0"), "\r\nOK\r\n");
        EXPECT_TRUE(SetUpCall(alice, bob, "5551002"));
    }
    EXPECT_TRUE(WaitForTrace(trace, "port left in exclusive mode", 2, 5000));
    bob.Send("still in the call");
    EXPECT_EQ(TalkAsNobody(alicesPort, "so am I", 17), "still in the call");
    EXPECT_EQ(bob.ReceiveUntil("so am I", 3000), "so am I");
    EXPECT_LT(ProcessCpuMs(tool_->Pid()) - cpuAtStart, 500.0) << "the tool spun";
}

// Calls between two virtual-ta processes over TCP on loopback: Alice's
// adapter in one, Bob's and Carol's in the other, each process listening and
// routing the other's numbers to it. Seen from the ports, such a call is a
// call between two adapters of one process.
class CallsAway : public VirtualTaTest {
protected:
    // Bob's process runs unthrottled and traces, with the descriptors it is
    // allowed if bobsDescriptors is not 0; Alice's takes the extra options.
    // Her dials of Bob's numbers go through a relay, which a test may cut;
    // Carol's number is routed by a host name, which her tool looks up.
    // Over TLS, each tool has a key in the test's folder and knows the
    // other's line ID: Bob's as a peer, Alice's on her routes, where Bob's
    // tool is given bobAtAlice instead if that is not empty.
    void StartBoth(const std::vector<std::string>& aliceOptions, int bobsDescriptors = 0,
                   bool tls = false, const std::string& bobAtAlice = "") {
        // The tool of a start before goes first: ending, it takes its links
        // away, and one made meanwhile under the same name could go too.
        alicesTool_.reset();
        alicesPort_ = FreePort();
        const std::string alicePort = std::to_string(alicesPort_);
        std::string toAlice;
        std::string toBob;
        std::vector<std::string> bobsKeys;
        // Her own options come behind her key, which they may replace.
        std::vector<std::string> alices = aliceOptions;
        if (tls) {
            const std::string alicesId = ShowIdentity(VIRTUAL_TA_PATH, folder_ / "alice.key");
            const std::string bobsId = ShowIdentity(VIRTUAL_TA_PATH, folder_ / "bob.key");
            toAlice = "/" + alicesId;
            toBob = "/" + (bobAtAlice.empty() ? bobsId : bobAtAlice);
            bobsKeys = {"--identity", folder_ / "bob.key", "--peer", alicesId};
            alices.insert(alices.begin(), {"--identity", folder_ / "alice.key"});
        }
        Start(Concatenated({"--rate", "0", "--trace", bobsTrace_, "--listen", "127.0.0.1:0",
                            "--route", "5551001=127.0.0.1:" + alicePort + toAlice,
                            folder_ / "bob=zyxel-2864:5552002", folder_ / "carol=3com:5552003"},
                           bobsKeys),
              bobsDescriptors, false, ChildProcess::Errors::Kept);
        ASSERT_NE(ListeningPort(tool_->AllLines()), 0);
        relay_ = std::make_unique<TcpRelay>(ListeningPort(tool_->AllLines()));
        const std::string relayed = "127.0.0.1:" + std::to_string(relay_->Port()) + toBob;
        const std::vector<std::string> arguments = {
            "--rate", "0", "--listen", "127.0.0.1:" + alicePort, "--route", "5552002=" + relayed,
            "--route", "5552003=localhost:" + std::to_string(relay_->Port()) + toBob, "--route",
            "5559999=" + relayed,
            // Nobody listens there.
            "--route", "5550000=127.0.0.1:" + std::to_string(FreePort()) + toBob,
            folder_ / "alice=bitsurfr:5551001"};
        alicesTool_ = std::make_unique<ChildProcess>(
            VIRTUAL_TA_PATH, Concatenated(arguments, alices), "", ChildProcess::Errors::Kept);
        ASSERT_TRUE(alicesTool_->WaitForLine("ready", std::chrono::seconds(10)))
            << alicesTool_->ErrorText();
        alice_ = &Port("alice");
        bob_ = &Port("bob");
    }

    const std::string bobsTrace_ = folder_ / "bob.trace";
    std::unique_ptr<TcpRelay> relay_;
    std::unique_ptr<ChildProcess> alicesTool_;
    uint16_t alicesPort_ = 0;
    FarEnd* alice_ = nullptr;  // the ports of the two, open once both are ready
    FarEnd* bob_ = nullptr;
};

// In plain TCP, Alice's tool under --insecure, and over TLS: more than one
// message of the link holds, both ways at once; Bob calls back with a carrier
// code in front. A lost connection is NO CARRIER at both ends, and the next
// call goes through. A dial given up while Bob's tool, stopped, has not
// answered its TLS hello closes its connection at once.
TEST_F(CallsAway, ACallEachWayCarriesEveryByteInOrderAndALostOneEndsAtBothEnds) {
    for (const bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "TLS" : "plain");
        StartBoth(tls ? std::vector<std::string>{} : std::vector<std::string>{"--insecure"}, 0,
                  tls);
        CallEachWay(*alice_, *bob_, "5552002", "102885551001", RandomBytes(300000, 1),
                    RandomBytes(200000, 2));
        for (int round = 0; round < 2; ++round) {
            SCOPED_TRACE(round);
            ASSERT_TRUE(SetUpCall(*alice_, *bob_, "5552002"));
            ExpectCarried(*alice_, *bob_, "hello bob", "hello alice");
            relay_->Cut();
            EXPECT_EQ(alice_->ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");
            EXPECT_EQ(bob_->ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");
            EXPECT_EQ(alice_->Command("AT"), "AT\r\r\nOK\r\n");
            EXPECT_EQ(bob_->Command("AT"), "AT\r\r\nOK\r\n");
        }
        // Bob's trace is begun anew by each start: over TLS, it holds his
        // call back and the three calls to him.
        EXPECT_EQ(Occurrences(ReadWholeFile(bobsTrace_), "TLS with 127.0.0.1:"), tls ? 4u : 0u);
        // Alice's log tells of each of her calls in plain TCP, both ways.
        EXPECT_EQ(Occurrences(alicesTool_->ErrorText(), "in plain TCP (--insecure)"), tls ? 0u : 4u)
            << alicesTool_->ErrorText();
        if (tls) {
            const long descriptors = ProcessDescriptors(alicesTool_->Pid());
            const uint64_t carried = relay_->Carried();
            ASSERT_EQ(::kill(tool_->Pid(), SIGSTOP), 0);
            alice_->Send("ATD5552002\r");
            EXPECT_TRUE(
                PollUntil([&] { return relay_->Carried() > carried; }, std::chrono::seconds(3)));
            alice_->Send(" ");
            EXPECT_EQ(alice_->ReceiveUntil("NO CARRIER\r\n", 1000),
                      "ATD5552002\r\r\nNO CARRIER\r\n");
            EXPECT_TRUE(
                PollUntil([&] { return ProcessDescriptors(alicesTool_->Pid()) == descriptors; },
                          std::chrono::seconds(3)));
            ASSERT_EQ(::kill(tool_->Pid(), SIGCONT), 0);
        }
    }
}

// A stranger's tool calling Bob's is refused in the handshake, and so is
// Bob's by Alice's when her route names another ID for him: nothing rings
// Bob, Alice hears NO CARRIER, and each refusing tool logs the address and
// the ID that was offered, Bob's once for the stranger's three dials; the
// stranger's tool logs that it was refused. A handshake begun and never
// finished is closed as a silent connection is, and a hello that asks for a
// costly key exchange is refused at once; both are in the trace alone.
TEST_F(CallsAway, AStrangerAndAToolOfAnotherIdAreRefusedInTheHandshake) {
    const std::string strangersId = ShowIdentity(VIRTUAL_TA_PATH, folder_ / "stranger.key");
    for (const bool strangerCalls : {true, false}) {
        SCOPED_TRACE(strangerCalls ? "a stranger calls" : "another ID answers");
        if (strangerCalls) {
            StartBoth({"--identity", folder_ / "stranger.key"}, 0, true);
        } else {
            StartBoth({}, 0, true, strangersId);
        }
        const int halfway = SilentConnection(ListeningPort(tool_->AllLines()));
        // The first byte of a TLS handshake, and no more.
        ASSERT_EQ(::send(halfway, "\x16", 1, MSG_NOSIGNAL), 1);
        const int dials = strangerCalls ? 3 : 1;
        for (int dial = 0; dial < dials; ++dial) {
            ExpectFailedDial(*alice_, "5552002", "NO CARRIER");
        }
        EXPECT_EQ(bob_->ReceiveFor(300), "") << "no RING";
        if (strangerCalls) {
            const std::string refusal = "line ID " + strangersId + " is not a peer";
            EXPECT_TRUE(WaitForTrace(bobsTrace_, refusal, 3, 3000));
            EXPECT_EQ(Occurrences(tool_->ErrorText(), refusal), 1u) << tool_->ErrorText();
            EXPECT_EQ(Occurrences(alicesTool_->ErrorText(),
                                  "refused by 127.0.0.1:" + std::to_string(relay_->Port()) +
                                      ": the far tool does not take line ID " + strangersId),
                      3u)
                << alicesTool_->ErrorText();
            ChildProcess hello("/usr/bin/openssl",
                               {"s_client", "-tls1_3", "-groups", "ffdhe8192", "-connect",
                                "127.0.0.1:" + std::to_string(ListeningPort(tool_->AllLines()))},
                               "", ChildProcess::Errors::Kept);
            hello.CloseInput();
            EXPECT_NE(hello.WaitForExit(std::chrono::seconds(10)), 0);
            EXPECT_TRUE(WaitForTrace(bobsTrace_, "no suitable key share", 1, 3000));
            EXPECT_TRUE(WaitForTrace(bobsTrace_, "closed: no call set up within 5 s", 1, 10000));
            EXPECT_EQ(Occurrences(tool_->ErrorText(), "refused"), 1u) << tool_->ErrorText();
        } else {
            const std::string bobsId = ShowIdentity(VIRTUAL_TA_PATH, folder_ / "bob.key");
            EXPECT_NE(alicesTool_->ErrorText().find(
                          "refused by 127.0.0.1:" + std::to_string(relay_->Port()) + ": line ID " +
                          bobsId + " is not the route's " + strangersId),
                      std::string::npos)
                << alicesTool_->ErrorText();
        }
        ::close(halfway);
    }
}

// Alice's process runs at 16000 bytes per second and Bob's unthrottled: the
// slower sets the pace of a call between them, each way. Alice's gives up a
// ringing call after a second.
TEST_F(CallsAway, BusyUnknownAndUnreachableFailAsLocallyAndTheSlowerRatePacesTheCall) {
    StartBoth({"--rate", "16000", "--answer-wait", "1"});
    FarEnd& carol = Port("carol");
    ASSERT_TRUE(SetUpCall(carol, *bob_, "5552002"));
    ExpectFailedDial(*alice_, "5552002", "BUSY");        // in a call in the far process
    ExpectFailedDial(*alice_, "5559999", "NO CARRIER");  // routed there, but nobody's number
    ExpectFailedDial(*alice_, "5550000", "NO CARRIER");  // nobody listens at the route's address
    EXPECT_EQ(bob_->ReceiveFor(100), "") << "no RING in a call";
    ASSERT_TRUE(carol.HangUp());
    EXPECT_EQ(bob_->ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");

    // Unanswered: the caller's process gives up, and Bob's stops ringing.
    alice_->Send("ATD5552002\r");
    EXPECT_EQ(alice_->ReceiveUntil("NO CARRIER\r\n", 3000),
              "ATD5552002\r\r\nRINGING\r\n\r\nNO CARRIER\r\n");
    // The release travels over the connection: Bob answers a moment later.
    EXPECT_EQ(bob_->ReceiveFor(300), "\r\nRING\r\n");
    bob_->Send("ATA\r");
    EXPECT_EQ(bob_->ReceiveUntil("NO CARRIER\r\n", 1000), "ATA\r\r\nNO CARRIER\r\n");

    ASSERT_TRUE(SetUpCall(*alice_, carol, "5552003"));
    const std::string up = RandomBytes(24000, 3);
    const std::string down = RandomBytes(24000, 4);
    const Transfer transfer = TransferBothWays(*alice_, carol, up, down, 10000);
    EXPECT_TRUE(transfer.AtB == up);
    EXPECT_TRUE(transfer.AtA == down);
    // 24000 bytes at 16000 a second, less the 50 ms the line may hold.
    EXPECT_GE(transfer.Seconds, 1.4);
}

// Connections that never set up a call: a tool keeps at most 16 of them and
// none for more than 5 s, letting the longest-waiting go for a newer one.
// Bob's tool, allowed few descriptors, keeps some for its adapters, and at
// its limit takes no processor time; a routed call rings and connects all
// the same, also when it comes at once with the crowd (Bob's tool is stopped
// meanwhile), and through a crowd that speaks and never sets up a call.
TEST_F(CallsAway, ConnectionsWithoutACallAreCappedAndTimedOutAndARoutedCallStillGoesThrough) {
    const std::string alicesTrace = folder_ / "alice.trace";
    StartBoth({"--trace", alicesTrace}, 27);
    const double cpuBefore = ProcessCpuMs(tool_->Pid());
    const uint64_t start = MonotonicNs();
    std::vector<int> silent;
    ASSERT_EQ(::kill(tool_->Pid(), SIGSTOP), 0);
    for (const uint16_t port : {ListeningPort(tool_->AllLines()), alicesPort_}) {
        for (int i = 0; i < 40; ++i) {
            silent.push_back(SilentConnection(port));
            ASSERT_GE(silent.back(), 0);
        }
    }
    alice_->Send("ATD5552002\r");
    EXPECT_TRUE(PollUntil([&] { return relay_->Carried() > 0; }, std::chrono::seconds(3)));
    ASSERT_EQ(::kill(tool_->Pid(), SIGCONT), 0);
    // (The bytes of a routed call's set-up are the test of calls each way's.)
    ASSERT_TRUE(bob_->Answer(3000));
    ASSERT_NE(alice_->ReceiveUntil("CONNECT 115200\r\n", 3000).find("CONNECT"), std::string::npos);
    ExpectCarried(*alice_, *bob_, "through", "the crowd");
    ASSERT_TRUE(alice_->HangUp());
    EXPECT_EQ(bob_->ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");
    // Each is closed by the far end: its read ends without a byte.
    const auto closed = [](int fd) {
        pollfd entry{fd, POLLIN, 0};
        char byte = 0;
        return ::poll(&entry, 1, 0) == 1 && ::recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
    };
    EXPECT_TRUE(PollUntil([&] { return std::all_of(silent.begin(), silent.end(), closed); },
                          std::chrono::seconds(30)));
    for (const int fd : silent) {
        ::close(fd);
    }
    const double elapsedMs = static_cast<double>(MonotonicNs() - start) / 1e6;
    EXPECT_LT(ProcessCpuMs(tool_->Pid()) - cpuBefore, elapsedMs / 10) << "over " << elapsedMs;

    const std::string trace = ReadWholeFile(alicesTrace);
    EXPECT_EQ(Occurrences(trace, "closed: too many connections without a call"), 40u - 16u);
    EXPECT_EQ(Occurrences(trace, "closed: no call set up within 5 s"), 16u);

    // Then at Alice's tool, in plain TCP and then with keys, where each
    // opening begins a TLS hello: 200 connections at once that each stop
    // half-way through a setup, one that sends garbage, and one that
    // announces a whole frame or record and stops half-way. Bob's call still
    // goes through, over TLS with keys, and when they are gone Alice's tool
    // holds no more memory than before, nor did meanwhile.
    for (const bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "TLS" : "plain");
        if (tls) {
            StartBoth({"--trace", alicesTrace}, 27, true);
            // The first call over TLS brings the library's code and tables
            // in, which stay: what a crowd leaves is measured from after it.
            ASSERT_TRUE(SetUpCall(*bob_, *alice_, "5551001"));
            ASSERT_TRUE(bob_->HangUp());
            EXPECT_EQ(alice_->ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");
        }
        const long memoryBefore = ProcessMemoryKb(alicesTool_->Pid());
        const long peakBefore = ProcessMemoryKb(alicesTool_->Pid(), true);
        // A record of 192 bytes holding a ClientHello, of which only its
        // header and version come; a record of 16 KB, of which half comes.
        std::vector<std::string> openings(
            200, tls ? std::string("\x16\x03\x01\x00\xC0\x01\x00\x00\xBC\x03\x03", 11)
                     : std::string("S\x00\x28", 3) + "5551001 - 555");
        openings.push_back((tls ? "\x16" : "GET / HTTP/1.1\r\n") + RandomBytes(4000000, 5));
        openings.push_back((tls ? "\x16\x03\x01\x40\x00" + RandomBytes(8192, 6)
                                : "D\xFF\xFF" + RandomBytes(30000, 6)));
        std::vector<int> hostile;
        for (const std::string& opening : openings) {
            hostile.push_back(SilentConnection(alicesPort_));
            ASSERT_GE(hostile.back(), 0);
            ::send(hostile.back(), opening.data(), opening.size(), MSG_NOSIGNAL);
        }
        ASSERT_TRUE(SetUpCall(*bob_, *alice_, "5551001"));
        ExpectCarried(*bob_, *alice_, "through", "the crowd again");
        ASSERT_TRUE(bob_->HangUp());
        EXPECT_EQ(alice_->ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");
        // Each connection that brought no call ends with a line in the
        // trace, which each start begins anew.
        EXPECT_TRUE(PollUntil(
            [&] {
                const std::string ends = ReadWholeFile(alicesTrace);
                return Occurrences(ends, "too many connections without a call") +
                           Occurrences(ends, "no call set up within") +
                           Occurrences(ends, ": TLS handshake failed") ==
                       (tls ? 0 : silent.size() / 2) + hostile.size();
            },
            std::chrono::seconds(30)));
        EXPECT_EQ(Occurrences(ReadWholeFile(alicesTrace), "TLS with 127.0.0.1:"), tls ? 2u : 0u);
        // Meanwhile the tool held the 16 it keeps, each TLS one with some
        // 50 KB of buffers, never all 202.
        if (!VIRTUAL_TA_SANITIZED) {
            EXPECT_LT(ProcessMemoryKb(alicesTool_->Pid()) - memoryBefore, 1024);
            EXPECT_LT(ProcessMemoryKb(alicesTool_->Pid(), true) - peakBefore, tls ? 2048 : 1024);
        }
        for (const int fd : hostile) {
            ::close(fd);
        }
    }

    // Among connections that have all spoken, the address that holds the
    // most makes room out of its own: a crowd from 127.0.0.2 lets one of its
    // own go for its seventeenth, not the earlier one from 127.0.0.1.
    ASSERT_EQ(::kill(alicesTool_->Pid(), SIGSTOP), 0);
    std::vector<int> spoken;
    for (int i = 0; i < 17; ++i) {
        spoken.push_back(SilentConnection(alicesPort_, "127.0.0.1", i == 0 ? "" : "127.0.0.2"));
        ASSERT_GE(spoken.back(), 0);
        ASSERT_EQ(::send(spoken.back(), "S", 1, MSG_NOSIGNAL), 1);
    }
    ASSERT_EQ(::kill(alicesTool_->Pid(), SIGCONT), 0);
    EXPECT_TRUE(PollUntil([&] { return std::any_of(spoken.begin() + 1, spoken.end(), closed); },
                          std::chrono::seconds(3)));
    EXPECT_FALSE(closed(spoken[0]));
    for (const int fd : spoken) {
        ::close(fd);
    }
}

// The tool's exchange in the test's process, on a thread of its own: its
// lookups of host names wait until the test opens the gate, and its clock
// runs ahead of the real one by what the test adds, so that a time limit is
// crossed without waiting it out.
class HeldLookups : public VirtualTaTest {
protected:
    struct Gate {
        std::mutex Mutex;
        std::condition_variable Changed;
        bool Open = false;
        int Started = 0;
        std::vector<sockaddr_storage> Answer;
    };

    void StopExchange() {
        if (loop_.joinable()) {
            stop_ = true;
            MoveOn(0);
            loop_.join();
        }
        exchange_.reset();
        resolver_.reset();
    }

    void TearDown() override {
        // Lookups still held end now, answering nobody.
        SetGate(true, {});
        StopExchange();
        ::close(wake_);
    }

    // Wakes the loop, its clock moved on by ms.
    void MoveOn(uint64_t ms) {
        skippedMs_ += ms;
        const uint64_t one = 1;
        ASSERT_EQ(::write(wake_, &one, sizeof one), 8);
    }
    void SetGate(bool open, const std::vector<sockaddr_storage>& answer) {
        const std::lock_guard lock(gate_->Mutex);
        gate_->Open = open;
        gate_->Answer = answer;
        gate_->Changed.notify_all();
    }
    bool LookupsStarted(int count) {
        std::unique_lock lock(gate_->Mutex);
        return gate_->Changed.wait_for(lock, std::chrono::seconds(3),
                                       [&] { return gate_->Started == count; });
    }

    std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
    std::unique_ptr<virtual_ta::Resolver> resolver_;
    std::unique_ptr<virtual_ta::Exchange> exchange_;
    std::thread loop_;
    int wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> skippedMs_{0};
};

// The numbers dialled in the setups on the connections that the tool made
// to the listener, in the order they came, until none comes for a while.
std::string DialsTaken(int listener) {
    std::string dials;
    for (pollfd waiting{listener, POLLIN, 0}; ::poll(&waiting, 1, 500) == 1;) {
        const int fd = ::accept(listener, nullptr, nullptr);
        char setup[10] = {};
        if (fd >= 0 && ::recv(fd, setup, sizeof setup, MSG_WAITALL) == sizeof setup) {
            dials += std::string(setup + 3, 7) + " ";
        }
        ::close(fd);
    }
    return dials;
}

// A name server that never answers holds only the dial that waits on it: a
// call between two adapters of the same tool goes on meanwhile. The held
// dial, and one to a host that takes the connection and never answers, end
// in NO CARRIER at the time limit; a host's address that takes no connection
// gives way to the next at the limit; answers that come after their dial
// has gone, by the limit or by a hang-up, are dropped; and the tool ends
// with a lookup still held.
TEST_F(HeldLookups, ADialWaitingOnANameServerHoldsNoOtherCallAndFailsAtItsLimit) {
    std::string error;
    uint16_t silentPort = 0;
    const int silent = virtual_ta::ListenOn("127.0.0.1", silentPort, error);
    ASSERT_GE(silent, 0) << error;
    virtual_ta::Options options;
    ASSERT_TRUE(ParseArguments(
        {"--rate", "0", "--answer-wait", "120", "--route", "5559001=far.example:4000", "--route",
         "5559002=127.0.0.1:" + std::to_string(silentPort), folder_ / "alice=bitsurfr:5551001",
         folder_ / "bob=zyxel-2864:5551002", folder_ / "carol=3com:5551003"},
        options, error))
        << error;
    resolver_ =
        std::make_unique<virtual_ta::Resolver>([gate = gate_](const std::string&, uint16_t) {
            std::unique_lock lock(gate->Mutex);
            ++gate->Started;
            gate->Changed.notify_all();
            gate->Changed.wait(lock, [&] { return gate->Open; });
            return gate->Answer;
        });
    exchange_ = std::make_unique<virtual_ta::Exchange>(options, *resolver_);
    ASSERT_TRUE(exchange_->Open(error)) << error;
    loop_ = std::thread([this] {
        virtual_ta::RunEventLoop(*exchange_,
                                 {wake_,
                                  [this] {
                                      uint64_t count = 0;
                                      static_cast<void>(::read(wake_, &count, sizeof count));
                                      return stop_ ? std::optional<int>(0) : std::nullopt;
                                  }},
                                 [this] { return MonotonicNs() + skippedMs_ * 1000000; });
    });
    FarEnd& alice = Port("alice");
    FarEnd& bob = Port("bob");
    FarEnd& carol = Port("carol");
    alice.Send("ATD5559001\r");
    ASSERT_TRUE(LookupsStarted(1));
    ASSERT_TRUE(SetUpCall(bob, carol, "5551003"));
    ExpectCarried(bob, carol, RandomBytes(100000, 1), RandomBytes(100000, 2));
    ASSERT_TRUE(bob.HangUp());
    EXPECT_EQ(carol.ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");
    carol.Send("ATD5559002\r");
    EXPECT_EQ(carol.ReceiveUntil("\r", 1000), "ATD5559002\r");
    MoveOn(3000);
    EXPECT_EQ(alice.ReceiveFor(300), "ATD5559001\r");
    EXPECT_EQ(carol.ReceiveFor(0), "");
    MoveOn(7000);
    EXPECT_EQ(alice.ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");
    EXPECT_EQ(carol.ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");

    alice.Send("ATD5559001\r");
    ASSERT_TRUE(LookupsStarted(2));
    alice.Send(" ");
    EXPECT_EQ(alice.ReceiveUntil("NO CARRIER\r\n", 1000), "ATD5559001\r\r\nNO CARRIER\r\n");
    EXPECT_EQ(DialsTaken(silent), "5559002 ");
    // Both held lookups answer now: first an address whose listener's queue
    // is full, so that a connection to it waits for ever, then the silent
    // host's. A third dial tries the second at the first's time limit, and
    // no other dial reaches it.
    uint16_t stuckPort = 0;
    const int stuck = virtual_ta::ListenOn("127.0.0.1", stuckPort, error);
    ASSERT_TRUE(stuck >= 0 && ::listen(stuck, 0) == 0) << error;
    const int filler = SilentConnection(stuckPort);
    std::vector<sockaddr_storage> addresses = virtual_ta::FindAddresses("127.0.0.1", stuckPort, 0);
    addresses.push_back(virtual_ta::FindAddresses("127.0.0.1", silentPort, 0).front());
    SetGate(true, addresses);
    alice.Send("ATD5559001\r");
    EXPECT_EQ(alice.ReceiveUntil("\r", 1000), "ATD5559001\r");
    EXPECT_TRUE(PollUntil(
        [&] {
            MoveOn(5000);
            pollfd waiting{silent, POLLIN, 0};
            return ::poll(&waiting, 1, 200) == 1;
        },
        std::chrono::seconds(5)));
    EXPECT_EQ(DialsTaken(silent), "5559001 ");
    for (const int fd : {silent, stuck, filler}) {
        ::close(fd);
    }

    SetGate(false, {});
    carol.Send("ATD5559001\r");
    ASSERT_TRUE(LookupsStarted(4));
    StopExchange();
}

}  // namespace

}  // namespace kb::test
