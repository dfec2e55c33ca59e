// The window is told of a transfer at the points where its figures change,
// in order; and a conversation with the adapter from another thread never
// shares the port with the communications thread.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/wire.h"
#include "engine_harness.h"
#include "line/adapter.h"

namespace {

using DisplayPointsTest = EngineHarness;
using PortHandOverTest = EngineHarness;

// True if the calls hold the expected ones in this order, with others
// between them.
::testing::AssertionResult InOrder(const std::vector<std::string>& calls,
                                   const std::vector<std::string>& expected) {
    size_t at = 0;
    for (const std::string& call : calls) {
        if (at < expected.size() && call == expected[at]) {
            ++at;
        }
    }
    if (at == expected.size()) {
        return ::testing::AssertionSuccess();
    }
    std::string all;
    for (const std::string& call : calls) {
        all += call + " ";
    }
    return ::testing::AssertionFailure() << "missing " << expected[at] << " in " << all;
}

}  // namespace

TEST_F(DisplayPointsTest, TheSendingSideReportsEachFileAndTheEndOfTheCall) {
    const std::string a = PatternBytes(9000, 1);
    const std::string b = PatternBytes(100, 2);
    AddToSendList(MakeFile("a", a), "a");
    AddToSendList(MakeFile("b", b), "b");
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 2 * 56);
    Send("ACK3\r\n");
    Take(9002);
    ASSERT_TRUE(WaitForState(LinkFileSent));
    Send("ACK4\r\n");
    Take(102);
    ASSERT_TRUE(WaitForState(LinkFileSent));
    Send("ACK2\r\n");
    AnswerHangUp();
    ASSERT_TRUE(WaitUntil([] { return TheEngine.WeSend.load() == 0; }));
    EXPECT_TRUE(InOrder(window.Calls(),
                        {"ShowTransferDisplay(1)", "ShowThroughput(1,0)",
                         // ACK4: the first file leaves the list
                         "SetProgress(100,100)", "ShowThroughput(1,1)", "RemoveTopFileRow()",
                         "ShowBatchEstimate(102)",
                         // ACK2
                         "SetProgress(100,100)", "ShowThroughput(1,1)", "RemoveTopFileRow()",
                         "ShowBatchEstimate(0)",
                         // the hang-up
                         "ShowTransferDisplay(0)", "LogElapsedTime()", "UpdateActionButtons()"}));
}

TEST_F(DisplayPointsTest, TheReceivingSideReportsAdmissionEachFileAndTheEnd) {
    SetFreeSpaceQuery([] { return uint64_t{1} << 30; });
    ConnectAsAnswerer();
    Send("SYNCON\r\n");
    Take(8);
    const std::string a = PatternBytes(9000, 1);
    const std::string b = PatternBytes(100, 2);
    Send("H100\r\n" + WireHeader(2, 9104) + WireEntry("a", 0, 9002) + WireEntry("b", 0, 102));
    EXPECT_EQ(Take(6), "ACK3\r\n");
    Send(DataStreamOf(a));
    EXPECT_EQ(Take(6), "ACK4\r\n");
    Send(DataStreamOf(b));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    Send("\r\nNO CARRIER\r\n");
    EXPECT_TRUE(AnswerProfile());
    ASSERT_TRUE(WaitUntil([this] { return TheEngine.LinkState.load() == LinkIdle; }));
    EXPECT_TRUE(InOrder(window.Calls(),
                        {"ListIncomingFiles()", "ShowBatchEstimate(9104)", "ShowTransferDisplay(1)",
                         // the first file is through
                         "ShowThroughput(0,1)", "SetProgress(100,100)", "RemoveTopFileRow()",
                         "ShowBatchEstimate(102)", "ShowBatchEstimate(102)", "SetProgress(0,102)",
                         "ShowThroughput(0,0)",
                         // the last
                         "ShowThroughput(0,1)", "SetProgress(100,100)", "RemoveTopFileRow()",
                         "ShowBatchEstimate(0)",
                         // the line falls; the buttons come back only after the tidying
                         "LogElapsedTime()", "ClearFileList()", "ShowTransferDisplay(0)",
                         "UpdateActionButtons()"}));
}

TEST_F(PortHandOverTest, AnExchangeFromAnotherThreadGetsItsOwnReplies) {
    // The communications thread idles on the port; each exchange takes the
    // port from it, and the reply reaches the exchange, not the line handler.
    for (int i = 0; i < 30; ++i) {
        std::thread exchange([] { EXPECT_TRUE(SendAndWaitOk("ATZ")); });
        EXPECT_EQ(TakeUntil("\r"), "ATZ\r");
        Send("ATZ\r\r\nRING\r\nOK\r\n");
        exchange.join();
    }
    EXPECT_EQ(TakeFor(100), "");
    EXPECT_EQ(LinePollingEnabled.load(), 1);
    // And the line handler has the port again.
    Send("\r\nRING\r\n");
    EXPECT_EQ(TakeUntil("\r", 3000), "ATA\r");
}
