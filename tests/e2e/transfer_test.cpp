#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "two_stations.h"

namespace kb::test {

using namespace kb::platform;

namespace {

// Two stations of different families that know each other's numbers.
class TwoStations : public ::testing::Test, public AliceAndBob {
protected:
    TwoStations() : AliceAndBob("adtran-xrt", {"--rate", "0"}) {}
};

}  // namespace

// One walk on one pair of stations: a list of files, a folder twice, and a
// call back the other way.
TEST_F(TwoStations, FilesAndFoldersArriveByteForByteBesideWhatIsThereAndTheCallerCanBeCalledBack) {
    const std::string note = RandomBytes(10000, 1);
    const std::string mid = RandomBytes(131071, 2);
    const std::string big = RandomBytes(1 << 20, 3);
    Choose({{"note.txt", note}, {"mid.bin", mid}, {"big.bin", big}, {"empty.dat", ""}});
    SendThrough();

    ExpectSameBytes(IncomingPath("note.txt"), note);
    ExpectSameBytes(IncomingPath("mid.bin"), mid);
    ExpectSameBytes(IncomingPath("big.bin"), big);
    ExpectSameBytes(IncomingPath("empty.dat"), "");

    const std::vector<std::string> sent =
        LinesHolding(Alice->LogLines(), {"Calling", "at 555", "Connected", "Sending File",
                                         "All files", "Disconnected", "Reinitializing Incoming"});
    EXPECT_EQ(sent, (std::vector<std::string>{
                        "Calling Bob", "at 555-2002", "Connected 230400", "Sending File: note.txt",
                        "Sending File: mid.bin", "Sending File: big.bin", "All files sent.",
                        "Disconnected", "Reinitializing Incoming: V.120 - 64K"}));
    const std::vector<std::string> received =
        LinesHolding(Bob->LogLines(), {"Connected", "Receiving File", "File received", "All files",
                                       "Disconnected", "Reinitializing Incoming"});
    EXPECT_EQ(received, (std::vector<std::string>{
                            "Connected 115200", "Receiving File: note.txt", "File received.",
                            "Receiving File: mid.bin", "File received.", "Receiving File: big.bin",
                            "File received.", "All files received.", "Disconnected",
                            "Reinitializing Incoming: V.120 - 64K"}));
    // The sender's list went down to nothing; the receiver's list is cleared.
    EXPECT_NE(Alice->ShowControl("IDC_FILE_LIST").find("rows=\"\""), std::string::npos);
    EXPECT_NE(Bob->ShowControl("IDC_FILE_LIST").find("rows=\"\""), std::string::npos);

    Sample("Reports/Old/skipped.txt", "a subfolder does not travel");
    const std::string first = RandomBytes(262141, 4);
    const std::string second = RandomBytes(8191, 5);
    Sample("Reports/first.bin", first);
    Sample("Reports/second.bin", second);
    Sample("Reports/empty.txt", "");
    ASSERT_EQ(Alice->Command("add " + (Root / "samples/Reports")), "ok");
    SendThrough();
    EXPECT_EQ(LinesHolding(Bob->LogLines(), {"Created new folder"}),
              std::vector<std::string>{"Created new folder: Reports"});
    ExpectSameBytes(IncomingPath("Reports/first.bin"), first);
    ExpectSameBytes(IncomingPath("Reports/second.bin"), second);
    EXPECT_TRUE(PathExists(BobPath + "/Incoming Files/Reports/empty.txt"));
    EXPECT_FALSE(PathExists(BobPath + "/Incoming Files/Reports/Old"));

    ASSERT_EQ(Alice->Command("add " + (Root / "samples/Reports")), "ok");
    SendThrough();
    EXPECT_EQ(
        LinesHolding(Bob->LogLines(), {"Created new folder"}),
        (std::vector<std::string>{"Created new folder: Reports", "Created new folder: Reports-A"}));
    ExpectSameBytes(IncomingPath("Reports-A/first.bin"), first);
    ExpectSameBytes(IncomingPath("Reports-A/second.bin"), second);
    // The first folder stays as it was.
    ExpectSameBytes(IncomingPath("Reports/first.bin"), first);

    // Now the other way round: Bob calls Alice.
    BobSendsBack(RandomBytes(40000, 8));
}

// Alice and Bob on computers of their own, as far as the tools can tell: each
// station's adapter on a tool of its own, the tools calling over TLS. A file
// goes each way whole.
TEST(StationsApart, AFileGoesEachWayOverTls) {
    AliceAndBob line("zyxel-2864", {"--rate", "0"}, true);
    const std::string there = RandomBytes(300000, 21);
    line.Choose({{"there.bin", there}});
    line.SendThrough();
    ExpectSameBytes(line.IncomingPath("there.bin"), there);

    line.BobSendsBack(RandomBytes(70000, 22));
}

// The largest file that the sending side's block counter holds, 2047 whole
// sections, goes through as fast as the ports go; one byte more is refused
// before any call, as the file list's own test shows. The file is sparse, so
// that the sender's disk holds little of it, with bytes of its own at its
// start, across its first section boundary, in its middle and at its end;
// cmp compares the two copies a piece at a time, holding neither whole.
TEST_F(TwoStations, TheLargestFileThatCanBeSentArrivesWhole) {
    const off_t largest = off_t{2047} * 131070;
    const std::string path = Sample("largest.bin", "");
    ASSERT_EQ(::truncate(path.c_str(), largest), 0);
    {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        uint32_t seed = 50;
        for (const off_t at : {off_t{0}, off_t{131070 - 2000}, largest / 2, largest - 4000}) {
            const std::string bytes = RandomBytes(4000, seed++);
            file.seekp(at);
            file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        }
        ASSERT_TRUE(file.good());
    }
    ASSERT_EQ(Alice->Command("choose " + path), "ok");
    ASSERT_EQ(Alice->Command("send"), "ok");
    // Some seconds plain, far more under a sanitizer. However the call ends,
    // the sender says so last.
    ASSERT_TRUE(Alice->WaitForLog("Disconnected", std::chrono::seconds(500)));
    ASSERT_EQ(Alice->Count("All files sent."), 1) << Alice->LogText();
    ASSERT_TRUE(Bob->WaitForLog("All files received."));
    ChildProcess compare("/usr/bin/cmp", {IncomingPath("largest.bin"), path});
    EXPECT_EQ(compare.WaitForExit(std::chrono::seconds(500)), 0);
}

}  // namespace kb::test
