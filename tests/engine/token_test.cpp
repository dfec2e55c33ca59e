// Tokens on both sides of a session in the orders of the protocol, and the
// adapter's answers to a dial.

#include "engine/dialing.h"
#include "engine_harness.h"
#include "platform/files.h"

namespace kb::test {

using namespace kb::engine;

using ReceiverTokenTest = EngineHarness;
using SenderTokenTest = EngineHarness;
using CallProgressTest = EngineHarness;

TEST_F(ReceiverTokenTest, NoiseAndTwoTokensOnALineAreHeardAndInRecoveryOnlySendRecovr) {
    ConnectAsReceiver();
    Send(std::string("\x7f noise SYN\0CO\0N\r\n", 19));
    EXPECT_EQ(Take(8), "RCVCON\r\n");
    const std::string bytes = RandomBytes(2000, 3);
    Send("SYNCON " + ListFor({{"fix.bin", bytes}}));
    EXPECT_EQ(Take(14), "RCVCON\r\nACK3\r\n");
    std::string stream = peer::Stream(bytes);
    stream[100] = static_cast<char>(stream[100] ^ 0x01);
    Send(stream);
    EXPECT_EQ(Take(12 + 80).substr(0, 12), "FILERECOVR\r\n");
    // Once the rest of the section has passed, well before the drain's own
    // limit of 10 s, however slow a loaded machine is.
    EXPECT_EQ(Take(10, 8000), "CONTSEND\r\n");
    ASSERT_TRUE(WaitForState(LinkState::Recovery));
    // Neither the line's fall nor a new session moves it now: SENDRECOVR
    // still finds it there.
    Send("\r\nNO CARRIER\r\nSYNCON\r\n");
    EXPECT_EQ(TakeFor(200), "");
    // Behind noise on its line, SENDRECOVR is heard, and the section comes
    // again from its start.
    Send("xx SENDRECOVR\r\n" + peer::Stream(bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("fix.bin")), bytes);
}

TEST_F(SenderTokenTest, AnAcceptanceBehindNoiseStartsTheTransferAndAck1CountsAsAck3) {
    const std::string bytes = RandomBytes(3000, 11);
    ChooseFile("a.bin", bytes);
    ConnectAsCaller();
    // Tokens that belong to no session in progress do nothing: the list
    // still goes out below.
    Send("ACK4\r\nACK2\r\nCONTSEND\r\nACK3\r\n");
    EXPECT_EQ(TakeFor(200), "");

    Send(std::string("junk\0 RCVCON\r\n", 14));
    const std::string offer = ListFor({{"a.bin", bytes}});
    EXPECT_EQ(Take(offer.size()), offer);
    // A second RCVCON does not offer the list twice.
    Send("RCVCON\r\n");
    EXPECT_EQ(TakeFor(200), "");

    Send("\r\nadapter noise ACK1\r\n");
    EXPECT_EQ(Take(bytes.size() + 2), peer::Stream(bytes));
    EXPECT_TRUE(WaitForState(LinkState::FileSent));
    // No second transfer starts on a second acceptance.
    Send("ACK3\r\n");
    EXPECT_EQ(TakeFor(100), "");
}

// A FILERESTA1 moves the feeder to the receiver's position; a recovery body
// that points past the file's blocks ends the call.
TEST_F(SenderTokenTest, FileResta1GoesOnFromTheReceiversPositionAndABodyOutsideTheFileEndsTheCall) {
    const std::string bytes = RandomBytes(2 * SectionFileBytes + 500, 13);
    const uint32_t length = peer::StreamLength(bytes.size());
    CallWithFile("big.bin", bytes);
    Send("FILERESTA1\r\n" + peer::RecoveryBody(length, 2, 502));
    EXPECT_EQ(Take(502), peer::Stream(bytes).substr(2 * SectionWireBytes));
    EXPECT_TRUE(WaitForState(LinkState::FileSent));
    Send("FILERECOVR\r\n" + peer::RecoveryBody(length, 3, 0));
    AnswerHangUp();
    EXPECT_FALSE(FeederRunning(engine_));
}

// A far end that answers the list with a refusal or with ACK2 ends the
// session, and the sender hangs up at once rather than wait for the far end's
// watchdog. A refusal is named in the log, and the list kept. ACK2 is the end
// of a list with no data, and ends one whose files have not gone as well: the
// bytes of those files count no more, so that the next list's estimate and
// header hold only its own.
TEST_F(SenderTokenTest, ARefusalOrAnAck2ToTheListEndsTheSessionAtOnce) {
    struct Case {
        const char* What;
        peer::File Chosen;  // put on the list before the call, beside what is left
        const char* Token;
        const char* Line;
        int Left;  // files on the list after the call
        uint32_t Remaining;
    };
    const char* fullLine = "The far end refused the list: not enough free space.";
    const std::vector<Case> cases = {
        {"no room", {"r.txt", LetterBytes(500)}, "NAK3\r\n", fullLine, 1, 502},
        {"a corrupted list", {}, "NAK4\r\n", "The far end refused the list as corrupted.", 1, 502},
        {"an early ACK2", {"g", LetterBytes(700)}, "ACK2\r\n", "All files sent.", 0, 0},
        {"no data", {"e", ""}, "ACK2\r\n", "All files sent.", 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.What);
        if (!c.Chosen.Name.empty()) {
            ChooseFile(c.Chosen.Name, c.Chosen.Bytes);
        }
        const long before = Count(c.Line);
        ConnectAndTakeList(static_cast<size_t>(engine_.SendList.Count()));
        Send(c.Token);
        AnswerHangUp();
        EXPECT_EQ(Count(c.Line), before + 1);
        EXPECT_EQ(engine_.SendList.Count(), c.Left);
        EXPECT_EQ(engine_.SendList.Remaining(), c.Remaining);
    }
}

TEST_F(CallProgressTest, BusyNoCarrierAndNoDialtoneEndTheDialAndCarrierCodesLeadEachNumber) {
    // Neither the far end's ringing nor a connection at a speed of no ISDN
    // call is the end of a dial.
    engine_.Call.LinkState = LinkState::Dialing;
    Send("\r\nRINGING\r\n\r\nCONNECT 9600\r\n");
    EXPECT_EQ(TakeFor(300), "");
    EXPECT_EQ(engine_.Call.LinkState.load(), LinkState::Dialing);
    for (const char* code : {"BUSY", "NO CARRIER", "NO DIAL TONE", "NO DIALTONE"}) {
        engine_.Call.Role = Role::Sender;
        engine_.Call.RetrievePending = true;
        engine_.Call.LinkState = LinkState::Dialing;
        Send(std::string("\r\n") + code + "\r\n");
        EXPECT_EQ(AnswerCommand().substr(0, 4), "AT\\Q") << code;
        ASSERT_TRUE(WaitForState(LinkState::Idle)) << code;
        EXPECT_TRUE(WaitUntil([&] {
            return engine_.Call.Role.load() != Role::Sender && !engine_.Call.RetrievePending.load();
        })) << code;
    }
    for (const char* line : {"Busy", "Disconnected", "No Dialtone."}) {
        EXPECT_TRUE(Logged(line)) << line;
    }
    // Shown for the two ways of saying there is no dial tone, once the
    // communications thread has let go of the port.
    ASSERT_TRUE(WaitUntil([this] { return Messages().size() == 2; }));
    const std::string noLine =
        "Cannot place an outgoing data call.\rPlease make sure your ISDN "
        "line is properly connected.";
    EXPECT_EQ(Messages(), std::vector<std::string>(2, noLine));

    // The carrier's code goes in front of each number dialled.
    EXPECT_EQ(DialString("(555) 123-4567", 2), "ATD102225551234567");
    EXPECT_EQ(DialString("111+222", 1), "ATD10288111+10288222");
    EXPECT_EQ(DialString("111&222", 0), "ATD111&222");
    // "+" splits even when an "&" comes first; the "&" stays in its half.
    EXPECT_EQ(DialString("1&2+3", 3), "ATD103331&2+103333");
    EXPECT_EQ(DialString("no digits", 0), "ATD");
    EXPECT_EQ(DialString("", 1), "ATD10288");
}

}  // namespace kb::test
