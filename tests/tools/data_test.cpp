// Data mode: what passes over a connected call, the escape to command mode
// and the hang-up, the faults, and the pace of the line.

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "platform/clock.h"
#include "vta_harness.h"

namespace kb::test {

namespace {

class VirtualTaDataMode : public VirtualTaTest {
protected:
    // Alice (a BitSURFR) and Bob (a ZyXEL), connected, both ports at 115200,
    // the line unthrottled.
    void Connect(const std::vector<std::string>& extra = {}) {
        Start(Concatenated(
            {"--rate", "0", folder_ / "alice=bitsurfr:5551001", folder_ / "bob=zyxel-2864:5551002"},
            extra));
        alice_ = &Port("alice");
        bob_ = &Port("bob");
        ASSERT_TRUE(SetUpCall(*alice_, *bob_, "5551002"));
    }

    // Alice writes the bytes as fast as her port takes them, until it has
    // taken nothing for 300 ms or has taken them all; how many it took.
    size_t SendUntilHeldBack(const std::string& bytes) {
        size_t written = 0;
        while (written < bytes.size()) {
            const ssize_t n =
                ::write(alice_->Descriptor(), bytes.data() + written, bytes.size() - written);
            pollfd entry{alice_->Descriptor(), POLLOUT, 0};
            if (n > 0) {
                written += static_cast<size_t>(n);
            } else if (::poll(&entry, 1, 300) == 0) {
                break;
            }
        }
        return written;
    }

    FarEnd* alice_ = nullptr;
    FarEnd* bob_ = nullptr;
};

// "+++" escapes only with silence before and after it; online command mode
// holds the far end's data until ATO, and a hang-up from it puts NO CARRIER
// behind the data at the far end.
TEST_F(VirtualTaDataMode, AnEscapeNeedsSilenceAroundItAndHoldsTheFarEndsDataUntilATOOrATH) {
    Connect();
    // Inside a run, and right behind other bytes with silence after.
    ExpectCarried(*alice_, *bob_, "abc+++def", "");
    ExpectCarried(*alice_, *bob_, "xyz+++", "");
    EXPECT_EQ(alice_->ReceiveFor(800), "") << "no escape without silence before it";
    // After silence, but with more bytes behind it within the guard time.
    alice_->Send("+++");
    ::usleep(150000);
    alice_->Send("more");
    EXPECT_EQ(bob_->Receive(7, 1500), "+++more");
    EXPECT_EQ(alice_->ReceiveFor(800), "") << "no escape without silence after it";
    // Four of them are no escape either.
    ::usleep(600000);
    alice_->Send("++++");
    EXPECT_EQ(bob_->Receive(4, 1500), "++++");
    EXPECT_EQ(alice_->ReceiveFor(700), "");

    // The three "+" may come one by one within the guard time.
    ::usleep(600000);
    for (int i = 0; i < 3; ++i) {
        alice_->Send("+");
        ::usleep(100000);
    }
    ASSERT_EQ(alice_->ReceiveUntil("OK\r\n", 2250), "\r\nOK\r\n");
    bob_->Send("sent while alice talks to her adapter");
    EXPECT_EQ(alice_->Command("AT"), "AT\r\r\nOK\r\n") << "nothing of Bob's in between";
    EXPECT_EQ(alice_->Command("ATD5551002"), "ATD5551002\r\r\nERROR\r\n") << "one call at a time";
    alice_->Send("ATO\r");
    EXPECT_EQ(alice_->ReceiveUntil("CONNECT 115200\r\n", 1000), "ATO\r\r\nCONNECT 115200\r\n");
    const Transfer transfer = TransferBothWays(*alice_, *bob_, "back", "", 2000);
    EXPECT_EQ(transfer.AtA, "sent while alice talks to her adapter");
    EXPECT_EQ(transfer.AtB, "back");

    // Alice's data waits in Bob's port, unread, while she escapes and hangs up.
    const std::string data = RandomBytes(5000, 4);
    alice_->Send(data);
    ::usleep(650000);
    const platform::MonotonicClock clock;
    const uint32_t sent = clock.NowMs();
    alice_->Send("+++");
    EXPECT_EQ(alice_->ReceiveUntil("OK\r\n", 2250), "\r\nOK\r\n");
    const uint32_t took = clock.NowMs() - sent;
    EXPECT_GE(took, 450u) << "the OK comes only after the silence behind +++";
    EXPECT_LE(took, 2250u);
    // Command mode within the call.
    EXPECT_EQ(alice_->Command("ATI0"), "ATI0\r\r\n960\r\nOK\r\n");
    EXPECT_EQ(alice_->Command("ATH"), "ATH\r\r\nOK\r\n");
    // Bob gets all of Alice's data, no "+", and NO CARRIER behind it.
    EXPECT_EQ(bob_->ReceiveUntil("NO CARRIER\r\n", 2000), data + "\r\nNO CARRIER\r\n");
}

// A far end that does not read holds the sender back, and loses nothing of
// what it reads later. A program's purge throws away what waits in its port,
// as a port's driver throws away what it has not sent; the adapter hears of
// it. An escape after the pause then reaches the adapter although the far end
// takes nothing and the line is full, as it reaches one that holds its port
// back by hardware handshake.
TEST_F(VirtualTaDataMode, NoByteIsLostOnAFullLineAndAPurgeEmptiesThePortForAnEscape) {
    Connect();
    std::string bytes = RandomBytes(1 << 20, 3);
    // Bob reads nothing: Alice's port takes a little and then holds her back.
    size_t written = SendUntilHeldBack(bytes);
    EXPECT_LT(written, bytes.size() / 4) << "the sender was not held back";
    // Now Bob reads, and Alice sends the rest as her port takes it.
    std::string atBob;
    std::thread reader([&] { atBob = bob_->Receive(bytes.size(), 20000); });
    alice_->Send(std::string_view(bytes).substr(written));
    reader.join();
    EXPECT_TRUE(atBob == bytes) << atBob.size() << " bytes arrived";

    // Held back again, Alice purges her port.
    bytes = RandomBytes(1 << 20, 5);
    written = SendUntilHeldBack(bytes);
    ASSERT_LT(written, bytes.size());
    ASSERT_EQ(::tcflush(alice_->Descriptor(), TCOFLUSH), 0);
    ::usleep(650000);
    alice_->Send("+++");
    EXPECT_EQ(alice_->ReceiveUntil("OK\r\n", 2250), "\r\nOK\r\n");
    EXPECT_EQ(alice_->Command("ATH"), "ATH\r\r\nOK\r\n");
    // Bob gets what the adapter had taken before the purge, and NO CARRIER.
    const std::string end = "\r\nNO CARRIER\r\n";
    atBob = bob_->ReceiveUntil(end, 5000);
    ASSERT_GE(atBob.size(), end.size());
    const size_t carried = atBob.size() - end.size();
    EXPECT_LT(carried, written);
    EXPECT_TRUE(atBob == bytes.substr(0, carried) + end);
}

TEST_F(VirtualTaDataMode, FaultsActAtTheirOffsetsOnceAndInOrder) {
    Connect({"--fault", "corrupt:5551002:0", "--fault", "corrupt:5551001:100", "--fault",
             "corrupt:5551001:7000", "--fault", "drop:5551001:9000"});
    // Bob's first byte arrives with one bit flipped.
    const std::string fromBob = RandomBytes(500, 5);
    std::string flipped = fromBob;
    flipped[0] = static_cast<char>(flipped[0] ^ 0x01);
    EXPECT_EQ(TransferBothWays(*alice_, *bob_, "", fromBob, 2000).AtA, flipped);

    // Alice's bytes 100 and 7000 are flipped, and the line falls after 9000.
    // What she sends beyond reaches her adapter in command mode; it holds no
    // "A", so that none of it starts a command line there.
    std::string fromAlice = RandomBytes(12000, 6);
    std::replace(fromAlice.begin(), fromAlice.end(), 'A', 'B');
    std::replace(fromAlice.begin(), fromAlice.end(), 'a', 'B');
    alice_->Send(fromAlice);
    const std::string atBob = bob_->ReceiveUntil("NO CARRIER\r\n", 3000);
    std::string expected = fromAlice.substr(0, 9000) + "\r\nNO CARRIER\r\n";
    expected[100] = static_cast<char>(expected[100] ^ 0x01);
    expected[7000] = static_cast<char>(expected[7000] ^ 0x01);
    EXPECT_TRUE(atBob == expected) << atBob.size() << " bytes arrived";
    EXPECT_EQ(alice_->ReceiveUntil("NO CARRIER\r\n", 2000), "\r\nNO CARRIER\r\n");

    // Both are back in command mode; the next call is clean each way, past
    // every offset of the spent faults.
    alice_->ReceiveFor(200);
    bob_->ReceiveFor(200);
    ASSERT_TRUE(SetUpCall(*alice_, *bob_, "5551002"));
    ExpectCarried(*alice_, *bob_, RandomBytes(10000, 1), RandomBytes(10000, 2));
}

// Noise garbles bytes at places that follow from the seed alone: two lines
// with the same seed garble the same bytes, another seed others, about P of
// them each, and a tiny P none in a call's worth of bytes.
TEST_F(VirtualTaDataMode, NoiseGarblesTheSameBytesForTheSameSeed) {
    Start({"--rate", "0", "--fault", "noise:11:0.01:7", "--fault", "noise:12:0.01:7", "--fault",
           "noise:13:1e-2:8", "--fault", "noise:21:1e-9", folder_ / "caller1=bitsurfr:11",
           folder_ / "answerer1=zyxel-2864:21", folder_ / "caller2=bitsurfr:12",
           folder_ / "answerer2=zyxel-2864:22", folder_ / "caller3=bitsurfr:13",
           folder_ / "answerer3=zyxel-2864:23"});
    const std::string bytes = RandomBytes(100000, 9);
    std::vector<std::vector<size_t>> garbled;
    for (const char* n : {"1", "2", "3"}) {
        FarEnd& caller = Port(std::string("caller") + n);
        FarEnd& answerer = Port(std::string("answerer") + n);
        ASSERT_TRUE(SetUpCall(caller, answerer, std::string("2") + n));
        const Transfer transfer = TransferBothWays(caller, answerer, bytes, bytes, 10000);
        ASSERT_EQ(transfer.AtB.size(), bytes.size()) << "noise changes bytes, it loses none";
        ASSERT_EQ(transfer.AtA.size(), bytes.size());
        if (*n == '1') {
            EXPECT_TRUE(transfer.AtA == bytes) << "P = 1e-9 garbled a byte of 100000";
        }
        garbled.emplace_back();
        for (size_t i = 0; i < bytes.size(); ++i) {
            if (transfer.AtB[i] != bytes[i]) {
                garbled.back().push_back(i);
            }
        }
        EXPECT_GT(garbled.back().size(), 800u);
        EXPECT_LT(garbled.back().size(), 1200u);
    }
    EXPECT_EQ(garbled[0], garbled[1]);
    EXPECT_NE(garbled[0], garbled[2]);
}

using VirtualTaLineRate = VirtualTaTest;

// Four calls at once, each end set up by one of the program's profiles or
// left as it starts. A call carries the rate once per channel it bundles,
// seven eighths of that at 56K; each carries two seconds of line both ways.
TEST_F(VirtualTaLineRate, TwoChannelsNeedBothEndsAnd56KCarriesSevenEighths) {
    const struct {
        const char* Caller;
        const char* CallerProfile;  // "" for none
        const char* Answerer;
        const char* AnswererProfile;
        size_t BytesPerSecond;
        const char* Why;
    } calls[] = {
        {"bitsurfr", "AT\\Q3%A2=3&M0%A4=0S0=0S12=25&D0&C1W1E1@M2=P@B0=2&R1", "adtran-xr",
         "AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1", 20000, "two channels, AIMUX at both ends"},
        {"adtran-xrt", "AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1", "bitsurfr",
         "AT\\Q3%A2=2%A4=0S0=0S12=25&D0&C1W1E1", 10000, "one: the answerer does not bundle"},
        {"zyxel-2864", "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1&J3&K00", "zyxel-omninet",
         "AT&H3&D0&C1&E0&S0Q0E1V1B20&O2S0=0X1&J3&K00", 17500, "two channels, one end at 56K"},
        {"bitsurfr", "", "zyxel-2864", "", 10000, "one channel at 64K, as adapters start"},
    };
    std::vector<std::string> arguments = {"--rate", "10000"};
    for (size_t i = 0; i < std::size(calls); ++i) {
        const std::string n = std::to_string(i);
        arguments.push_back(folder_ / ("caller" + n + "=" + calls[i].Caller + ":1" + n));
        arguments.push_back(folder_ / ("answerer" + n + "=" + calls[i].Answerer + ":2" + n));
    }
    Start(arguments);
    const auto setUp = [](FarEnd& port, const char* profile) {
        return *profile == 0 || port.Command(profile) == std::string(profile) + "\r\r\nOK\r\n";
    };
    std::vector<std::thread> lines;
    std::vector<Transfer> transfers(std::size(calls));
    std::vector<std::string> sent;
    for (size_t i = 0; i < std::size(calls); ++i) {
        const std::string n = std::to_string(i);
        FarEnd& caller = Port("caller" + n);
        FarEnd& answerer = Port("answerer" + n);
        ASSERT_TRUE(setUp(caller, calls[i].CallerProfile)) << calls[i].Why;
        ASSERT_TRUE(setUp(answerer, calls[i].AnswererProfile)) << calls[i].Why;
        ASSERT_TRUE(SetUpCall(caller, answerer, "2" + n)) << calls[i].Why;
        sent.push_back(RandomBytes(2 * calls[i].BytesPerSecond, static_cast<uint32_t>(i)));
    }
    for (size_t i = 0; i < std::size(calls); ++i) {
        lines.emplace_back([&, i] {
            transfers[i] =
                TransferBothWays(*ports_[2 * i], *ports_[2 * i + 1], sent[i], sent[i], 10000);
        });
    }
    for (size_t i = 0; i < std::size(calls); ++i) {
        lines[i].join();
        SCOPED_TRACE(calls[i].Why);
        EXPECT_TRUE(transfers[i].AtB == sent[i]);
        EXPECT_TRUE(transfers[i].AtA == sent[i]);
        EXPECT_NEAR(transfers[i].Seconds, 2.0, 0.2);
    }
}

}  // namespace

}  // namespace kb::test
