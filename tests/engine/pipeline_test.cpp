// Files of every awkward size through both pipelines, compared byte for byte
// on the wire and on the disk.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/session_threads.h"
#include "engine/sessions.h"
#include "engine/wire.h"
#include "engine_harness.h"
#include "platform/files.h"
#include "support/temp_folder.h"

namespace {

// Empty, one byte, one block less its checksum, one byte more, a full
// section, a section and a byte, and two sections and a byte.
const std::vector<size_t> Sizes = {0, 1, 8190, 8191, 131070, 131071, 262141};

struct TestFile {
    std::string name;
    std::string bytes;
};

std::vector<TestFile> SizedFiles() {
    std::vector<TestFile> files;
    for (size_t i = 0; i < Sizes.size(); ++i) {
        files.push_back({"file" + std::to_string(Sizes[i]) + ".bin",
                         PatternBytes(Sizes[i], static_cast<uint32_t>(i + 1))});
    }
    return files;
}

uint32_t TotalOf(const std::vector<TestFile>& files) {
    uint32_t total = 0;
    for (const TestFile& file : files) {
        total += static_cast<uint32_t>(DataLengthForSize(file.bytes.size()));
    }
    return total;
}

bool HasCall(const std::vector<std::string>& calls, const std::string& call) {
    return std::find(calls.begin(), calls.end(), call) != calls.end();
}

using ReceivePipelineTest = EngineHarness;
using SendPipelineTest = EngineHarness;

}  // namespace

TEST_F(ReceivePipelineTest, EveryFileOfAListArrivesByteForByte) {
    const std::vector<TestFile> files = SizedFiles();
    ConnectAsAnswerer();
    Send("SYNCON\r\n");
    EXPECT_EQ(Take(8), "RCVCON\r\n");

    std::string offer =
        "H100\r\n" + WireHeader(static_cast<uint32_t>(files.size()), TotalOf(files));
    for (const TestFile& file : files) {
        offer +=
            WireEntry(file.name, 0, static_cast<uint32_t>(DataLengthForSize(file.bytes.size())));
    }
    Send(offer);
    EXPECT_EQ(Take(6), "ACK3\r\n");
    ASSERT_EQ(TheEngine.LinkState.load(), LinkTransfer);
    // The empty file is made at once and has no place in the list.
    EXPECT_EQ(TheEngine.ReceiveCount.load(), files.size() - 1);
    EXPECT_TRUE(PathExists(Incoming(files[0].name)));

    for (size_t i = 1; i < files.size(); ++i) {
        Send(DataStreamOf(files[i].bytes));
        EXPECT_EQ(Take(6), i + 1 < files.size() ? "ACK4\r\n" : "ACK2\r\n") << files[i].name;
    }
    ASSERT_TRUE(WaitForState(LinkConnected));
    EXPECT_TRUE(Inspect([] { return TheEngine.SavedEntry.WireName.IsEmpty(); }));
    for (const TestFile& file : files) {
        EXPECT_EQ(ReadWholeFile(Incoming(file.name)), file.bytes) << file.name;
    }

    const std::vector<std::string> log = Log();
    const std::vector<std::string> expectedTail = {"Receiving File: file1.bin",
                                                   "File received.",
                                                   "Receiving File: file8190.bin",
                                                   "File received.",
                                                   "Receiving File: file8191.bin",
                                                   "File received.",
                                                   "Receiving File: file131070.bin",
                                                   "File received.",
                                                   "Receiving File: file131071.bin",
                                                   "File received.",
                                                   "Receiving File: file262141.bin",
                                                   "File received.",
                                                   "All files received."};
    std::vector<std::string> transferLines;
    for (const std::string& line : log) {
        if (line.rfind("Receiving File: ", 0) == 0 || line == "File received." ||
            line == "All files received.") {
            transferLines.push_back(line);
        }
    }
    EXPECT_EQ(transferLines, expectedTail);

    // The window saw the list, the start, and each file's end.
    const std::vector<std::string> calls = window.Calls();
    EXPECT_TRUE(HasCall(calls, "ListIncomingFiles()"));
    EXPECT_TRUE(HasCall(calls, "ShowTransferDisplay(1)"));
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "RemoveTopFileRow()"), 6);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "ShowThroughput(0,1)"), 6);

    // The sender hangs up; the adapter says so, and the incoming profile
    // goes back.
    Send("\r\nNO CARRIER\r\n");
    EXPECT_EQ(AnswerCommand().substr(0, 4), "AT\\Q");
    ASSERT_TRUE(WaitUntil([this] { return HasCall(window.Calls(), "ClearFileList()"); }));
    EXPECT_EQ(TheEngine.LinkState.load(), LinkIdle);
    EXPECT_TRUE(Logged("Disconnected"));
    // Every file arrived, so every file stays.
    for (const TestFile& file : files) {
        EXPECT_EQ(ReadWholeFile(Incoming(file.name)), file.bytes) << file.name;
    }
}

TEST_F(SendPipelineTest, EveryFileOfAListLeavesByteForByte) {
    const std::vector<TestFile> files = SizedFiles();
    for (const TestFile& file : files) {
        AddToSendList(MakeFile(file.name, file.bytes), file.name);
    }
    ConnectAsCaller();
    Send("RCVCON\r\n");

    std::string offer =
        "H100\r\n" + WireHeader(static_cast<uint32_t>(files.size()), TotalOf(files));
    for (const TestFile& file : files) {
        offer +=
            WireEntry(file.name, 0, static_cast<uint32_t>(DataLengthForSize(file.bytes.size())));
    }
    EXPECT_EQ(Take(offer.size()), offer);

    Send("ACK3\r\n");
    for (size_t i = 1; i < files.size(); ++i) {
        const std::string stream = DataStreamOf(files[i].bytes);
        EXPECT_EQ(Take(stream.size()), stream) << files[i].name;
        // The file is through: nothing more goes out until the next ACK.
        EXPECT_EQ(TakeFor(20), "") << files[i].name;
        Send(i + 1 < files.size() ? "ACK4\r\n" : "ACK2\r\n");
    }
    AnswerHangUp();
    ASSERT_TRUE(WaitForState(LinkIdle));
    EXPECT_EQ(TheEngine.SendCount.load(), 0);
    EXPECT_FALSE(FeederRunning());

    std::vector<std::string> transferLines;
    for (const std::string& line : Log()) {
        if (line.rfind("Sending File: ", 0) == 0 || line == "All files sent." ||
            line == "Disconnected") {
            transferLines.push_back(line);
        }
    }
    const std::vector<std::string> expected = {"Sending File: file1.bin",
                                               "Sending File: file8190.bin",
                                               "Sending File: file8191.bin",
                                               "Sending File: file131070.bin",
                                               "Sending File: file131071.bin",
                                               "Sending File: file262141.bin",
                                               "All files sent.",
                                               "Disconnected"};
    EXPECT_EQ(transferLines, expected);
}
