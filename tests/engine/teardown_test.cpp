// The ends of a call: the user's disconnect on either side, what stays on the
// disk afterwards, the resume of a file a call left unfinished, and files
// that cannot be read or written.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "engine/session_threads.h"
#include "engine/sessions.h"
#include "engine/teardown.h"
#include "engine/wire.h"
#include "engine_harness.h"
#include "line/adapter.h"
#include "platform/files.h"

namespace {

struct TestFile {
    std::string name;
    std::string bytes;
    uint32_t Length() const { return static_cast<uint32_t>(DataLengthForSize(bytes.size())); }
};

class ReceiverTeardownTest : public EngineHarness {
protected:
    void SetUp() override {
        EngineHarness::SetUp();
        SetFreeSpaceQuery([] { return uint64_t{1} << 30; });
    }

    void OfferAsCaller(const std::vector<TestFile>& files) {
        ConnectAsAnswerer();
        Send("SYNCON\r\n");
        EXPECT_EQ(Take(8), "RCVCON\r\n");
        uint32_t total = 0;
        std::string entries;
        for (const TestFile& file : files) {
            total += file.Length();
            entries += WireEntry(file.name, 0, file.Length());
        }
        Send("H100\r\n" + WireHeader(static_cast<uint32_t>(files.size()), total) + entries);
    }

    // The user presses Disconnect twice: ABORT, then the hang-up of a call
    // whose far end has already gone.
    void DisconnectTwice() {
        RequestDisconnect();
        EXPECT_EQ(Take(7), "ABORT\r\n");
        EXPECT_EQ(TheEngine.LinkState.load(), LinkConnected);
        std::thread second(RequestDisconnect);
        EXPECT_EQ(AnswerCommand(), "AT");
        EXPECT_TRUE(AnswerProfile());
        second.join();
        EXPECT_EQ(TheEngine.LinkState.load(), LinkIdle);
    }

    const TestFile first{"first.bin", PatternBytes(5000, 1)};
    const TestFile second{"second.bin", PatternBytes(SectionFileBytes + 7000, 2)};
    const TestFile third{"third.bin", PatternBytes(300, 3)};
};

class SenderTeardownTest : public EngineHarness {
protected:
    // A short file goes out and is acknowledged as the last: the sender
    // hangs up next.
    void SendOneFileToTheLastAck() {
        AddToSendList(MakeFile("note.txt", LetterBytes(300)), "note.txt");
        ConnectAsCaller();
        Send("RCVCON\r\n");
        Take(6 + 28 + 56);
        Send("ACK3\r\n");
        Take(302);
        ASSERT_TRUE(WaitForState(LinkFileSent));
        Send("ACK2\r\n");
    }
};

}  // namespace

TEST_F(ReceiverTeardownTest, ALostCallKeepsWhatArrivedAndTheFileInProgressForAResume) {
    OfferAsCaller({first, second, third});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    Send(DataStreamOf(first.bytes));
    EXPECT_EQ(Take(6), "ACK4\r\n");
    const std::string stream = DataStreamOf(second.bytes);
    Send(stream.substr(0, SectionWireBytes + 100));
    ASSERT_TRUE(
        WaitUntil([] { return Inspect([] { return TheEngine.ReceiveList[0].NextBlock == 16; }); }));

    DisconnectTwice();
    EXPECT_TRUE(WaitUntil([this] {
        const auto calls = window.Calls();
        return std::find(calls.begin(), calls.end(), "ClearFileList()") != calls.end();
    }));
    EXPECT_EQ(ReadWholeFile(Incoming("first.bin")), first.bytes);
    // The file in progress stays, exactly its good sections long.
    EXPECT_EQ(ReadWholeFile(Incoming("second.bin")), second.bytes.substr(0, SectionFileBytes));
    EXPECT_FALSE(PathExists(Incoming("third.bin")));
    EXPECT_EQ(Inspect([] { return std::string(TheEngine.SavedEntry.WireName.View()); }),
              "second.bin");
    EXPECT_EQ(TheEngine.ReceiveCount.load(), 0u);

    // The sender offers what it has left; the first file takes up where the
    // call stopped.
    OfferAsCaller({second, third});
    EXPECT_EQ(Take(12), "FILERESTA3\r\n");
    FileEntry position;
    const RecoveryPosition session =
        ApplyRecoveryBody(RecordFromBytes<RecoveryBody>(Take(80).data()), position);
    EXPECT_EQ(position.NextBlock, 16);
    EXPECT_EQ(position.BytesDone, SectionWireBytes);
    // What is left is the short last block.
    EXPECT_EQ(session.ExpectedBlock, stream.size() - SectionWireBytes);
    EXPECT_TRUE(WaitForLog("Recovering File: second.bin"));
    Send(stream.substr(SectionWireBytes));
    EXPECT_EQ(Take(6), "ACK4\r\n");
    Send(DataStreamOf(third.bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("second.bin")), second.bytes);
    EXPECT_EQ(ReadWholeFile(Incoming("third.bin")), third.bytes);
}

TEST_F(ReceiverTeardownTest, AChangedFileOfTheSameNameIsANewFileAndTheOldPartGoes) {
    OfferAsCaller({second});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    Send(DataStreamOf(second.bytes).substr(0, SectionWireBytes + 10));
    ASSERT_TRUE(
        WaitUntil([] { return Inspect([] { return TheEngine.ReceiveList[0].NextBlock == 16; }); }));
    DisconnectTwice();
    ASSERT_TRUE(WaitUntil([] { return TheEngine.ReceiveCount.load() == 0; }));
    ASSERT_TRUE(PathExists(Incoming("second.bin")));

    // Same name, another length: admitted as new, under the plain name,
    // since the part left behind has gone.
    const TestFile changed{"second.bin", PatternBytes(900, 9)};
    OfferAsCaller({changed});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_TRUE(WaitForLog("Receiving File: second.bin"));
    Send(DataStreamOf(changed.bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("second.bin")), changed.bytes);
    EXPECT_FALSE(PathExists(Incoming("second.bin-A")));
}

TEST_F(ReceiverTeardownTest, ANewListInTheSameCallLeavesNothingOfTheAbandonedOne) {
    OfferAsCaller({second, third});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    RequestDisconnect();
    EXPECT_EQ(Take(7), "ABORT\r\n");
    // The far end offers another list instead of hanging up.
    Send("H100\r\n" + WireHeader(1, first.Length()) + WireEntry(first.name, 0, first.Length()));
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_FALSE(PathExists(Incoming("second.bin")));
    EXPECT_FALSE(PathExists(Incoming("third.bin")));
    Send(DataStreamOf(first.bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("first.bin")), first.bytes);
}

TEST_F(ReceiverTeardownTest, TheExitDeletesAPartLeftForAResume) {
    OfferAsCaller({second});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    Send(DataStreamOf(second.bytes).substr(0, SectionWireBytes + 10));
    ASSERT_TRUE(
        WaitUntil([] { return Inspect([] { return TheEngine.ReceiveList[0].NextBlock == 16; }); }));
    DisconnectTwice();
    ASSERT_TRUE(WaitUntil([] { return TheEngine.ReceiveCount.load() == 0; }));
    ASSERT_TRUE(PathExists(Incoming("second.bin")));
    Inspect([] { DiscardUnfinishedFiles(); });
    EXPECT_FALSE(PathExists(Incoming("second.bin")));
    EXPECT_TRUE(Inspect([] { return TheEngine.SavedEntry.WireName.IsEmpty(); }));
}

TEST_F(ReceiverTeardownTest, AFileThatCannotBeWrittenEndsTheSession) {
    OfferAsCaller({first});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    ASSERT_TRUE(DeleteFileAt(Incoming("first.bin")));
    ASSERT_TRUE(CreateFolder(Incoming("first.bin")));
    Send(DataStreamOf(first.bytes));
    EXPECT_EQ(Take(7), "ABORT\r\n");
    EXPECT_TRUE(WaitForLog("Cannot write file: first.bin"));
    EXPECT_TRUE(Logged("Sending disconnect..."));
    EXPECT_TRUE(WaitForState(LinkConnected));
}

TEST_F(SenderTeardownTest, DisconnectDuringATransferStopsTheFeederAndHangsUp) {
    const std::string bytes = LetterBytes(4 * SectionFileBytes);
    AddToSendList(MakeFile("big.txt", bytes), "big.txt");
    const uint32_t total = TheEngine.SendRemaining.load();
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 56);
    Send("ACK3\r\n");
    Take(SectionWireBytes);
    // The far end holds the line back; the user disconnects from the window.
    std::thread user(RequestDisconnect);
    const std::string beforeEscape = TakeUntil("+++", 5000);
    ASSERT_GE(beforeEscape.size(), 3u);
    EXPECT_EQ(beforeEscape.substr(beforeEscape.size() - 3), "+++");
    Send("\r\nOK\r\n");
    EXPECT_EQ(AnswerCommand(), "ATH");
    EXPECT_TRUE(AnswerProfile());
    user.join();
    EXPECT_EQ(TheEngine.LinkState.load(), LinkIdle);
    EXPECT_FALSE(FeederRunning());
    EXPECT_TRUE(Logged("Disconnected"));
    // The file is offered whole at the next call.
    EXPECT_EQ(TheEngine.SendCount.load(), 1);
    EXPECT_EQ(Inspect([] { return uint32_t{TheEngine.SendList[0].BytesDone}; }), 0u);
    EXPECT_EQ(TheEngine.SendRemaining.load(), total);
    EXPECT_EQ(LinePollingEnabled.load(), 1);
}

TEST_F(SenderTeardownTest, DisconnectWhileAnAckIsAwaitedPutsTheFileBackToItsStart) {
    const std::string bytes = LetterBytes(20000);
    AddToSendList(MakeFile("wait.txt", bytes), "wait.txt");
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 56);
    Send("ACK3\r\n");
    Take(20002);
    ASSERT_TRUE(WaitForState(LinkFileSent));
    std::thread user(RequestDisconnect);
    AnswerHangUp();
    user.join();
    EXPECT_EQ(TheEngine.LinkState.load(), LinkIdle);
    // Offered again, the file goes whole, not as one whose data is done.
    EXPECT_EQ(Inspect([] { return TheEngine.SendList[0].DataDone; }), 0u);
    EXPECT_EQ(Inspect([] { return uint32_t{TheEngine.SendList[0].BytesDone}; }), 0u);
    EXPECT_EQ(TheEngine.SendCount.load(), 1);
}

TEST_F(SenderTeardownTest, AFileThatCannotBeReadEndsTheCall) {
    const std::string path = MakeFile("gone.txt", LetterBytes(3000));
    AddToSendList(path, "gone.txt");
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 56);
    ASSERT_TRUE(DeleteFileAt(path));
    Send("ACK3\r\n");
    AnswerHangUp();
    EXPECT_TRUE(WaitForState(LinkIdle));
    EXPECT_TRUE(Logged("Cannot read file: gone.txt"));
    EXPECT_FALSE(FeederRunning());
}

// An adapter that answers neither "+++" nor anything after it: the sending
// side, which has no watchdog, tries twice more, 5 s apart, and then leaves
// the call to the line's fall or the user.
TEST_F(SenderTeardownTest, AnUnansweredHangUpIsTriedTwiceMoreFiveSecondsApart) {
    SendOneFileToTheLastAck();

    std::vector<std::chrono::steady_clock::time_point> escapes;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const std::string before = TakeUntil("+++", 9000);
        ASSERT_GE(before.size(), 3u) << "attempt " << attempt;
        ASSERT_EQ(before.substr(before.size() - 3), "+++") << "attempt " << attempt;
        escapes.push_back(std::chrono::steady_clock::now());
    }
    for (size_t i = 1; i < escapes.size(); ++i) {
        // Each try waits for the escape's answer, then 5 s before the next.
        EXPECT_GE(escapes[i] - escapes[i - 1], std::chrono::milliseconds(5000));
    }
    ASSERT_TRUE(WaitUntil([this] {
        const auto log = Log();
        return std::count(log.begin(), log.end(), "Hang-up failed.") == 3;
    }));
    // No fourth try; the call is still up as far as this end knows.
    EXPECT_EQ(TakeUntil("+++", 6000).find("+++"), std::string::npos);
    EXPECT_EQ(TheEngine.LinkState.load(), LinkConnected);
    EXPECT_FALSE(Logged("Disconnected"));

    // When the line falls after all, the call ends as any other.
    Send("\r\nNO CARRIER\r\n");
    EXPECT_TRUE(AnswerProfile());
    EXPECT_TRUE(WaitForLog("Disconnected"));
    EXPECT_TRUE(WaitUntil([] { return TheEngine.LinkState.load() == LinkIdle; }));
}

// A hang-up answered at its second try ends the call there.
TEST_F(SenderTeardownTest, AHangUpAnsweredAtItsSecondTryEndsTheCall) {
    SendOneFileToTheLastAck();
    ASSERT_NE(TakeUntil("+++", 5000).find("+++"), std::string::npos);
    ASSERT_TRUE(WaitForLog("Hang-up failed.", 5000));
    ASSERT_NE(TakeUntil("+++", 9000).find("+++"), std::string::npos);
    Send("\r\nOK\r\n");
    EXPECT_EQ(AnswerCommand(), "ATH");
    EXPECT_TRUE(AnswerProfile());
    EXPECT_TRUE(WaitForLog("Disconnected"));
    EXPECT_TRUE(WaitUntil([] { return TheEngine.LinkState.load() == LinkIdle; }));
    const auto log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "Hang-up failed."), 1);
}
