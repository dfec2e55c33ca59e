// The ends of a call that the stations' end-to-end tests cannot bring about
// or do not look into.

#include <algorithm>
#include <atomic>
#include <thread>

#include "engine/call_end.h"
#include "engine_harness.h"
#include "platform/files.h"
#include "support/small_volume.h"

namespace kb::test {

using namespace kb::engine;
using namespace kb::platform;

namespace {

using CallEndTest = EngineHarness;

class ReceiverTeardownTest : public EngineHarness {
protected:
    void OfferAsCaller(const std::vector<peer::File>& files) {
        ConnectAsReceiver();
        Send(ListFor(files));
        EXPECT_EQ(Take(6), "ACK3\r\n");
    }
};

using SenderTeardownTest = EngineHarness;

}  // namespace

// Each way a call ends logs its own lines, in this order, and leaves the link
// idle, with the file in hand back at its start and counted in full. A
// receiver that neither speaks nor takes data for as long as it would wait
// itself is gone: the sender says so and ends the call, not before.
TEST_F(CallEndTest, EachWayOfEndingLogsItsLinesAndLeavesTheLinkIdle) {
    ShortenPauses();
    const auto silentFor = [this](uint32_t limitMs) {
        const long before = Count("Remote end not responding.");
        const auto said = [&] { return Count("Remote end not responding.") > before; };
        JumpClock(limitMs - 2000);
        EXPECT_FALSE(WaitUntil(said, 1000));
        JumpClock(2001);
        ASSERT_TRUE(WaitUntil(said, 3000));
    };
    struct Case {
        const char* What;
        std::function<void()> Bring;
        uint32_t Total;                  // of the send list
        std::vector<std::string> Lines;  // the last lines of the log
    };
    const std::string rule = "------------------------------";
    const std::string profile = "Reinitializing Incoming: V.120 - 64K";
    const std::vector<Case> cases = {
        {"the sender loses the line in a transfer",
         [this] {
             // Far more than the line holds while the far end takes nothing.
             CallWithFile("d.bin", RandomBytes(4 * SectionFileBytes, 19));
             Send("ACK3\r\n");
             DropLine();
         },
         4 * SectionWireBytes,
         {"Remote end aborted transfer.", "Disconnected", rule, rule, profile}},
        {"the sender loses the line before the transfer",
         [this] {
             CallWithFile("d.bin", RandomBytes(3000, 20));
             DropLine();
         },
         3002,
         {"Connected 115200", "Disconnected", rule, rule, profile}},
        {"the receiver hears the sender hang up",
         [this] {
             engine_.Call.RetrievePending = true;
             ConnectAsReceiver();
             DropLine();
         },
         0,
         {"Connected 115200", "Disconnected", rule, profile}},
        {"the receiver says nothing to the list",
         [&] {
             CallWithFile("a.txt", LetterBytes(3000));
             silentFor(10000);
             // "AT" answered: the adapter is in command mode, the line has gone.
             AnswerLostLine();
         },
         3002,
         {"Remote end not responding.", "Disconnected", rule, profile}},
        {"the line takes no more of the file",
         [&] {
             CallWithFile("b.bin", LetterBytes(4 * SectionFileBytes));
             Send("ACK3\r\n");
             ASSERT_TRUE(WaitForState(LinkState::Transfer));
             silentFor(5000);
             AnswerHangUp(true);
         },
         4 * SectionWireBytes,
         {"Remote end not responding.", "Disconnected", rule, profile}},
        {"the file cannot be read",
         [this] {
             ASSERT_TRUE(DeleteFileAt(CallWithFile("gone.txt", LetterBytes(3000))));
             Send("ACK3\r\n");
             AnswerHangUp();
         },
         3002,
         {"Cannot read file: gone.txt", "Disconnected", rule, profile}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.What);
        c.Bring();
        ASSERT_TRUE(WaitForState(LinkState::Idle));
        const std::vector<std::string> log = Log();
        ASSERT_GE(log.size(), c.Lines.size());
        EXPECT_EQ(
            std::vector<std::string>(log.end() - static_cast<long>(c.Lines.size()), log.end()),
            c.Lines);
        EXPECT_FALSE(FeederRunning(engine_));
        EXPECT_EQ(engine_.Call.Role.load(), Role::Receiver);
        EXPECT_FALSE(engine_.Call.RetrievePending.load());
        EXPECT_EQ(engine_.SendList.Count(), c.Total == 0 ? 0 : 1);
        EXPECT_EQ(Inspect([&] { return uint32_t{engine_.SendList[0].BytesDone}; }), 0u);
        EXPECT_EQ(Inspect([&] { return engine_.SendList[0].NextBlock; }), 0);
        EXPECT_EQ(engine_.SendList.Remaining(), c.Total);
        // A time that went untold is not told by a later call's end either.
        EXPECT_EQ(engine_.Call.TransferStartTime.load(), 0);
        engine_.SendList.Clear();
    }
}

// The program ends with a file kept for a resume and starts again: the
// record on the disk brings the candidate back, a part one section longer
// than recorded (an end between a section's append and the record's write)
// cut back. A record that is not whole, or a part that fits it in no such
// way, is no resume: the file comes whole, and the part stays as it stands.
// A file of that name but another length is a new file: it comes whole
// under the plain name, and the part goes.
TEST_F(ReceiverTeardownTest, ARestartTakesUpOnlyAPartThatItsRecordVouchesFor) {
    ShortenPauses();
    struct Case {
        const char* What;
        std::function<void(const std::string& part)> Change;
        bool Resumed;
        size_t Changed = 0;  // the length of the file offered instead, if any
    };
    const auto grow = [](size_t bytes) {
        return [bytes](const std::string& part) {
            WriteWholeFile(part, ReadWholeFile(part) + RandomBytes(bytes, 5));
        };
    };
    const std::vector<Case> cases = {
        {"a section more than recorded", grow(SectionFileBytes), true},
        {"a record with a byte changed past the end of every text in it",
         [this](const std::string&) {
             std::string record = ReadWholeFile(stores_.Paths.ResumeRecordPath);
             record[record.size() / 2] = static_cast<char>(record[record.size() / 2] ^ 0x5A);
             WriteWholeFile(stores_.Paths.ResumeRecordPath, record);
         },
         false},
        {"a part shorter than recorded",
         [](const std::string& part) { WriteWholeFile(part, ReadWholeFile(part).substr(0, 1000)); },
         false},
        {"a part longer by more than a section", grow(SectionFileBytes + 1), false},
        {"a changed file", [](const std::string&) {}, false, 900},
    };
    uint32_t seed = 30;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.What);
        const peer::File file{"case" + std::to_string(seed) + ".bin",
                              RandomBytes(SectionFileBytes + 9000, seed++)};
        const std::string part = Incoming(file.Name + ".part");
        // A call that ends with the file's first section on the disk, kept
        // for a resume. The user presses Disconnect twice: ABORT, then the
        // hang-up of a call whose far end has already gone.
        OfferAsCaller({file});
        Send(peer::Stream(file.Bytes).substr(0, SectionWireBytes + 10));
        ASSERT_TRUE(WaitUntil(
            [&] { return Inspect([&] { return engine_.ReceiveList[0].NextBlock == 16; }); }));
        EndCall(engine_, CallEnd::Requested);
        EXPECT_EQ(Take(7), "ABORT\r\n");
        EXPECT_EQ(engine_.Call.LinkState.load(), LinkState::Connected);
        std::thread again([&] { EndCall(engine_, CallEnd::Requested); });
        AnswerLostLine();
        again.join();
        ASSERT_TRUE(PathExists(part));
        c.Change(part);
        const std::string left = ReadWholeFile(part);
        // The program's exit and its next start, as far as the engine goes:
        // what it held in memory is gone, and what it keeps on the disk is
        // read again.
        Inspect([this] {
            EngineShutdown(engine_);
            EngineStartup(engine_, stores_);
        });

        const peer::File offered =
            c.Changed == 0 ? file : peer::File{file.Name, RandomBytes(c.Changed, 9)};
        const std::string stream = peer::Stream(offered.Bytes);
        const uint32_t length = peer::StreamLength(offered.Bytes.size());
        ConnectAsReceiver();
        Send(ListFor({offered}));
        if (c.Resumed) {
            EXPECT_EQ(Take(12 + 80),
                      "FILERESTA3\r\n" + peer::RecoveryBody(length, 1, length - SectionWireBytes));
            Send(stream.substr(SectionWireBytes));
        } else {
            EXPECT_EQ(Take(6), "ACK3\r\n");
            Send(stream);
        }
        EXPECT_EQ(Take(6), "ACK2\r\n");
        DropLine();
        EXPECT_TRUE(ReadWholeFile(Incoming(file.Name)) == offered.Bytes);
        if (c.Resumed || c.Changed != 0) {
            EXPECT_FALSE(PathExists(part));
        } else {
            EXPECT_TRUE(ReadWholeFile(part) == left);
        }
    }
}

TEST_F(ReceiverTeardownTest, AFileThatCannotBeWrittenEndsTheSession) {
    // An empty file is made with its list; with "Incoming Files" gone it
    // cannot be, and is no file received.
    ASSERT_TRUE(RemoveFolder(stores_.Paths.IncomingPath));
    ConnectAsReceiver();
    Send(ListFor({{"e.txt", ""}}));
    EXPECT_EQ(Take(7), "ABORT\r\n");
    EXPECT_TRUE(WaitForLog("Cannot write file: e.txt"));
    EXPECT_FALSE(Logged("All files received."));
    DropLine();
    ASSERT_TRUE(CreateFolder(stores_.Paths.IncomingPath));

    const peer::File first{"first.bin", RandomBytes(5000, 1)};
    OfferAsCaller({first});
    ASSERT_TRUE(DeleteFileAt(Incoming("first.bin.part")));
    ASSERT_TRUE(CreateFolder(Incoming("first.bin.part")));
    Send(peer::Stream(first.Bytes));
    EXPECT_EQ(Take(7), "ABORT\r\n");
    EXPECT_TRUE(WaitForLog("Cannot write file: first.bin"));
    EXPECT_TRUE(Logged("Sending disconnect..."));
    EXPECT_TRUE(WaitForState(LinkState::Connected));
}

// "Incoming Files" on a volume of its own that fills up in the middle of a
// file: the receiver says why it stops, keeps the whole sections, and takes
// the file up again once there is room.
TEST_F(ReceiverTeardownTest, AFullDiskIsSaidAndTheFileTakenUpOnceThereIsRoom) {
    SmallVolume volume(stores_.Paths.IncomingPath, "200k");
    if (!volume.Mounted()) {
        GTEST_SKIP() << volume.Why();
    }
    const peer::File big{"big.bin", RandomBytes(2 * SectionFileBytes + 100, 6)};
    OfferAsCaller({big});
    const std::string stream = peer::Stream(big.Bytes);
    Send(stream);
    EXPECT_EQ(Take(7), "ABORT\r\n");
    EXPECT_TRUE(WaitForLog("Not enough free space on volume."));
    const std::vector<std::string> log = Log();
    const auto full = std::find(log.begin(), log.end(), "Not enough free space on volume.");
    ASSERT_NE(full, log.begin());
    EXPECT_EQ(*(full - 1), "Cannot write file: big.bin");
    DropLine();
    EXPECT_EQ(ReadWholeFile(Incoming("big.bin.part")).size(), SectionFileBytes);

    ASSERT_TRUE(volume.Resize("1m"));
    ConnectAsReceiver();
    Send(ListFor({big}));
    EXPECT_EQ(Take(12 + 80).substr(0, 12), "FILERESTA3\r\n");
    Send(stream.substr(SectionWireBytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_TRUE(ReadWholeFile(Incoming("big.bin")) == big.Bytes);
}

// The receiver's limits on silence: on blocks, on anything at all, and on a
// token after a failed section.
TEST_F(ReceiverTeardownTest, FiveSecondsWithoutABlockOrTenWithoutATokenEndTheTransferAndTheCall) {
    OfferAsCaller({{"stall.bin", RandomBytes(8191, 1)}});
    // Each limit counts from a stamp of the engine's last pass: once that
    // pass has ended, the clock goes to just before the limit, and with the
    // real wait and a second jump just past it.
    Inspect([] {});
    JumpClock(4000);
    EXPECT_EQ(TakeFor(500), "");  // not before the limit...
    JumpClock(501);
    EXPECT_EQ(Take(7, 900), "ABORT\r\n");  // ...but just after it
    const std::vector<std::string> log = Log();
    const auto bytes = std::find(log.begin(), log.end(), "Bytes Read: 0");
    ASSERT_NE(bytes, log.end());
    EXPECT_EQ(*(bytes + 1), "Sending disconnect...");
    // In LinkState::Connected the far end has ten seconds to say something; then
    // the adapter is asked whether the call is still up: it is not. A caller
    // says SYNCON once that it is there: one that says it again, and nothing
    // else, would otherwise hold the line for ever, so the repeat renews
    // nothing.
    EXPECT_TRUE(WaitForState(LinkState::Connected));
    Inspect([] {});
    JumpClock(9000);
    Send("SYNCON\r\n");
    EXPECT_EQ(TakeFor(500), "RCVCON\r\n");
    JumpClock(501);
    AnswerLostLine(700);

    // A caller that passed a list and then streams bytes that are no blocks:
    // the section fails, its rest never stops coming, and no SENDRECOVR comes.
    // Once the limit on silence has passed, the receiver aborts and hangs up at
    // once, and finds the escape's OK behind the stream still arriving.
    OfferAsCaller({{"s.bin", RandomBytes(SectionFileBytes + 100, 3)}});
    std::atomic<bool> streaming{true};
    std::thread stream([&] {
        const std::string noise = LetterBytes(4096);
        while (streaming.load()) {
            Send(noise);
        }
    });
    EXPECT_TRUE(Comes("FILERECOVR\r\n"));
    JumpClock(10001);
    // The ABORT and the "AT" in front of the escape may go with the output
    // thrown away before it. The "AT" waits for its answer and the escape
    // for its pause, while the stream keeps the processor busy: the wait is
    // long, and ends as soon as the escape comes.
    EXPECT_TRUE(Comes("+++", 20000));
    Send("\r\nOK\r\n");
    streaming = false;
    stream.join();
    EXPECT_EQ(AnswerCommand(), "ATH");
    BackToIdle();
    EXPECT_EQ(Count("Sending disconnect..."), 2);
    EXPECT_EQ(Count("Serial Limit Reached"), 1);
}

// An escape left unanswered after the last ACK. The line fell while the
// sender was busy, and its NO CARRIER went with the input thrown away when
// the feeder stopped: the adapter, in command mode again, lets "+++" pass but
// answers "AT", and the call is over, not stuck. An adapter that answers
// nothing at all: the sending side, which has no watchdog, tries twice more,
// 5 s apart, and then leaves the call to the line's fall or the user.
TEST_F(SenderTeardownTest, AnUnansweredEscapeEndsALostCallOrIsTriedTwiceMoreFiveSecondsApart) {
    ShortenPauses();
    // A short file goes out and is acknowledged as the last: the sender
    // hangs up next.
    const auto sendOneFileToTheLastAck = [this] {
        CallWithFile("note.txt", LetterBytes(300));
        Send("ACK3\r\n");
        Take(302);
        ASSERT_TRUE(WaitForState(LinkState::FileSent));
        Send("ACK2\r\n");
    };
    sendOneFileToTheLastAck();
    ASSERT_TRUE(Comes("+++"));
    JumpClock(3000);
    AnswerLostLine();
    EXPECT_FALSE(Logged("Hang-up failed."));

    sendOneFileToTheLastAck();
    ASSERT_TRUE(Comes("+++", 12000));
    for (long failed = 1; failed <= 3; ++failed) {
        SCOPED_TRACE(failed);
        // Each try waits for the escape's answer and for an answer to "AT",
        // then 5 s before the next, counted from the end of its pass.
        JumpClock(3000);
        ASSERT_TRUE(Comes("AT\r"));
        JumpClock(2000);
        ASSERT_TRUE(WaitUntil([&] { return Count("Hang-up failed.") == failed; }));
        Inspect([] {});
        JumpClock(3000);
        EXPECT_FALSE(Comes("+++", 1000));
        JumpClock(1001);
        // Two more tries; no fourth, and the call is still up as far as this
        // end knows.
        EXPECT_EQ(Comes("+++", 1000), failed < 3);
    }
    EXPECT_EQ(engine_.Call.LinkState.load(), LinkState::Connected);
    EXPECT_EQ(Count("Disconnected"), 1);  // the first call's

    // When the line falls after all, the call ends as any other.
    DropLine();
    EXPECT_EQ(Count("Disconnected"), 2);
}

}  // namespace kb::test
