// The ends of a call that the stations' end-to-end tests cannot bring about:
// a part left for a resume that a changed file or the exit removes, a list
// abandoned within a call, files that cannot be read or written, and an
// adapter that does not answer the hang-up.

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

class ReceiverTeardownTest : public EngineHarness {
protected:
    void OfferAsCaller(const std::vector<peer::File>& files) {
        ConnectAsReceiver();
        Send(ListFor(files));
    }

    // A call that ends with the second file's first section on the disk,
    // kept for a resume.
    void LeaveAPartForAResume() {
        OfferAsCaller({second_});
        EXPECT_EQ(Take(6), "ACK3\r\n");
        Send(peer::Stream(second_.Bytes).substr(0, SectionWireBytes + 10));
        ASSERT_TRUE(WaitUntil(
            [] { return Inspect([] { return TheEngine.ReceiveList[0].NextBlock == 16; }); }));
        DisconnectTwice();
        ASSERT_TRUE(WaitUntil([] { return TheEngine.ReceiveCount.load() == 0; }));
        ASSERT_TRUE(PathExists(Incoming("second.bin")));
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

    const peer::File first_{"first.bin", RandomBytes(5000, 1)};
    const peer::File second_{"second.bin", RandomBytes(SectionFileBytes + 7000, 2)};
    const peer::File third_{"third.bin", RandomBytes(300, 3)};
};

class SenderTeardownTest : public EngineHarness {
protected:
    // A short file goes out and is acknowledged as the last: the sender
    // hangs up next.
    void SendOneFileToTheLastAck() {
        AddToSendList(MakeFile("note.txt", LetterBytes(300)), "note.txt");
        ConnectAndTakeList(1);
        Send("ACK3\r\n");
        Take(302);
        ASSERT_TRUE(WaitForState(LinkFileSent));
        Send("ACK2\r\n");
    }
};

}  // namespace

TEST_F(ReceiverTeardownTest, AChangedFileOfTheSameNameIsANewFileAndTheOldPartGoes) {
    LeaveAPartForAResume();
    // Same name, another length: admitted as new, under the plain name,
    // since the part left behind has gone.
    const peer::File changed{"second.bin", RandomBytes(900, 9)};
    OfferAsCaller({changed});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_TRUE(WaitForLog("Receiving File: second.bin"));
    Send(peer::Stream(changed.Bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("second.bin")), changed.Bytes);
    EXPECT_FALSE(PathExists(Incoming("second.bin-A")));
}

TEST_F(ReceiverTeardownTest, ANewListInTheSameCallLeavesNothingOfTheAbandonedOne) {
    OfferAsCaller({second_, third_});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    RequestDisconnect();
    EXPECT_EQ(Take(7), "ABORT\r\n");
    // The far end offers another list instead of hanging up.
    Send(ListFor({first_}));
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_FALSE(PathExists(Incoming("second.bin")));
    EXPECT_FALSE(PathExists(Incoming("third.bin")));
    Send(peer::Stream(first_.Bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("first.bin")), first_.Bytes);
}

TEST_F(ReceiverTeardownTest, TheExitDeletesAPartLeftForAResume) {
    LeaveAPartForAResume();
    Inspect([] { DiscardUnfinishedFiles(); });
    EXPECT_FALSE(PathExists(Incoming("second.bin")));
    EXPECT_TRUE(Inspect([] { return TheEngine.SavedEntry.WireName.IsEmpty(); }));
}

TEST_F(ReceiverTeardownTest, AFileThatCannotBeWrittenEndsTheSession) {
    OfferAsCaller({first_});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    ASSERT_TRUE(DeleteFileAt(Incoming("first.bin")));
    ASSERT_TRUE(CreateFolder(Incoming("first.bin")));
    Send(peer::Stream(first_.Bytes));
    EXPECT_EQ(Take(7), "ABORT\r\n");
    EXPECT_TRUE(WaitForLog("Cannot write file: first.bin"));
    EXPECT_TRUE(Logged("Sending disconnect..."));
    EXPECT_TRUE(WaitForState(LinkConnected));
}

TEST_F(SenderTeardownTest, AFileThatCannotBeReadEndsTheCall) {
    const std::string path = MakeFile("gone.txt", LetterBytes(3000));
    AddToSendList(path, "gone.txt");
    ConnectAndTakeList(1);
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
        const std::string before = TakeUntil("+++", 12000);
        ASSERT_GE(before.size(), 3u) << "attempt " << attempt;
        ASSERT_EQ(before.substr(before.size() - 3), "+++") << "attempt " << attempt;
        escapes.push_back(std::chrono::steady_clock::now());
    }
    for (size_t i = 1; i < escapes.size(); ++i) {
        // Each try waits for the escape's answer and for an answer to "AT",
        // then 5 s before the next.
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
    ASSERT_NE(TakeUntil("+++", 12000).find("+++"), std::string::npos);
    Send("\r\nOK\r\n");
    EXPECT_EQ(AnswerCommand(), "ATH");
    EXPECT_TRUE(AnswerProfile());
    EXPECT_TRUE(WaitForLog("Disconnected"));
    EXPECT_TRUE(WaitUntil([] { return TheEngine.LinkState.load() == LinkIdle; }));
    const auto log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "Hang-up failed."), 1);
}

// The line fell while the sender was busy, and its NO CARRIER went with the
// input thrown away when the feeder stopped: the adapter, in command mode
// again, lets "+++" pass but answers "AT". The call is over, not stuck.
TEST_F(SenderTeardownTest, AnEscapeLeftUnansweredByAnAdapterThatAnswersAtEndsTheCall) {
    SendOneFileToTheLastAck();
    ASSERT_NE(TakeUntil("+++", 5000).find("+++"), std::string::npos);
    EXPECT_EQ(AnswerCommand(), "AT");
    EXPECT_TRUE(AnswerProfile());
    EXPECT_TRUE(WaitForLog("Disconnected"));
    EXPECT_TRUE(WaitUntil([] { return TheEngine.LinkState.load() == LinkIdle; }));
    EXPECT_FALSE(Logged("Hang-up failed."));
}
