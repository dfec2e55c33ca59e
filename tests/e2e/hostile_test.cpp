// A peer that sends a receiving station what no sound sender would: unsafe
// names, impossible counts and lengths, records cut short, tokens in pieces,
// endless lines and noise. The station refuses what it must with its log
// line, files what it may only inside "Incoming Files", and takes a normal
// call afterwards.

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "peer_fixture.h"

namespace kb::test {

using namespace kb::platform;

namespace {

class HostilePeer : public PeerAndStation {
protected:
    long Count(const std::string& line) { return station_->Count(line); }

    // The station sends its one file, out.bin: the peer answers its call and
    // takes the offer up to the list.
    void TakeTheOffer() {
        ASSERT_NO_FATAL_FAILURE(CallThePeer());
        ASSERT_NE(port_->ReceiveUntil("SYNCON\r\n", 5000).find("SYNCON"), std::string::npos);
        port_->Send("RCVCON\r\n");
        ASSERT_NE(port_->ReceiveUntil("H100\r\n", 5000).find("H100"), std::string::npos);
        ASSERT_EQ(port_->Receive(28 + 56, 3000).size(), 28u + 56u);
    }

    // A gap between two pieces of one token or record: longer than a token
    // read waits, shorter than a block read's limit on silence.
    static void ShortPause() { std::this_thread::sleep_for(std::chrono::milliseconds(60)); }
    static void LongPause() { std::this_thread::sleep_for(std::chrono::milliseconds(700)); }
};

}  // namespace

TEST_F(HostilePeer, NamesAreMadeSafeAndNothingLandsOutsideIncomingFiles) {
    const auto before = PathsOutsideIncoming();
    const std::string longName(31, 'n');
    // What is sent, and the name it is filed under in the folder ".._up".
    const std::vector<std::pair<peer::File, std::string>> names = {
        {{"../escape.txt", "up and out"}, ".._escape.txt"},
        {{"a/b.txt", "into a folder"}, "a_b.txt"},
        {{"back\\slash.txt", "the other slash"}, "back_slash.txt"},
        {{std::string("ctl\x01\x1f\x7f.txt"), "control bytes"}, "ctl___.txt"},
        {{"..", "the folder above"}, "_"},
        {{".", "this folder"}, "_-A"},
        {{longName, "a name of 31 characters"}, longName},
        {{"", "no name at all"}, "_-B"},
    };
    std::vector<peer::File> files;
    for (const auto& [file, filed] : names) {
        files.push_back(file);
    }
    PeerSends(files, "../up");
    for (const auto& [file, filed] : names) {
        EXPECT_EQ(Incoming(".._up/" + filed), file.Bytes) << filed;
    }
    EXPECT_EQ(Count("Created new folder: .._up"), 1);

    // A name field of 32 characters with no terminator loses its last one,
    // and the name of 31 that is left, taken already, keeps 29 in front of its
    // suffix. Every token and record comes in pieces, some further apart than
    // a token read waits.
    WriteWholeFile(stationPath_ + "/Incoming Files/" + longName, "here before");
    const std::string data = RandomBytes(20000, 32);
    const uint32_t length = peer::StreamLength(data.size());
    std::string entry = peer::Entry(longName, 0, length, length);
    entry[31] = 'Z';
    const std::string list = peer::Header(1, length) + entry;
    const std::string stream = peer::Stream(data);
    ASSERT_TRUE(port_->Dial("5552002"));
    port_->Send("SYN");
    LongPause();
    port_->Send("CON\r\n");
    ASSERT_EQ(port_->ReceiveUntil("RCVCON\r\n", 5000), "RCVCON\r\n");
    port_->Send("H1");
    LongPause();
    port_->Send("00\r\n" + list.substr(0, 10));
    ShortPause();
    port_->Send(list.substr(10, 40));
    ShortPause();
    port_->Send(list.substr(50));
    ASSERT_EQ(port_->ReceiveUntil("\r\n", 5000), "ACK3\r\n");
    port_->Send(stream.substr(0, 7000));
    ShortPause();
    port_->Send(stream.substr(7000));
    EXPECT_EQ(port_->ReceiveUntil("\r\n", 5000), "ACK2\r\n");
    EndCall();
    EXPECT_TRUE(Incoming(longName.substr(0, 29) + "-A") == data);
    EXPECT_EQ(Incoming(longName), "here before");
    EXPECT_EQ(Count("Receiving File: " + longName.substr(0, 29) + "-A"), 1);
    EXPECT_EQ(PathsOutsideIncoming(), before);
}

// Endless lines and noise harm nothing, and lists that cannot be right are
// refused each with its log line, all in one call.
TEST_F(HostilePeer, EndlessLinesNoiseAndListsThatCannotBeRightAreRefused) {
    const auto before = PathsOutsideIncoming();
    Call();
    // A line of 1023 bytes with its CR LF is the longest that is read whole.
    port_->Send(std::string(1015, 'x') + "SYNCON\r\n");
    EXPECT_EQ(port_->ReceiveUntil("\r\n", 3000), "RCVCON\r\n");
    EXPECT_EQ(Count("Serial Limit Reached"), 0);
    // One byte more and the read gives up, with its log line.
    port_->Send(std::string(1022, 'x') + "\r\n");
    ASSERT_TRUE(station_->WaitForLog("Serial Limit Reached")) << LogText();
    Resync();
    EXPECT_EQ(Count("Serial Limit Reached"), 1);
    // Far longer lines, without any line end, and a token lost inside one:
    // the read gives up on each piece, and says so once a call.
    port_->Send(std::string(5000, 'y') + "SYNCON" + std::string(5000, 'z'));
    Resync();
    EXPECT_EQ(Count("Serial Limit Reached"), 1);
    // Noise of every byte value.
    port_->Send(RandomBytes(65536, 33));
    Resync();
    const std::string one = peer::Entry("one.txt", 0, 1002, 1002);
    struct Case {
        const char* What;
        std::string Records;
        const char* Reply;  // the token that answers, "" for none
        const char* LogLine;
    };
    const std::vector<Case> cases = {
        {"101 files", peer::Header(101, 0), "NAK4\r\n", "Corrupted file list."},
        {"2^32-1 files", peer::Header(0xFFFFFFFFu, 0), "NAK4\r\n", "Corrupted file list."},
        {"a data length of 2^28", peer::Header(1, 0) + peer::Entry("huge", 0, 0, 1u << 28),
         "NAK4\r\n", "Corrupted file list."},
        {"a data length of 2^32-1", peer::Header(1, 0) + peer::Entry("huger", 0, 0, 0xFFFFFFFFu),
         "NAK4\r\n", "Corrupted file list."},
        {"a length no file has", peer::Header(1, 131073) + peer::Entry("odd", 0, 131073, 131073),
         "NAK4\r\n", "Corrupted file list."},
        {"a folder marker behind a file", peer::Header(2, 1002) + one + peer::Entry("F", 1, 0, 0),
         "NAK4\r\n", "Corrupted file list."},
        {"a short list", peer::Header(2, 2004) + one, "NAK4\r\n", "Corrupted file list."},
        {"a short header", peer::Header(1, 1002).substr(0, 10), "", "Read Buffer Timeout"},
        {"no files at all", peer::Header(0, 0), "ACK2\r\n", "All files received."},
    };
    // All in the same call: a refused list leaves the call open for another.
    const long timeouts = Count("Read Buffer Timeout");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.What);
        const long seen = Count(c.LogLine);
        port_->Send("H100\r\n" + c.Records);
        ASSERT_TRUE(station_->WaitForLog(c.LogLine)) << LogText();
        if (*c.Reply != '\0') {
            // The next token, past any RCVCON that a repeated SYNCON brought.
            std::string reply;
            while ((reply = port_->ReceiveUntil("\r\n", 3000)) == "RCVCON\r\n") {
            }
            EXPECT_EQ(reply, c.Reply);
        }
        EXPECT_EQ(Count(c.LogLine), seen + 1);
        Resync();
    }
    EXPECT_EQ(Count("Read Buffer Timeout"), timeouts + 2);  // the short list and header

    // A wrong magic number: the station hangs up at once, without a word.
    const long corrupted = Count("Corrupted file list.");
    port_->Send("H100\r\n" + peer::Header(1, 1002, 0x0055AAFFu) + one);
    StationHangsUp();
    EXPECT_EQ(Count("Corrupted file list."), corrupted);
    // Neither the noise nor a list refused left anything.
    EXPECT_TRUE(std::filesystem::is_empty(stationPath_ + "/Incoming Files"));

    // A hundred files is the most a list may hold. A line too long for the
    // read in front of them is told again: this is another call.
    std::vector<peer::File> hundred;
    for (int i = 0; i < 100; ++i) {
        hundred.push_back({"e" + std::to_string(i), ""});
    }
    ASSERT_TRUE(port_->Dial("5552002"));
    port_->Send(std::string(1100, 'x') + "\r\n");
    EXPECT_EQ(peer::SendSession(*port_, hundred), "");
    EXPECT_EQ(Count("Serial Limit Reached"), 2);
    EndCall();
    EXPECT_TRUE(PathExists(stationPath_ + "/Incoming Files/e0"));
    EXPECT_TRUE(PathExists(stationPath_ + "/Incoming Files/e99"));
    EXPECT_EQ(PathsOutsideIncoming(), before);
    // A plain session after all the rest: the station is unharmed.
    const std::string after = RandomBytes(30000, 31);
    PeerSends({{"after.txt", after}});
    EXPECT_TRUE(Incoming("after.txt") == after);
}

// The station sends one file. The peer answers the list with a FILERESTA3
// whose body stops halfway; in later calls it takes the file whole, then asks
// for repairs that the sender must not act on: one that speaks of a stream
// of another length, and one that comes after the peer has acknowledged the
// file as if another were to follow.
TEST_F(HostilePeer, RecoveriesCutShortOrOfNoFileOnItsWayAreNotActedOn) {
    const std::string bytes = RandomBytes(50000, 34);
    const uint32_t stream = peer::StreamLength(bytes.size());
    ASSERT_NO_FATAL_FAILURE(Choose({{"out.bin", bytes}}));
    ASSERT_NO_FATAL_FAILURE(TakeTheOffer());
    port_->Send("FILERESTA3\r\n" + std::string(40, '\0'));
    EXPECT_TRUE(station_->WaitForLog("Read Buffer Timeout")) << LogText();
    EXPECT_EQ(Count("Read Buffer Timeout"), 1);
    StationHangsUp();
    // Not a byte of the file went out, and it stays in the list, whole, for
    // the next call.
    EXPECT_EQ(Count("All files sent."), 0);
    EXPECT_NE(station_->ShowControl("IDC_FILE_LIST").find("out.bin"), std::string::npos);
    const auto takeTheFile = [&] {
        ASSERT_NO_FATAL_FAILURE(TakeTheOffer());
        port_->Send("ACK3\r\n");
        // Compared whole, so that a failure does not print the data.
        ASSERT_TRUE(port_->Receive(stream, 10000) == peer::Stream(bytes));
    };

    // Two sections from the second on, for a file of one: the feeder would
    // read past the file's end. The station ends the call instead, and the
    // file stays in its list for the next.
    ASSERT_NO_FATAL_FAILURE(takeTheFile());
    port_->Send("FILERECOVR\r\n" + peer::RecoveryBody(2 * 131072, 1, 2 * 131072));
    port_->Send("CONTSEND\r\n");
    const std::string heard = StationHangsUp();
    EXPECT_EQ(heard.find("SENDRECOVR"), std::string::npos) << heard;
    EXPECT_EQ(Count("Cannot read file: out.bin"), 0) << LogText();
    EXPECT_EQ(Count("All files sent."), 0);
    EXPECT_NE(station_->ShowControl("IDC_FILE_LIST").find("out.bin"), std::string::npos);

    // ACK4 takes the file off the list; a repair of it then has nothing to
    // act on, and the ACK2 behind it still ends the session at once.
    ASSERT_NO_FATAL_FAILURE(takeTheFile());
    port_->Send("ACK4\r\n");
    port_->Send("FILERECOVR\r\n" + peer::RecoveryBody(stream, 0, stream));
    port_->Send("CONTSEND\r\n");
    port_->Send("ACK2\r\n");
    EXPECT_TRUE(station_->WaitForLog("All files sent.", std::chrono::seconds(15))) << LogText();
    const std::string after = StationHangsUp();
    EXPECT_EQ(after.find("SENDRECOVR"), std::string::npos) << after;
}

}  // namespace kb::test
