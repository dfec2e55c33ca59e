// Tokens on both sides of a session, in the orders of the protocol: noise in
// front of a token, NUL bytes inside a line, several tokens on one line, and
// tokens that belong to no session in progress; the adapter's answers to a
// call, and exchanges with it from another thread while the communications
// thread waits on the port.

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/dialing.h"
#include "engine/recovery.h"
#include "engine/session_threads.h"
#include "engine/wire.h"
#include "engine_harness.h"
#include "line/adapter.h"
#include "platform/control_model.h"
#include "platform/message_box.h"
#include "resources/resource.h"

namespace {

using ReceiverTokenTest = EngineHarness;
using SenderTokenTest = EngineHarness;
using CallProgressTest = EngineHarness;
using PortHandOverTest = EngineHarness;

std::string OneFileOffer(const std::string& name, size_t size) {
    return "H100\r\n" + WireHeader(1, static_cast<uint32_t>(DataLengthForSize(size))) +
           WireEntry(name, 0, static_cast<uint32_t>(DataLengthForSize(size)));
}

}  // namespace

TEST_F(ReceiverTokenTest, NoiseAndNulBytesAroundATokenAreLeftOutOfTheLine) {
    ConnectAsAnswerer();
    Send(std::string("\x7f noise SYN\0CO\0N\r\n", 19));
    EXPECT_EQ(Take(8), "RCVCON\r\n");
    // A lone CR LF, as the first half of an adapter message, matches nothing.
    Send("\r\n");
    EXPECT_EQ(TakeFor(100), "");
}

TEST_F(ReceiverTokenTest, ALineHoldingSynconAndH100IsServedInThatOrder) {
    ConnectAsAnswerer();
    const std::string bytes = PatternBytes(5, 7);
    Send("SYNCON H100\r\n" + OneFileOffer("both.txt", 5).substr(6));
    EXPECT_EQ(Take(14), "RCVCON\r\nACK3\r\n");
    Send(DataStreamOf(bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("both.txt")), bytes);
}

TEST_F(ReceiverTokenTest, ATokenSplitByAPauseLongerThanOneReadIsStillHeard) {
    ConnectAsAnswerer();
    // The first piece is read, and the read's time runs out, before the rest
    // arrives.
    Send("SYN");
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    Send("CON\r\n");
    EXPECT_EQ(Take(8), "RCVCON\r\n");
    const std::string bytes = PatternBytes(40, 9);
    const std::string offer = OneFileOffer("late.txt", bytes.size());
    Send("noise H1");
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    Send(offer.substr(2));
    EXPECT_EQ(Take(6), "ACK3\r\n");
    Send(DataStreamOf(bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("late.txt")), bytes);
}

TEST_F(ReceiverTokenTest, InRecoveryOnlySendRecovrIsHeard) {
    ConnectAsAnswerer();
    Send("SYNCON\r\n");
    EXPECT_EQ(Take(8), "RCVCON\r\n");
    const std::string bytes = PatternBytes(2000, 3);
    Send(OneFileOffer("fix.bin", bytes.size()));
    EXPECT_EQ(Take(6), "ACK3\r\n");
    std::string stream = DataStreamOf(bytes);
    stream[100] = static_cast<char>(stream[100] ^ 0x01);
    Send(stream);
    EXPECT_EQ(Take(12), "FILERECOVR\r\n");
    Take(80);
    EXPECT_EQ(Take(10, 3000), "CONTSEND\r\n");
    ASSERT_TRUE(WaitForState(LinkRecovery));
    EXPECT_TRUE(Logged("Packet byte error 3."));

    // Neither the line's fall nor a new session moves it now.
    Send("\r\nNO CARRIER\r\nSYNCON\r\n");
    EXPECT_EQ(TakeFor(200), "");
    EXPECT_EQ(TheEngine.LinkState.load(), LinkRecovery);
    // Behind noise on its line, SENDRECOVR is heard, and the section comes
    // again from its start.
    Send("xx SENDRECOVR\r\n" + DataStreamOf(bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("fix.bin")), bytes);
}

TEST_F(SenderTokenTest, AnAcceptanceBehindNoiseStartsTheTransferAndAck1CountsAsAck3) {
    const std::string bytes = PatternBytes(3000, 11);
    AddToSendList(MakeFile("a.bin", bytes), "a.bin");
    ConnectAsCaller();
    // Tokens that belong to no session in progress do nothing.
    Send("ACK4\r\nACK2\r\nCONTSEND\r\nACK3\r\n");
    EXPECT_EQ(TakeFor(200), "");
    EXPECT_EQ(TheEngine.LinkState.load(), LinkConnected);

    Send(std::string("junk\0 RCVCON\r\n", 14));
    const std::string offer = OneFileOffer("a.bin", bytes.size());
    EXPECT_EQ(Take(offer.size()), offer);
    // A second RCVCON does not offer the list twice.
    Send("RCVCON\r\n");
    EXPECT_EQ(TakeFor(200), "");

    Send("\r\nadapter noise ACK1\r\n");
    EXPECT_EQ(Take(bytes.size() + 2), DataStreamOf(bytes));
    EXPECT_TRUE(WaitForState(LinkFileSent));
    EXPECT_TRUE(Logged("Sending File: a.bin"));
    // No second transfer starts on a second acceptance.
    Send("ACK3\r\n");
    EXPECT_EQ(TakeFor(100), "");
    Send("ACK2\r\n");
    AnswerHangUp();
    EXPECT_TRUE(WaitForState(LinkIdle));
}

TEST_F(SenderTokenTest, FileResta1GoesOnFromTheReceiversPosition) {
    const std::string bytes = PatternBytes(2 * SectionFileBytes + 500, 13);
    AddToSendList(MakeFile("big.bin", bytes), "big.bin");
    const uint32_t dataLength = static_cast<uint32_t>(DataLengthForSize(bytes.size()));
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 56);
    Send("FILERESTA1\r\n" + BodyAt(dataLength, 2, 502));
    const std::string stream = DataStreamOf(bytes);
    EXPECT_EQ(Take(502), stream.substr(2 * SectionWireBytes));
    EXPECT_TRUE(WaitForLog("Sending Recovered File: big.bin"));
    EXPECT_TRUE(WaitForState(LinkFileSent));
    Send("ACK2\r\n");
    AnswerHangUp();
}

TEST_F(SenderTokenTest, AShortRecoveryBodyEndsTheCall) {
    const std::string bytes = PatternBytes(100, 17);
    AddToSendList(MakeFile("c.bin", bytes), "c.bin");
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 56);
    Send("FILERESTA3\r\n" + std::string(40, '\0'));
    // After the body's second of silence: the adapter is asked whether the
    // call is still up, and it is not.
    EXPECT_EQ(AnswerCommand(3000), "AT");
    EXPECT_EQ(AnswerCommand().substr(0, 4), "AT\\Q");
    EXPECT_TRUE(WaitForState(LinkIdle));
    EXPECT_TRUE(Logged("Read Buffer Timeout"));
    EXPECT_EQ(TheEngine.SendCount.load(), 1);
}

TEST_F(SenderTokenTest, LossOfCarrierInTransferResetsTheFileInHand) {
    // Far more than the line holds while the far end takes nothing in.
    const std::string bytes = PatternBytes(4 * SectionFileBytes, 19);
    AddToSendList(MakeFile("d.bin", bytes), "d.bin");
    const uint32_t total = TheEngine.SendRemaining.load();
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 56);
    Send("ACK3\r\n\r\nNO CARRIER\r\n");
    EXPECT_TRUE(AnswerProfile());
    // The last step of the end of the call sums the list again.
    ASSERT_TRUE(WaitUntil([this] {
        for (const std::string& call : window.Calls()) {
            if (call.rfind("RecomputeSendTotal", 0) == 0) {
                return true;
            }
        }
        return false;
    }));
    EXPECT_EQ(TheEngine.LinkState.load(), LinkIdle);
    EXPECT_FALSE(FeederRunning());
    const std::vector<std::string> log = Log();
    const auto aborted = std::find(log.begin(), log.end(), "Remote end aborted transfer.");
    ASSERT_NE(aborted, log.end()) << ::testing::PrintToString(log);
    EXPECT_EQ(*(aborted + 1), "Disconnected");
    // The list keeps the file, back at its start, counted in full.
    EXPECT_EQ(TheEngine.SendCount.load(), 1);
    EXPECT_EQ(Inspect([] { return uint32_t{TheEngine.SendList[0].BytesDone}; }), 0u);
    EXPECT_EQ(Inspect([] { return TheEngine.SendList[0].NextBlock; }), 0);
    EXPECT_EQ(TheEngine.SendRemaining.load(), total);
    EXPECT_EQ(TheEngine.WeSend.load(), 0);
}

TEST_F(SenderTokenTest, EmptyFilesLeaveTheListWithoutWaitingForAnAck) {
    const std::string a = PatternBytes(500, 21);
    const std::string b = PatternBytes(700, 22);
    AddToSendList(MakeFile("a", a), "a");
    AddToSendList(MakeFile("e1", ""), "e1");
    AddToSendList(MakeFile("e2", ""), "e2");
    AddToSendList(MakeFile("b", b), "b");
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 4 * 56);
    Send("ACK3\r\n");
    EXPECT_EQ(Take(502), DataStreamOf(a));
    ASSERT_TRUE(WaitForState(LinkFileSent));
    // The far end made the empty files at admission and asks for b at once.
    Send("ACK4\r\n");
    EXPECT_EQ(Take(702), DataStreamOf(b));
    EXPECT_TRUE(WaitForLog("Sending File: b"));
    EXPECT_FALSE(Logged("Sending File: e1"));
    ASSERT_TRUE(WaitForState(LinkFileSent));
    Send("ACK2\r\n");
    AnswerHangUp();
    EXPECT_TRUE(WaitForLog("All files sent."));
}

TEST_F(SenderTokenTest, AListWithNoDataIsThroughAtTheFirstAck2) {
    AddToSendList(MakeFile("e", ""), "e");
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 56);
    Send("ACK2\r\n");
    AnswerHangUp();
    EXPECT_TRUE(WaitForLog("All files sent."));
    EXPECT_EQ(TheEngine.SendCount.load(), 0);
}

TEST_F(CallProgressTest, RingIsAnsweredRingingAndOtherSpeedsAreNot) {
    Send("\r\nRINGING\r\n");
    EXPECT_EQ(TakeFor(300), "");
    Send("\r\nRING\r\n");
    EXPECT_EQ(TakeUntil("\r", 3000), "ATA\r");
    Send("\r\nCONNECT 9600\r\n");
    EXPECT_EQ(TakeFor(200), "");
    EXPECT_EQ(TheEngine.LinkState.load(), LinkIdle);
    Send("\r\nCONNECT 230400\r\n");
    EXPECT_TRUE(WaitForState(LinkConnected));
    EXPECT_TRUE(WaitForLog("Connected 230400"));
    // The answering side sends nothing first.
    EXPECT_EQ(TakeFor(100), "");
}

TEST_F(CallProgressTest, BusyNoCarrierAndNoDialtoneEndTheDial) {
    std::mutex lock;
    std::vector<std::string> messages;
    SetMessageBoxHandler([&](const std::string& text) {
        std::lock_guard<std::mutex> guard(lock);
        messages.push_back(text);
    });
    for (const char* code : {"BUSY", "NO CARRIER", "NO DIAL TONE", "NO DIALTONE"}) {
        TheEngine.WeSend = 1;
        TheEngine.RetrievePending = 1;
        TheEngine.LinkState = LinkDialing;
        Send(std::string("\r\n") + code + "\r\n");
        EXPECT_EQ(AnswerCommand().substr(0, 4), "AT\\Q") << code;
        ASSERT_TRUE(WaitForState(LinkIdle)) << code;
        EXPECT_TRUE(WaitUntil([] {
            return TheEngine.WeSend.load() == 0 && TheEngine.RetrievePending.load() == 0;
        })) << code;
    }
    for (const char* line : {"Busy", "Disconnected", "No Dialtone."}) {
        EXPECT_TRUE(Logged(line)) << line;
    }
    // The message is shown once the communications thread has let go of the
    // port.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::lock_guard<std::mutex> guard(lock);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0],
              "Cannot place an outgoing data call.\rPlease make sure your ISDN line is properly "
              "connected.");
    SetMessageBoxHandler(nullptr);
}

TEST_F(CallProgressTest, PlaceCallSetsUpTheAdapterThenDialsTheFilteredNumber) {
    ControlModel& controls = Controls();
    controls.Reset();
    for (const int id : {IDC_NAME, IDC_NUMBER, IDC_CARRIER, IDC_PROTOCOL, IDC_56K}) {
        ControlState state;
        state.id = id;
        if (id == IDC_CARRIER) {
            state.rows = {{"Default", "", 0}, {"AT&T", "", 0}, {"MCI", "", 0}, {"Sprint", "", 0}};
        }
        controls.Create(state);
    }
    // Without a number nothing goes to the adapter.
    std::vector<std::string> messages;
    SetMessageBoxHandler([&](const std::string& text) { messages.push_back(text); });
    PlaceCall();
    EXPECT_EQ(messages,
              std::vector<std::string>{"Please select a correspondent in your Directory."});
    EXPECT_EQ(TakeFor(100), "");
    SetMessageBoxHandler(nullptr);

    controls.SetText(IDC_NAME, "Smith & Co");
    controls.SetText(IDC_NUMBER, "(030) 555-12+555 13");
    controls.Select(IDC_CARRIER, 1);
    std::thread caller(PlaceCall);
    // The outgoing profile first, then the dial string; the adapter's answer
    // comes at once, and is read only once the link is dialling.
    EXPECT_EQ(AnswerCommand().substr(0, 4), "AT\\Q");
    EXPECT_EQ(TakeUntil("\r"), "ATD1028803055512+1028855513\r");
    Send("\r\nBUSY\r\n");
    caller.join();
    EXPECT_EQ(AnswerCommand().substr(0, 4), "AT\\Q");
    EXPECT_TRUE(WaitForState(LinkIdle));
    const std::vector<std::string> log = Log();
    const auto calling = std::find(log.begin(), log.end(), "Calling Smith & Co");
    ASSERT_NE(calling, log.end());
    EXPECT_EQ(*(calling + 1), "at (030) 555-12+555 13");
    EXPECT_TRUE(Logged("Busy"));
    controls.Reset();
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

TEST(DialStringTest, CarrierCodesGoInFrontOfEachNumber) {
    EXPECT_EQ(DialString("(555) 123-4567", 2), "ATD102225551234567");
    EXPECT_EQ(DialString("111+222", 1), "ATD10288111+10288222");
    EXPECT_EQ(DialString("111&222", 0), "ATD111&222");
    // "+" splits even when an "&" comes first; the "&" stays in its half.
    EXPECT_EQ(DialString("1&2+3", 3), "ATD103331&2+103333");
    EXPECT_EQ(DialString("no digits", 0), "ATD");
    EXPECT_EQ(DialString("", 1), "ATD10288");
}
