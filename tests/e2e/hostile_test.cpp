// A peer that sends a receiving station what no sound sender would: unsafe
// names, impossible counts and lengths, records cut short, tokens in pieces,
// endless lines and noise. The station refuses what it must with its log
// line, files what it may only inside "Incoming Files", and takes a normal
// call afterwards.

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "peer_fixture.h"
#include "platform/files.h"

namespace {

class HostilePeer : public PeerAndStation {
protected:
    // Dials the station and exchanges SYNCON and RCVCON.
    void Call() {
        ASSERT_TRUE(port->Dial("5552002"));
        port->Send("SYNCON\r\n");
        ASSERT_EQ(port->ReceiveUntil("RCVCON\r\n", 5000), "RCVCON\r\n");
    }

    // Hangs up, whoever has not yet, and waits until the station is idle.
    void EndCall() {
        EXPECT_TRUE(port->HangUp());
        ASSERT_TRUE(station->WaitForLog("Disconnected")) << Log();
        ASSERT_EQ(station->Command("wait-state idle 30"), "ok");
    }

    std::string Log() const {
        std::string all;
        for (const std::string& line : station->LogLines()) {
            all += line + "\n";
        }
        return all;
    }

    // A plain session after all the rest: the station is unharmed.
    void ExpectANormalCallStillWorks() {
        const std::vector<peer::File> files = {{"after.txt", RandomBytes(30000, 31)}};
        ASSERT_TRUE(port->Dial("5552002"));
        EXPECT_EQ(peer::SendSession(*port, files), "");
        EndCall();
        EXPECT_TRUE(Incoming("after.txt") == files[0].bytes);
    }

    static void Pause() { std::this_thread::sleep_for(std::chrono::milliseconds(60)); }
};

}  // namespace

TEST_F(HostilePeer, NamesAreMadeSafeAndNothingLandsOutsideIncomingFiles) {
    const auto before = PathsOutsideIncoming();
    const std::string longName(31, 'n');
    const std::vector<peer::File> files = {
        {"../escape.txt", "up and out"},
        {"a/b.txt", "into a folder"},
        {"back\\slash.txt", "the other slash"},
        {std::string("ctl\x01\x1f.txt"), "control bytes"},
        {"..", "the folder above"},
        {longName, "a name of 31 characters"},
    };
    ASSERT_TRUE(port->Dial("5552002"));
    EXPECT_EQ(peer::SendSession(*port, files, "../up"), "");
    EndCall();
    EXPECT_EQ(Incoming(".._up/.._escape.txt"), "up and out");
    EXPECT_EQ(Incoming(".._up/a_b.txt"), "into a folder");
    EXPECT_EQ(Incoming(".._up/back_slash.txt"), "the other slash");
    EXPECT_EQ(Incoming(".._up/ctl__.txt"), "control bytes");
    EXPECT_EQ(Incoming(".._up/_"), "the folder above");
    EXPECT_EQ(Incoming(".._up/" + longName), "a name of 31 characters");

    // Every token and record in pieces, with pauses between them.
    const std::string data = RandomBytes(20000, 32);
    const uint32_t length = peer::StreamLength(data.size());
    const std::string list = peer::Header(1, length) + peer::Entry("split.txt", 0, length, length);
    const std::string stream = peer::Stream(data);
    ASSERT_TRUE(port->Dial("5552002"));
    port->Send("SYN");
    Pause();
    port->Send("CON\r\n");
    ASSERT_EQ(port->ReceiveUntil("RCVCON\r\n", 5000), "RCVCON\r\n");
    port->Send("H1");
    Pause();
    port->Send("00\r\n" + list.substr(0, 10));
    Pause();
    port->Send(list.substr(10, 40));
    Pause();
    port->Send(list.substr(50));
    ASSERT_EQ(port->ReceiveUntil("\r\n", 5000), "ACK3\r\n");
    port->Send(stream.substr(0, 7000));
    Pause();
    port->Send(stream.substr(7000));
    EXPECT_EQ(port->ReceiveUntil("\r\n", 5000), "ACK2\r\n");
    EndCall();
    EXPECT_TRUE(Incoming("split.txt") == data);
    EXPECT_EQ(PathsOutsideIncoming(), before);
}

TEST_F(HostilePeer, ListsThatCannotBeRightAreRefusedEachWithItsLogLine) {
    const auto before = PathsOutsideIncoming();
    const std::string one = peer::Entry("one.txt", 0, 1002, 1002);
    struct Case {
        const char* what;
        std::string records;
        const char* reply;  // the token that answers, "" for none
        const char* logLine;
    };
    const std::vector<Case> cases = {
        {"101 files", peer::Header(101, 0), "NAK4\r\n", "Corrupted file list."},
        {"2^32-1 files", peer::Header(0xFFFFFFFFu, 0), "NAK4\r\n", "Corrupted file list."},
        {"a data length of 2^28", peer::Header(1, 0) + peer::Entry("huge", 0, 0, 1u << 28),
         "NAK4\r\n", "Corrupted file list."},
        {"a data length of 2^32-1", peer::Header(1, 0) + peer::Entry("huger", 0, 0, 0xFFFFFFFFu),
         "NAK4\r\n", "Corrupted file list."},
        {"a short list", peer::Header(2, 2004) + one, "NAK4\r\n", "Corrupted file list."},
        {"a short header", peer::Header(1, 1002).substr(0, 10), "", "Read Buffer Timeout"},
        {"no files at all", peer::Header(0, 0), "ACK2\r\n", "All files received."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Call();
        port->Send("H100\r\n" + c.records);
        const std::string reply = port->ReceiveUntil("\r\n", 3000);
        EXPECT_EQ(reply, c.reply);
        EXPECT_TRUE(station->WaitForLog(c.logLine)) << Log();
        EndCall();
    }

    // A wrong magic number: the station hangs up at once.
    Call();
    port->Send("H100\r\n" + peer::Header(1, 1002, 0x0055AAFFu) + one);
    EXPECT_NE(port->ReceiveUntil("NO CARRIER", 15000).find("NO CARRIER"), std::string::npos);
    ASSERT_TRUE(station->WaitForLog("Disconnected"));
    ASSERT_EQ(station->Command("wait-state idle 30"), "ok");

    // A hundred files is the most a list may hold.
    std::vector<peer::File> hundred;
    for (int i = 0; i < 100; ++i) {
        hundred.push_back({"e" + std::to_string(i), ""});
    }
    ASSERT_TRUE(port->Dial("5552002"));
    EXPECT_EQ(peer::SendSession(*port, hundred), "");
    EndCall();
    EXPECT_TRUE(PathExists(stationPath + "/Incoming Files/e0"));
    EXPECT_TRUE(PathExists(stationPath + "/Incoming Files/e99"));
    EXPECT_FALSE(PathExists(stationPath + "/Incoming Files/one.txt"));
    EXPECT_FALSE(PathExists(stationPath + "/Incoming Files/huge"));
    EXPECT_EQ(PathsOutsideIncoming(), before);
    ExpectANormalCallStillWorks();
}

TEST_F(HostilePeer, EndlessLinesAndNoiseHarmNothing) {
    const auto before = PathsOutsideIncoming();
    for (const size_t length : {size_t{1023}, size_t{1024}, size_t{5000}}) {
        SCOPED_TRACE(length);
        ASSERT_TRUE(port->Dial("5552002"));
        port->Send(std::string(length, 'x') + "\r\n");
        port->Send(std::string(length, 'y') + "SYNCON" + std::string(length, 'z'));
        port->ReceiveFor(500);
        EndCall();
    }
    ASSERT_TRUE(port->Dial("5552002"));
    port->Send(RandomBytes(65536, 33));
    port->ReceiveFor(500);
    EndCall();
    EXPECT_EQ(PathsOutsideIncoming(), before);
    ExpectANormalCallStillWorks();
}

// The station sends; the peer answers the list with a FILERESTA3 whose body
// stops halfway.
TEST_F(HostilePeer, ARecoveryBodyCutShortEndsTheSendersCall) {
    ASSERT_TRUE(CreateFolder(root / "samples"));
    WriteWholeFile(root / "samples/out.bin", RandomBytes(50000, 34));
    ASSERT_EQ(station->Command("choose " + (root / "samples/out.bin")), "ok");
    ASSERT_EQ(station->Command("name Peer"), "ok");
    ASSERT_EQ(station->Command("number 5553003"), "ok");
    ASSERT_EQ(station->Command("send"), "ok");
    ASSERT_TRUE(port->Answer(30000));
    ASSERT_NE(port->ReceiveUntil("SYNCON\r\n", 5000).find("SYNCON"), std::string::npos);
    port->Send("RCVCON\r\n");
    ASSERT_NE(port->ReceiveUntil("H100\r\n", 5000).find("H100"), std::string::npos);
    ASSERT_EQ(port->Receive(28 + 56, 3000).size(), 28u + 56u);
    port->Send("FILERESTA3\r\n" + std::string(40, '\0'));
    EXPECT_TRUE(station->WaitForLog("Read Buffer Timeout")) << Log();
    EXPECT_NE(port->ReceiveUntil("NO CARRIER", 15000).find("NO CARRIER"), std::string::npos);
    ASSERT_TRUE(station->WaitForLog("Disconnected")) << Log();
    ASSERT_EQ(station->Command("wait-state idle 30"), "ok");
    // The file stays in the list, whole, for the next call.
    EXPECT_NE(station->ShowControl("IDC_FILE_LIST").find("out.bin"), std::string::npos);
}
