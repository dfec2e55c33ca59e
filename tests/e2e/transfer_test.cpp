#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "harness.h"
#include "installation.h"
#include "platform/files.h"

namespace {

// Two stations of different families that know each other's numbers.
class TwoStations : public ::testing::Test {
protected:
    void SetUp() override {
        alicePath = MakeInstallation(root, "alice");
        bobPath = MakeInstallation(root, "bob");
        adapters = std::make_unique<VirtualAdapters>(
            std::vector<std::string>{alicePath + "/COM1=bitsurfr:5551001",
                                     bobPath + "/COM1=adtran-xrt:5552002"},
            std::vector<std::string>{"--rate", "0"});
        alice = std::make_unique<Station>(alicePath);
        bob = std::make_unique<Station>(bobPath);
        ASSERT_TRUE(alice->WaitForLog("Initializing Incoming"));
        ASSERT_TRUE(bob->WaitForLog("Initializing Incoming"));
        ASSERT_EQ(alice->Command("name Bob"), "ok");
        ASSERT_EQ(alice->Command("number 555-2002"), "ok");
        ASSERT_TRUE(CreateFolder(root / "samples"));
    }

    // A sample file of the given bytes, in the samples folder.
    std::string Sample(const std::string& name, const std::string& bytes) {
        const std::string path = root / "samples/" + name;
        WriteWholeFile(path, bytes);
        return path;
    }

    // Alice presses Send; both sides see the session through.
    void SendAndWait() {
        ASSERT_EQ(alice->Command("send"), "ok");
        ASSERT_TRUE(alice->WaitForLog("All files sent."));
        ASSERT_TRUE(bob->WaitForLog("All files received."));
        // Both back in the incoming profile and idle.
        ASSERT_TRUE(alice->WaitForLog("Reinitializing Incoming: V.120 - 64K"));
        ASSERT_TRUE(bob->WaitForLog("Reinitializing Incoming: V.120 - 64K"));
        ASSERT_EQ(alice->Command("wait-state idle 30"), "ok");
        ASSERT_EQ(bob->Command("wait-state idle 30"), "ok");
    }

    std::string Received(const std::string& relative) const {
        return ReadWholeFile(bobPath + "/Incoming Files/" + relative);
    }

    TempFolder root;
    std::string alicePath;
    std::string bobPath;
    std::unique_ptr<VirtualAdapters> adapters;
    std::unique_ptr<Station> alice;
    std::unique_ptr<Station> bob;
};

}  // namespace

TEST_F(TwoStations, AListOfFilesArrivesByteForByteWithTheLinesOfBothSides) {
    const std::string note = RandomBytes(10000, 1);
    const std::string mid = RandomBytes(131071, 2);
    const std::string big = RandomBytes(1 << 20, 3);
    ASSERT_EQ(alice->Command("choose " + Sample("note.txt", note)), "ok");
    ASSERT_EQ(alice->Command("choose " + Sample("mid.bin", mid)), "ok");
    ASSERT_EQ(alice->Command("choose " + Sample("big.bin", big)), "ok");
    ASSERT_EQ(alice->Command("choose " + Sample("empty.dat", "")), "ok");
    SendAndWait();

    EXPECT_TRUE(Received("note.txt") == note);
    EXPECT_TRUE(Received("mid.bin") == mid);
    EXPECT_TRUE(Received("big.bin") == big);
    EXPECT_TRUE(PathExists(bobPath + "/Incoming Files/empty.dat"));
    EXPECT_EQ(Received("empty.dat"), "");

    const std::vector<std::string> sent =
        LinesHolding(alice->LogLines(), {"Calling", "at 555", "Connected", "Sending File",
                                         "All files", "Disconnected", "Reinitializing Incoming"});
    EXPECT_EQ(sent, (std::vector<std::string>{
                        "Calling Bob", "at 555-2002", "Connected 230400", "Sending File: note.txt",
                        "Sending File: mid.bin", "Sending File: big.bin", "All files sent.",
                        "Disconnected", "Reinitializing Incoming: V.120 - 64K"}));
    const std::vector<std::string> received =
        LinesHolding(bob->LogLines(), {"Connected", "Receiving File", "File received", "All files",
                                       "Disconnected", "Reinitializing Incoming"});
    EXPECT_EQ(received, (std::vector<std::string>{
                            "Connected 115200", "Receiving File: note.txt", "File received.",
                            "Receiving File: mid.bin", "File received.", "Receiving File: big.bin",
                            "File received.", "All files received.", "Disconnected",
                            "Reinitializing Incoming: V.120 - 64K"}));
    // The sender's list went down to nothing; the receiver's list is cleared.
    EXPECT_NE(alice->ShowControl("IDC_FILE_LIST").find("rows=\"\""), std::string::npos);
    EXPECT_NE(bob->ShowControl("IDC_FILE_LIST").find("rows=\"\""), std::string::npos);
    EXPECT_NE(alice->ShowControl("IDC_RETRIEVE").find("enabled=1"), std::string::npos);
}

TEST_F(TwoStations, AFolderArrivesUnderItsNameAndASecondOneUnderNameA) {
    ASSERT_TRUE(CreateFolder(root / "samples/Reports"));
    ASSERT_TRUE(CreateFolder(root / "samples/Reports/Old"));
    WriteWholeFile(root / "samples/Reports/Old/skipped.txt", "a subfolder does not travel");
    const std::string first = RandomBytes(262141, 4);
    const std::string second = RandomBytes(8191, 5);
    WriteWholeFile(root / "samples/Reports/first.bin", first);
    WriteWholeFile(root / "samples/Reports/second.bin", second);
    WriteWholeFile(root / "samples/Reports/empty.txt", "");

    ASSERT_EQ(alice->Command("add " + (root / "samples/Reports")), "ok");
    SendAndWait();
    EXPECT_EQ(LinesHolding(bob->LogLines(), {"Created new folder"}),
              std::vector<std::string>{"Created new folder: Reports"});
    EXPECT_TRUE(Received("Reports/first.bin") == first);
    EXPECT_TRUE(Received("Reports/second.bin") == second);
    EXPECT_TRUE(PathExists(bobPath + "/Incoming Files/Reports/empty.txt"));
    EXPECT_FALSE(PathExists(bobPath + "/Incoming Files/Reports/Old"));

    ASSERT_EQ(alice->Command("add " + (root / "samples/Reports")), "ok");
    SendAndWait();
    EXPECT_EQ(
        LinesHolding(bob->LogLines(), {"Created new folder"}),
        (std::vector<std::string>{"Created new folder: Reports", "Created new folder: Reports-A"}));
    EXPECT_TRUE(Received("Reports-A/first.bin") == first);
    EXPECT_TRUE(Received("Reports-A/second.bin") == second);
    EXPECT_TRUE(Received("Reports/first.bin") == first) << "the first folder stays as it was";
}

TEST_F(TwoStations, AFileOfAnExistingNameArrivesBesideItAndTheCallerCanBeCalledBack) {
    const std::string one = RandomBytes(5000, 6);
    ASSERT_EQ(alice->Command("choose " + Sample("report.doc", one)), "ok");
    SendAndWait();
    const std::string two = RandomBytes(7000, 7);
    ASSERT_EQ(alice->Command("choose " + Sample("report.doc", two)), "ok");
    SendAndWait();
    EXPECT_EQ(
        LinesHolding(bob->LogLines(), {"Receiving File"}),
        (std::vector<std::string>{"Receiving File: report.doc", "Receiving File: report.doc-A"}));
    EXPECT_TRUE(Received("report.doc") == one);
    EXPECT_TRUE(Received("report.doc-A") == two);

    // Now the other way round: Bob calls Alice.
    ASSERT_EQ(bob->Command("name Alice"), "ok");
    ASSERT_EQ(bob->Command("number 5551001"), "ok");
    const std::string back = RandomBytes(40000, 8);
    ASSERT_EQ(bob->Command("choose " + Sample("back.bin", back)), "ok");
    ASSERT_EQ(bob->Command("send"), "ok");
    ASSERT_TRUE(bob->WaitForLog("All files sent."));
    ASSERT_TRUE(alice->WaitForLog("All files received."));
    const std::string arrived = ReadWholeFile(alicePath + "/Incoming Files/back.bin");
    EXPECT_TRUE(arrived == back) << arrived.size() << " bytes arrived of " << back.size();
}
