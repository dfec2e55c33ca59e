#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "two_stations.h"

namespace {

// Two stations of different families that know each other's numbers.
class TwoStations : public ::testing::Test, public AliceAndBob {
protected:
    TwoStations() : AliceAndBob("adtran-xrt", {"--rate", "0"}) {}
};

}  // namespace

// One walk on one pair of stations: a list of files, a name that is taken
// already, a folder twice, and a call back the other way.
TEST_F(TwoStations, FilesAndFoldersArriveByteForByteBesideWhatIsThereAndTheCallerCanBeCalledBack) {
    const std::string note = RandomBytes(10000, 1);
    const std::string mid = RandomBytes(131071, 2);
    const std::string big = RandomBytes(1 << 20, 3);
    Choose({{"note.txt", note}, {"mid.bin", mid}, {"big.bin", big}, {"empty.dat", ""}});
    SendThrough();

    EXPECT_TRUE(Received("note.txt") == note);
    EXPECT_TRUE(Received("mid.bin") == mid);
    EXPECT_TRUE(Received("big.bin") == big);
    EXPECT_TRUE(PathExists(BobPath + "/Incoming Files/empty.dat"));
    EXPECT_EQ(Received("empty.dat"), "");

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
    EXPECT_NE(Alice->ShowControl("IDC_RETRIEVE").find("enabled=1"), std::string::npos);

    // A name taken already arrives beside the first file, which stays.
    const std::string again = RandomBytes(7000, 7);
    Choose({{"note.txt", again}});
    SendThrough();
    EXPECT_EQ(LinesHolding(Bob->LogLines(), {"Receiving File: note"}),
              (std::vector<std::string>{"Receiving File: note.txt", "Receiving File: note.txt-A"}));
    EXPECT_TRUE(Received("note.txt") == note);
    EXPECT_TRUE(Received("note.txt-A") == again);

    ASSERT_TRUE(CreateFolder(Root / "samples/Reports"));
    ASSERT_TRUE(CreateFolder(Root / "samples/Reports/Old"));
    WriteWholeFile(Root / "samples/Reports/Old/skipped.txt", "a subfolder does not travel");
    const std::string first = RandomBytes(262141, 4);
    const std::string second = RandomBytes(8191, 5);
    WriteWholeFile(Root / "samples/Reports/first.bin", first);
    WriteWholeFile(Root / "samples/Reports/second.bin", second);
    WriteWholeFile(Root / "samples/Reports/empty.txt", "");
    ASSERT_EQ(Alice->Command("add " + (Root / "samples/Reports")), "ok");
    SendThrough();
    EXPECT_EQ(LinesHolding(Bob->LogLines(), {"Created new folder"}),
              std::vector<std::string>{"Created new folder: Reports"});
    EXPECT_TRUE(Received("Reports/first.bin") == first);
    EXPECT_TRUE(Received("Reports/second.bin") == second);
    EXPECT_TRUE(PathExists(BobPath + "/Incoming Files/Reports/empty.txt"));
    EXPECT_FALSE(PathExists(BobPath + "/Incoming Files/Reports/Old"));

    ASSERT_EQ(Alice->Command("add " + (Root / "samples/Reports")), "ok");
    SendThrough();
    EXPECT_EQ(
        LinesHolding(Bob->LogLines(), {"Created new folder"}),
        (std::vector<std::string>{"Created new folder: Reports", "Created new folder: Reports-A"}));
    EXPECT_TRUE(Received("Reports-A/first.bin") == first);
    EXPECT_TRUE(Received("Reports-A/second.bin") == second);
    EXPECT_TRUE(Received("Reports/first.bin") == first) << "the first folder stays as it was";

    // Now the other way round: Bob calls Alice.
    ASSERT_EQ(Bob->Command("name Alice"), "ok");
    ASSERT_EQ(Bob->Command("number 5551001"), "ok");
    const std::string back = RandomBytes(40000, 8);
    ASSERT_EQ(Bob->Command("choose " + Sample("back.bin", back)), "ok");
    ASSERT_EQ(Bob->Command("send"), "ok");
    ASSERT_TRUE(Bob->WaitForLog("All files sent."));
    ASSERT_TRUE(Alice->WaitForLog("All files received."));
    const std::string arrived = ReadWholeFile(AlicePath + "/Incoming Files/back.bin");
    EXPECT_TRUE(arrived == back) << arrived.size() << " bytes arrived of " << back.size();
}
