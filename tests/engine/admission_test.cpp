// Admission of a file list where the far end's word cannot be checked by a
// peer on a real line: the free space against what the entries announce, the
// largest length the block counters hold, names already taken (files and
// folders, up to the last suffix), the announced name kept for a resume, and
// empty files made at once but kept out of the list.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "engine/receiving_session_test_hooks.h"
#include "engine/sessions.h"
#include "engine/wire.h"
#include "engine_harness.h"
#include "platform/files.h"
#include "stores/paths.h"

namespace {

struct Offered {
    std::string Name;
    int32_t Kind;
    uint32_t DataLength;
};

class AdmissionTest : public EngineHarness {
protected:
    void SetUp() override {
        EngineHarness::SetUp();
        ConnectAsReceiver();
    }

    // A refusal throws away what is in the port's queues; the next offer
    // comes after that.
    std::string TakeRefusal() {
        std::string token = Take(6);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return token;
    }

    // A list whose header announces total and count, whatever the entries hold.
    void Offer(const std::vector<Offered>& entries, uint32_t total, uint32_t count) {
        std::string offer = "H100\r\n" + peer::Header(count, total);
        for (const Offered& entry : entries) {
            offer += peer::Entry(entry.Name, entry.Kind, entry.DataLength, entry.DataLength);
        }
        Send(offer);
    }
    // A list whose header tells the truth.
    void Offer(const std::vector<Offered>& entries) {
        uint32_t total = 0;
        for (const Offered& entry : entries) {
            total += entry.DataLength;
        }
        Offer(entries, total, static_cast<uint32_t>(entries.size()));
    }

    std::vector<std::string> ReceivedNames() const {
        return Inspect([] {
            std::vector<std::string> names;
            for (uint32_t i = 0; i < TheEngine.ReceiveCount.load(); ++i) {
                names.emplace_back(TheEngine.ReceiveList[i].DisplayName.View());
            }
            return names;
        });
    }
};

}  // namespace

TEST_F(AdmissionTest, FreeSpaceMustHoldWhatTheEntriesAnnounceWhateverTheHeaderSays) {
    const std::vector<Offered> two = {{"one.txt", 0, 1003}, {"two.txt", 0, 2000}};
    SetFreeSpaceQuery([] { return uint64_t{3002}; });
    Offer(two, 3003, 2);
    EXPECT_EQ(TakeRefusal(), "NAK3\r\n");
    EXPECT_TRUE(WaitForLog("Not enough free space on volume."));
    // The header claims 3000 bytes, which would fit; the entries hold 3003.
    Offer(two, 3000, 2);
    EXPECT_EQ(TakeRefusal(), "NAK3\r\n");
    const std::vector<std::string> log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "Not enough free space on volume."), 2);
    EXPECT_FALSE(PathExists(Incoming("one.txt")));
    EXPECT_EQ(TheEngine.LinkState.load(), LinkConnected);

    // A folder marker's lengths count for nothing.
    Offer({{"Box", 1, 0x7FFFFFFF}, {"one.txt", 0, 3002}}, 0, 2);
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{"one.txt"}));
}

TEST_F(AdmissionTest, FreeSpaceEqualToTheTotalIsEnough) {
    SetFreeSpaceQuery([] { return uint64_t{3003}; });
    Offer({{"one.txt", 0, 1003}, {"two.txt", 0, 2000}}, 3003, 2);
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_EQ(TheEngine.LinkState.load(), LinkTransfer);
    EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{"one.txt", "two.txt"}));
}

TEST_F(AdmissionTest, TheLargestLengthTheBlockCountersHoldIsTaken) {
    // 2^28 is refused (hostile_test); one byte less is not.
    Offer({{"last", 0, (1u << 28) - 1}}, (1u << 28) - 1, 1);
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{"last"}));
}

TEST_F(AdmissionTest, ANameWithAllItsSuffixesTakenRefusesTheList) {
    WriteWholeFile(Incoming("busy"), "0");
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        WriteWholeFile(Incoming(std::string("busy-") + letter), std::string(1, letter));
    }
    Offer({{"free", 0, 3}, {"busy", 0, 3}}, 6, 2);
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    EXPECT_TRUE(WaitForLog("Too many files named busy"));
    EXPECT_FALSE(PathExists(Incoming("free")));
    EXPECT_EQ(ReadWholeFile(Incoming("busy-Z")), "Z");

    // A folder marker whose name and every suffix are taken refuses the list
    // the same way; nothing is made in any of the folders.
    ASSERT_TRUE(CreateFolder(Incoming("box")));
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        ASSERT_TRUE(CreateFolder(Incoming(std::string("box-") + letter)));
    }
    Offer({{"box", 1, 0}, {"inside", 0, 3}}, 3, 2);
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    EXPECT_TRUE(WaitForLog("Too many files named box"));
    EXPECT_FALSE(PathExists(Incoming("box/inside")));
    EXPECT_FALSE(PathExists(Incoming("box-Z/inside")));

    // Twenty-eight files of one name in one list: the plain name and its 26
    // suffixes hold 27 of them.
    std::vector<Offered> same(28, Offered{"same", 0, 3});
    same.insert(same.begin(), Offered{"Box", 1, 0});
    Offer(same, 28 * 3, 29);
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    EXPECT_TRUE(WaitForLog("Too many files named same"));
    // The folder made for the refused list is gone again, and the log never
    // said it was made.
    EXPECT_FALSE(PathExists(Incoming("Box")));
    const std::vector<std::string> log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "Created new folder: Box"), 0);
    EXPECT_EQ(TheEngine.LinkState.load(), LinkConnected);
}

TEST_F(AdmissionTest, AFolderMarkerTakesTheFirstFreeSuffixAndItsFilesGoInside) {
    ASSERT_TRUE(CreateFolder(Incoming("Smith")));
    ASSERT_TRUE(CreateFolder(Incoming("Smith-A")));
    Offer({{"Smith", 1, 0}, {"letter.txt", 0, 5}}, 5, 2);
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_TRUE(WaitForLog("Created new folder: Smith-B"));
    EXPECT_TRUE(PathExists(Incoming("Smith-B/letter.txt")));
    EXPECT_FALSE(PathExists(Incoming("Smith/letter.txt")));
    EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{"letter.txt"}));
    // Without the marker the remaining total is that of the files.
    EXPECT_EQ(TheEngine.ReceiveRemaining.load(), 5u);
}

TEST_F(AdmissionTest, CollidingNamesTakeSuffixesAndNeverOverwrite) {
    WriteWholeFile(Incoming("report.doc"), "mine");
    const std::string longName(31, 'n');
    WriteWholeFile(Incoming(longName), "mine too");
    Offer({{"report.doc", 0, 5}, {"report.doc", 0, 5}, {longName, 0, 5}});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{"report.doc-A", "report.doc-B",
                                                         std::string(29, 'n') + "-A"}));
    // The announced names stay for a resume; the list on the wire follows the
    // names in use.
    EXPECT_EQ(Inspect([] { return std::string(TheEngine.ReceiveList[0].WireName.View()); }),
              "report.doc");
    EXPECT_EQ(Inspect([] { return std::string(TheEngine.WireList[1].Name.View()); }),
              "report.doc-B");
    EXPECT_EQ(ReadWholeFile(Incoming("report.doc")), "mine");
    EXPECT_EQ(ReadWholeFile(Incoming(longName)), "mine too");
    EXPECT_TRUE(WaitForLog("Receiving File: report.doc-A"));
}

TEST_F(AdmissionTest, EmptyFilesAreMadeAtOnceAndLeftOutOfTheList) {
    Offer({{"a.txt", 0, 5}, {"empty.txt", 0, 0}, {"b.txt", 0, 7}});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{"a.txt", "b.txt"}));
    EXPECT_EQ(TheEngine.ReceiveListSize.load(), 2);
    EXPECT_EQ(TheEngine.ReceiveRemaining.load(), 12u);
    EXPECT_TRUE(PathExists(Incoming("empty.txt")));
    EXPECT_EQ(ReadWholeFile(Incoming("empty.txt")), "");
    EXPECT_EQ(TheEngine.ExpectedBlock.load(), 5);
}

TEST_F(AdmissionTest, AListOfOnlyEmptyFilesIsAnsweredWithAck2) {
    WriteWholeFile(Incoming("x"), "mine");
    Offer({{"x", 0, 0}, {"y", 0, 0}});
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_TRUE(WaitForLog("All files received."));
    EXPECT_EQ(TheEngine.LinkState.load(), LinkConnected);
    EXPECT_EQ(ReadWholeFile(Incoming("x")), "mine");
    EXPECT_TRUE(PathExists(Incoming("x-A")));
    EXPECT_TRUE(PathExists(Incoming("y")));
    // An empty list too.
    Offer({});
    EXPECT_EQ(Take(6), "ACK2\r\n");
}
