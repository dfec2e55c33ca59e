// Calls on a faulty line: virtual-ta flips bits in what the calling station
// sends, or lets the line fall after a given byte, and the two stations must
// come out with every file either whole and identical, or gone, or kept for
// a resume at exactly its good sections.
//
// Offsets are counted as the line counts them: every data byte the caller's
// adapter carries after CONNECT. The caller sends "SYNCON\r\n", then "H100\r\n"
// with the 28-byte header and a 56-byte entry for each file, then each file's
// stream: for every section of up to 131070 bytes, its 2-byte checksum, high
// byte first, and the bytes.

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/small_volume.h"
#include "two_stations.h"

namespace kb::test {

using namespace kb::platform;

namespace {

using peer::SectionData;

constexpr size_t SectionOnLine = SectionData + 2;
constexpr size_t ChecksumChunk = 1024;

// The line offset of data byte `byte` of section `section` of a file whose
// stream starts at `start`.
size_t DataByte(size_t start, size_t section, size_t byte) {
    return start + section * SectionOnLine + 2 + byte;
}

}  // namespace

TEST(FaultyLineTest, ACorruptedByteIsFoundAndItsSectionSentAgainUnlessItIsInTheUncheckedTail) {
    constexpr size_t Whole = 7 * SectionData + 9000;  // seven full sections and a short one
    const size_t start = peer::ListBytes(1);
    // One section that ends exactly on a block: after it the sender waits,
    // so its bytes on the line are the section, "SENDRECOVR\r\n" and the
    // section again.
    const size_t resent = start + SectionOnLine + 12;
    // The section checksum leaves out the last chunk of 1 to 1024 bytes of
    // each section; a fault there reaches the disk unnoticed.
    const size_t inTail = SectionData - ChecksumChunk / 2;
    struct Case {
        const char* What;
        size_t Size;
        std::vector<size_t> Offsets;
        std::vector<std::string> Lines;
        size_t Unnoticed = std::string::npos;  // a file byte that arrives flipped
    };
    const std::vector<Case> cases = {
        {"first section", Whole, {DataByte(start, 0, 700)}, {"Packet byte error 2."}},
        {"third section", Whole, {DataByte(start, 2, 65000)}, {"Packet byte error 2."}},
        {"last, short section", Whole, {DataByte(start, 7, 3000)}, {"Packet byte error 3."}},
        {"a checksum byte", Whole, {start + 5 * SectionOnLine + 1}, {"Packet byte error 2."}},
        {"twice in one section",
         SectionData,
         {DataByte(start, 0, 100), DataByte(resent, 0, 90000)},
         {"Packet byte error 1.", "Packet byte error 1."}},
        {"the unchecked tail", 2 * SectionData, {DataByte(start, 0, inTail)}, {}, inTail},
    };
    EachCaseAtOnce(cases, [](const Case& c) {
        SCOPED_TRACE(c.What);
        const std::string bytes = RandomBytes(c.Size, 11);
        std::vector<std::string> options = {"--rate", "0"};
        for (const size_t offset : c.Offsets) {
            options.insert(options.end(), {"--fault", "corrupt:5551001:" + std::to_string(offset)});
        }
        AliceAndBob line("zyxel-2864", options);
        line.Choose({{"file.bin", bytes}});
        line.SendThrough();
        EXPECT_EQ(LinesHolding(line.Bob->LogLines(), {"Packet byte error"}), c.Lines);
        std::string expected = bytes;
        if (c.Unnoticed != std::string::npos) {
            expected[c.Unnoticed] = static_cast<char>(expected[c.Unnoticed] ^ 0x01);
        }
        ExpectSameBytes(line.IncomingPath("file.bin"), expected);
    });
}

TEST(FaultyLineTest, ACallCutOffAnywhereLeavesWholeFilesOrAResumableOneAndTheResendCompletes) {
    const std::string big = RandomBytes(1 << 20, 14);
    const std::string note = RandomBytes(20000, 15);
    const size_t start = peer::ListBytes(2);
    const size_t noteStart = start + peer::StreamLength(big.size());
    struct Case {
        const char* What;
        size_t Offset;
        bool BigComplete;
        size_t KeptBytes;  // of the file in progress
    };
    const std::vector<Case> cases = {
        {"inside the fourth section", DataByte(start, 3, 40000), false, 3 * SectionData},
        {"at a section boundary", start + 5 * SectionOnLine, false, 5 * SectionData},
        {"in the second file", noteStart + 5000, true, 0},
    };
    EachCaseAtOnce(cases, [&](const Case& c) {
        SCOPED_TRACE(c.What);
        AliceAndBob line("zyxel-2864",
                         {"--rate", "0", "--fault", "drop:5551001:" + std::to_string(c.Offset)});
        line.Choose({{"big.bin", big}, {"note.txt", note}});
        ASSERT_EQ(line.Alice->Command("send"), "ok");
        line.BackToIdle();

        const std::string inProgress = c.BigComplete ? "note.txt" : "big.bin";
        if (c.BigComplete) {
            ExpectSameBytes(line.IncomingPath("big.bin"), big);
        }
        // The file in progress stands under its marker, never under its own
        // name; a file that had not begun has nothing on the disk.
        ASSERT_TRUE(PathExists(line.IncomingPath(inProgress + ".part")));
        EXPECT_EQ(ReadWholeFile(line.IncomingPath(inProgress + ".part")).size(), c.KeptBytes);
        EXPECT_FALSE(PathExists(line.IncomingPath(inProgress)));
        if (!c.BigComplete) {
            EXPECT_FALSE(PathExists(line.IncomingPath("note.txt")));
            EXPECT_FALSE(PathExists(line.IncomingPath("note.txt.part")));
        }

        // The same list again: what is left of it goes, the file in progress
        // from where it stopped.
        line.SendThrough();
        EXPECT_EQ(LinesHolding(line.Alice->LogLines(), {"Sending Recovered File: "}),
                  std::vector<std::string>{"Sending Recovered File: " + inProgress});
        EXPECT_EQ(LinesHolding(line.Bob->LogLines(), {"Recovering File: "}),
                  std::vector<std::string>{"Recovering File: " + inProgress});
        ExpectSameBytes(line.IncomingPath("big.bin"), big);
        ExpectSameBytes(line.IncomingPath("note.txt"), note);
        EXPECT_FALSE(PathExists(line.IncomingPath("big-A.bin")));
        EXPECT_FALSE(PathExists(line.IncomingPath("note-A.txt")));
        EXPECT_FALSE(PathExists(line.IncomingPath(inProgress + ".part")));
    });
}

// Bob's "Incoming Files" is a small volume of its own, far smaller than the
// disk of his installation: a list that does not fit there is refused, and
// Alice says why and hangs up.
TEST(FaultyLineTest, AListLargerThanTheRoomWhereFilesGoIsRefusedAndTheSenderSaysWhy) {
    AliceAndBob line("zyxel-2864", {"--rate", "0"});
    SmallVolume volume(line.IncomingPath(""), "100k");
    if (!volume.Mounted()) {
        GTEST_SKIP() << volume.Why();
    }
    line.Choose({{"big.bin", RandomBytes(300000, 20)}});
    ASSERT_EQ(line.Alice->Command("send"), "ok");
    ASSERT_TRUE(line.Bob->WaitForLog("Not enough free space on volume."));
    ASSERT_TRUE(line.Alice->WaitForLog("The far end refused the list: not enough free space."));
    line.BackToIdle();
}

// A call broken off half-way, after which the next call sends the file
// through. Alice's station stops dead (SIGSTOP) and so falls silent on a line
// that stays up, before it has said a word or in the middle of a file: Bob's
// watchdogs end the call and hang up, and once Alice runs again her adapter
// tells her the line has gone. Or Disconnect is pressed, on either side and
// in each state of the transfer, and both stations end the call.
TEST(FaultyLineTest, ACallThatFallsSilentOrIsDisconnectedEndsCleanlyAndTheNextOneCompletes) {
    struct Case {
        const char* What;
        enum { AliceFallsSilent, AlicePresses, BobPresses } How;
        const char* When;     // the line of Alice's log she falls silent after, or
                              // the state she waits for before the press
        const char* BobSees;  // before Alice falls silent
        int Presses = 1;
    };
    const std::vector<Case> cases = {
        {"silent from the start", Case::AliceFallsSilent, "at 555-2002", "Connected"},
        {"silent in the middle of a file", Case::AliceFallsSilent,
         "Sending File: ", "Receiving File: "},
        {"sender, the file going out", Case::AlicePresses, "transfer", ""},
        {"sender, awaiting the last ACK", Case::AlicePresses, "filesent", ""},
        {"receiver, once", Case::BobPresses, "transfer", ""},
        {"receiver, twice", Case::BobPresses, "transfer", "", 2}};
    const std::string note = RandomBytes(72000, 17);
    EachCaseAtOnce(cases, [&](const Case& c) {
        SCOPED_TRACE(c.What);
        AliceAndBob line("zyxel-2864", {"--rate", "24000"});
        line.Choose({{"note.txt", note}});
        ASSERT_EQ(line.Alice->Command("send"), "ok");
        if (c.How == Case::AliceFallsSilent) {
            ASSERT_TRUE(line.Alice->WaitForLog(c.When));
            ASSERT_EQ(kill(line.Alice->Pid(), SIGSTOP), 0);
            EXPECT_TRUE(line.Bob->WaitForLog(c.BobSees));
            const bool ended = line.Bob->WaitForLog("Disconnected");
            EXPECT_TRUE(line.Bob->WaitForLog("Reinitializing Incoming"));
            ASSERT_EQ(kill(line.Alice->Pid(), SIGCONT), 0);
            ASSERT_TRUE(ended);
            ASSERT_TRUE(line.Alice->WaitForLog("Disconnected", std::chrono::seconds(20)))
                << line.Logs();
            ASSERT_TRUE(line.Alice->WaitForLog("Reinitializing Incoming"));
            ASSERT_EQ(line.Alice->Command("wait-state idle 30"), "ok");
            ASSERT_EQ(line.Bob->Command("wait-state idle 30"), "ok");
            EXPECT_TRUE(LinesHolding(line.Bob->LogLines(), {"Hang-up failed."}).empty());
        } else {
            ASSERT_EQ(line.Alice->Command(std::string("wait-state ") + c.When + " 30"), "ok");
            if (c.How == Case::BobPresses) {
                ASSERT_EQ(line.Bob->Command("wait-state transfer 30"), "ok");
            }
            Station& presser = c.How == Case::BobPresses ? *line.Bob : *line.Alice;
            for (int press = 0; press < c.Presses; ++press) {
                // A second press may find the call already over, its button off.
                const std::string answer = presser.Command("disconnect");
                EXPECT_TRUE(press > 0 || answer == "ok") << answer;
            }
            line.BackToIdle();
        }
        if (c.How == Case::BobPresses) {
            EXPECT_EQ(LinesHolding(line.Alice->LogLines(), {"Received abort request."}).size(), 1u)
                << line.Logs();
        }
        // A file whose every byte had arrived, but whose ACK had not when the
        // line went, is complete at the receiver and is sent again in full
        // beside it, since the sender cannot know; any other that had begun
        // stays resumable.
        const bool arrivedWhole =
            !LinesHolding(line.Bob->LogLines(), {"All files received."}).empty();

        line.SendThrough();
        ExpectSameBytes(line.IncomingPath("note.txt"), note);
        EXPECT_EQ(PathExists(line.IncomingPath("note-A.txt")), arrivedWhole) << line.Logs();
        if (arrivedWhole) {
            ExpectSameBytes(line.IncomingPath("note-A.txt"), note);
        } else if (c.How != Case::AliceFallsSilent) {
            EXPECT_EQ(LinesHolding(line.Bob->LogLines(), {"Recovering File: "}),
                      std::vector<std::string>{"Recovering File: note.txt"});
        }
    });
}

namespace {

// One call of the table below: a sender and a receiver, each in an
// installation of its own on an adapter of the family given, the sender set
// to call the receiver on one channel or two; and how the call ends.
struct CallCase {
    const char* SenderFamily;
    const char* ReceiverFamily;
    bool TwoChannels;
    enum Ending { SenderPresses, ReceiverPresses, ReceiverKilled } End;
    const char* File;  // a file that the line can hold whole, or one it cannot
};

struct CallEnds {
    const CallCase& Case;
    std::unique_ptr<Station> Sender;
    std::unique_ptr<Station> Receiver;
};

}  // namespace

// The ways a call must end, all at once on one virtual-ta. Disconnect is
// pressed in the middle of a file by the sender, or by the receiver (whose
// ABORT the sender answers by hanging up, while the file still pours in at
// the receiver), on every family of adapter, on one channel and on two: the
// call ends at both ends within a few seconds, no hang-up fails, and a
// receiver says "Serial Limit Reached" at most once. Two receivers are killed
// in the middle of a file and not started again, one while its sender still
// has blocks to go and one when the line has taken the whole file: each
// sender, which the line takes nothing more from and nothing comes to, says
// so and ends the call by itself. The second killed receiver's sender then
// sends its file to the first receiver, whose call was broken off.
TEST(CallEndTest, EveryCallEndsAndNoneHoldsTheLine) {
    const std::vector<CallCase> cases = {
        {"bitsurfr", "bitsurfr", false, CallCase::SenderPresses, "big.bin"},
        {"bitsurfr", "adtran-xrt", true, CallCase::ReceiverPresses, "big.bin"},
        {"adtran-xr", "zyxel-2864", false, CallCase::SenderPresses, "big.bin"},
        {"adtran-xrt", "bitsurfr", true, CallCase::ReceiverPresses, "big.bin"},
        {"zyxel-2864", "3com", false, CallCase::SenderPresses, "big.bin"},
        {"zyxel-omninet", "zyxel-ta128", true, CallCase::ReceiverPresses, "big.bin"},
        {"3com", "adtran-xr", false, CallCase::SenderPresses, "big.bin"},
        {"zyxel-ta128", "zyxel-2864", false, CallCase::ReceiverKilled, "big.bin"},
        {"bitsurfr", "zyxel-2864", false, CallCase::ReceiverKilled, "small.bin"},
    };
    TempFolder root;
    const auto number = [](size_t i, bool receiver) {
        return std::string(receiver ? "555200" : "555100") + std::to_string(i);
    };
    std::vector<std::string> adapters;
    for (size_t i = 0; i < cases.size(); ++i) {
        for (const bool receiver : {false, true}) {
            const std::string folder =
                MakeInstallation(root, (receiver ? "r" : "s") + std::to_string(i));
            adapters.push_back(
                folder + "/COM1=" + (receiver ? cases[i].ReceiverFamily : cases[i].SenderFamily) +
                ":" + number(i, receiver));
        }
    }
    const std::string small = RandomBytes(36000, 42);
    WriteWholeFile(root / "big.bin", RandomBytes(400000, 41));
    WriteWholeFile(root / "small.bin", small);
    VirtualAdapters line(adapters, {"--rate", "8000", "--trace", root / "trace"});
    std::vector<CallEnds> calls;
    for (size_t i = 0; i < cases.size(); ++i) {
        calls.push_back({cases[i], std::make_unique<Station>(root / ("s" + std::to_string(i))),
                         std::make_unique<Station>(root / ("r" + std::to_string(i)))});
    }
    for (size_t i = 0; i < calls.size(); ++i) {
        const CallEnds& call = calls[i];
        SCOPED_TRACE(i);
        ASSERT_TRUE(call.Receiver->WaitForLog("Initializing Incoming"));
        ASSERT_TRUE(call.Sender->WaitForLog("Initializing Incoming"));
        ASSERT_TRUE(call.Sender->Address("Far", number(i, true)));
        if (call.Case.TwoChannels) {
            // Two channels as the families bundle them: AIMUX, or a ZyXEL's 2B.
            const bool zyxel = std::string(call.Case.SenderFamily).rfind("zyxel", 0) == 0;
            ASSERT_EQ(call.Sender->Command(zyxel ? "2b on" : "protocol AIMUX"), "ok");
            ASSERT_EQ(call.Receiver->Command(zyxel ? "in-2b on" : "in-protocol AIMUX"), "ok");
        }
        ASSERT_EQ(call.Sender->Command("choose " + (root / call.Case.File)), "ok");
        ASSERT_EQ(call.Sender->Command("send"), "ok");
    }
    std::vector<std::thread> endings;
    for (size_t i = 0; i < calls.size(); ++i) {
        const CallEnds& call = calls[i];
        const CallCase::Ending end = call.Case.End;
        ASSERT_EQ(call.Receiver->Command("wait-state transfer 30"), "ok");
        endings.emplace_back([&call, end, i] {
            SCOPED_TRACE("row " + std::to_string(i) + ", " + call.Case.SenderFamily);
            Station& receiver = *call.Receiver;
            const auto fewSeconds = std::chrono::seconds(10);
            Station& sender = *call.Sender;
            if (end == CallCase::ReceiverKilled) {
                EXPECT_EQ(kill(receiver.Pid(), SIGKILL), 0);
                EXPECT_TRUE(
                    sender.WaitForLog("Remote end not responding.", std::chrono::seconds(30)))
                    << sender.LogText();
            } else {
                Station& presser = end == CallCase::SenderPresses ? sender : receiver;
                EXPECT_EQ(presser.Command("disconnect"), "ok");
            }
            EXPECT_TRUE(sender.WaitForLog("Disconnected", fewSeconds)) << sender.LogText();
            EXPECT_EQ(sender.Command("wait-state idle 30"), "ok");
            EXPECT_EQ(sender.Count("Hang-up failed."), 0) << sender.LogText();
            if (end != CallCase::ReceiverKilled) {
                EXPECT_TRUE(receiver.WaitForLog("Disconnected", fewSeconds)) << receiver.LogText();
                EXPECT_EQ(receiver.Command("wait-state idle 30"), "ok");
                EXPECT_LE(receiver.Count("Serial Limit Reached"), 1) << receiver.LogText();
            }
        });
    }
    for (std::thread& ending : endings) {
        ending.join();
    }
    // The calls that were to have two channels had them.
    EXPECT_EQ(Occurrences(ReadWholeFile(root / "trace"), ", 2 channels,"), 3u);

    // A real call after the broken ones is served: the file that the dead
    // receiver never had.
    Station& sender = *calls[8].Sender;
    Station& first = *calls[0].Receiver;
    ASSERT_EQ(sender.Command("number " + number(0, true)), "ok");
    ASSERT_EQ(sender.Command("send"), "ok");
    ASSERT_TRUE(sender.WaitForLog("All files sent.")) << sender.LogText();
    ASSERT_TRUE(first.WaitForLog("All files received.")) << first.LogText();
    ExpectSameBytes(root / "r0/Incoming Files/small.bin", small);
    EXPECT_TRUE(first.WaitForLog("Disconnected"));
}

}  // namespace kb::test
