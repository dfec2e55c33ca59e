// A station against a second, independent implementation of the transfer
// protocol (tests/support/wire_peer), each on its own virtual adapter: what
// one end sends the other must take, byte for byte, in both directions.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "peer_fixture.h"

namespace kb::test {

using namespace kb::platform;

TEST_F(PeerAndStation, APeerSendsFilesAndTheStationFilesThemIdenticalAlsoRightAfterARingGivenUp) {
    const std::vector<peer::File> files = {
        {"hello.txt", RandomBytes(1000, 21)},   {"empty.dat", ""},
        {"one.byte", RandomBytes(1, 29)},       {"block.bin", RandomBytes(8190, 30)},
        {"whole.bin", RandomBytes(131070, 31)}, {"mid.bin", RandomBytes(131071, 22)},
        {"big.bin", RandomBytes(300000, 23)},
    };
    PeerSends(files, "Album");
    for (const peer::File& file : files) {
        ExpectSameBytes(stationPath_ + "/Incoming Files/Album/" + file.Name, file.Bytes);
    }

    // Then the peer rings, gives up at once and calls again a moment later,
    // while the station is still on its way to answer the first ring: the one
    // answer takes the call that rings by then, and it is served.
    for (const int gapMs : {200, 350, 500}) {
        SCOPED_TRACE(gapMs);
        const peer::File after = {"after-" + std::to_string(gapMs) + ".txt",
                                  RandomBytes(20000, static_cast<uint32_t>(gapMs))};
        port_->Send("ATD5552002\r");
        ASSERT_NE(port_->ReceiveUntil("RINGING\r\n", 5000).find("RINGING"), std::string::npos);
        port_->Send(" ");  // gives up
        ASSERT_NE(port_->ReceiveUntil("NO CARRIER\r\n", 5000).find("NO CARRIER"),
                  std::string::npos);
        std::this_thread::sleep_for(std::chrono::milliseconds(gapMs));
        PeerSends({after});
        EXPECT_TRUE(Incoming(after.Name) == after.Bytes);
    }
}

// The station sends files, then in a second call a folder. In the first,
// every token of the receiving peer comes in two pieces further apart than
// the sending station's read of a line waits: the station still hears each.
TEST_F(PeerAndStation, AStationSendsFilesAndAFolderAndThePeerReceivesThemIdentical) {
    const std::vector<peer::File> files = {
        {"note.txt", RandomBytes(9000, 24)},    {"blank.txt", ""},
        {"one.byte", RandomBytes(1, 32)},       {"block.bin", RandomBytes(8190, 33)},
        {"whole.bin", RandomBytes(131070, 25)}, {"big.bin", RandomBytes(400000, 26)},
    };
    ASSERT_NO_FATAL_FAILURE(Choose(files));
    ASSERT_NO_FATAL_FAILURE(CallThePeer());
    std::vector<peer::File> arrived;
    EXPECT_EQ(peer::ReceiveSession(*port_, arrived, nullptr, 2500), "");
    ExpectArrived(arrived, files);
    // The station hangs up once the last file is acknowledged.
    StationHangsUp();

    // The folder's marker comes first, a program file with its kind.
    const std::vector<peer::File> holiday = {
        {"a.txt", RandomBytes(5000, 27), 0},
        {"setup.exe", RandomBytes(131072, 28), 2},
    };
    ASSERT_TRUE(CreateFolder(root_ / "Holiday"));
    for (const peer::File& file : holiday) {
        WriteWholeFile(root_ / "Holiday/" + file.Name, file.Bytes);
    }
    ASSERT_EQ(station_->Command("add " + (root_ / "Holiday")), "ok");
    ASSERT_NO_FATAL_FAILURE(CallThePeer());
    arrived.clear();
    std::string folder;
    EXPECT_EQ(peer::ReceiveSession(*port_, arrived, &folder), "");
    EXPECT_EQ(folder, "Holiday");
    ExpectArrived(arrived, holiday, true);
    StationHangsUp();
}

}  // namespace kb::test
