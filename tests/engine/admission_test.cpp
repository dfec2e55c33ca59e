// Admission of a file list: what the far end announces decides nothing by
// itself. The magic, the free space, the counts and lengths, the names and
// the folder are all judged before a byte goes to the disk.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine/sessions.h"
#include "engine/wire.h"
#include "engine_harness.h"
#include "platform/files.h"
#include "stores/paths.h"

namespace {

struct Offered {
    std::string name;
    int32_t kind;
    uint32_t dataLength;
};

class AdmissionTest : public EngineHarness {
protected:
    // A refusal throws away what is in the port's queues; the next offer
    // comes after that.
    std::string TakeRefusal() {
        std::string token = Take(6);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return token;
    }

    void SetUp() override {
        EngineHarness::SetUp();
        SetFreeSpaceQuery([] { return uint64_t{1} << 40; });
        ConnectAsAnswerer();
        Send("SYNCON\r\n");
        EXPECT_EQ(Take(8), "RCVCON\r\n");
    }

    void Offer(const std::vector<Offered>& entries, uint32_t total, uint32_t count) {
        std::string offer = "H100\r\n" + WireHeader(count, total);
        for (const Offered& entry : entries) {
            offer += WireEntry(entry.name, entry.kind, entry.dataLength);
        }
        Send(offer);
    }
    void Offer(const std::vector<Offered>& entries) {
        uint32_t total = 0;
        for (const Offered& entry : entries) {
            total += entry.dataLength;
        }
        Offer(entries, total, static_cast<uint32_t>(entries.size()));
    }

    // What the installation's folder holds, every path below it.
    std::set<std::string> Tree() const {
        std::set<std::string> paths;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root.Path())) {
            paths.insert(entry.path().string().substr(root.Path().size()));
        }
        return paths;
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

TEST_F(AdmissionTest, AWrongMagicEndsTheCallWithoutAWord) {
    // The right bytes in the wrong order are wrong too.
    Send("H100\r\n" + WireHeader(1, 3, 0x0055AAFF) + WireEntry("a", 0, 3));
    // The adapter is asked whether the call is up; it says it is not.
    EXPECT_EQ(AnswerCommand(), "AT");
    EXPECT_TRUE(AnswerProfile());
    EXPECT_TRUE(WaitForLog("Disconnected"));
    EXPECT_FALSE(Logged("Corrupted file list."));
    EXPECT_FALSE(Logged("Not enough free space on volume."));
    EXPECT_FALSE(PathExists(Incoming("a")));
}

TEST_F(AdmissionTest, FreeSpaceEqualToTheTotalIsEnoughAndOneByteLessIsNot) {
    SetFreeSpaceQuery([] { return uint64_t{3002}; });
    Offer({{"one.txt", 0, 1003}, {"two.txt", 0, 2000}});
    EXPECT_EQ(TakeRefusal(), "NAK3\r\n");
    EXPECT_TRUE(WaitForLog("Not enough free space on volume."));
    EXPECT_FALSE(PathExists(Incoming("one.txt")));
    EXPECT_EQ(TheEngine.LinkState.load(), LinkConnected);

    SetFreeSpaceQuery([] { return uint64_t{3003}; });
    Offer({{"one.txt", 0, 1003}, {"two.txt", 0, 2000}});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_EQ(TheEngine.LinkState.load(), LinkTransfer);
    EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{"one.txt", "two.txt"}));
}

TEST_F(AdmissionTest, ATotalBelowWhatTheEntriesAnnounceDoesNotPassTheSpaceCheck) {
    SetFreeSpaceQuery([] { return uint64_t{3002}; });
    // The header claims 3000 bytes; the entries hold 3003.
    Offer({{"one.txt", 0, 1003}, {"two.txt", 0, 2000}}, 3000, 2);
    EXPECT_EQ(TakeRefusal(), "NAK3\r\n");
    const std::vector<std::string> log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "Not enough free space on volume."), 1);
    EXPECT_FALSE(PathExists(Incoming("one.txt")));
    EXPECT_EQ(TheEngine.LinkState.load(), LinkConnected);
    // A folder marker's lengths count for nothing.
    Offer({{"Box", 1, 0x7FFFFFFF}, {"one.txt", 0, 3002}}, 0, 2);
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{"one.txt"}));
}

TEST_F(AdmissionTest, AListShorterThanAnnouncedIsRefused) {
    Offer({{"a.txt", 0, 10}}, 20, 2);
    EXPECT_EQ(Take(6, 3000), "NAK4\r\n");
    const std::vector<std::string> log = Log();
    const auto timeout = std::find(log.begin(), log.end(), "Read Buffer Timeout");
    ASSERT_NE(timeout, log.end());
    EXPECT_EQ(*(timeout + 1), "Corrupted file list.");
    EXPECT_FALSE(PathExists(Incoming("a.txt")));
    EXPECT_EQ(TheEngine.ReceiveCount.load(), 0u);
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

TEST_F(AdmissionTest, AFolderMarkerGetsAFolderOfItsOwn) {
    CreateFolder(Incoming("Smith"));
    CreateFolder(Incoming("Smith-A"));
    Offer({{"Smith", 1, 0}, {"letter.txt", 0, 5}});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_TRUE(WaitForLog("Created new folder: Smith-B"));
    EXPECT_EQ(TheEngine.ReceiveCount.load(), 1u);
    EXPECT_EQ(Inspect([] { return std::string(TheEngine.ReceiveList[0].FilePath.View()); }),
              Incoming("Smith-B") + "/letter.txt");
    EXPECT_TRUE(PathExists(Incoming("Smith-B/letter.txt")));
    // Without the marker the remaining total is that of the files.
    EXPECT_EQ(TheEngine.ReceiveRemaining.load(), 5u);
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

TEST_F(AdmissionTest, NamesCannotReachOutsideTheReceiveFolder) {
    const std::set<std::string> before = Tree();
    Offer({{"../escape", 1, 0},
           {"../../etc", 0, 3},
           {"a/b", 0, 3},
           {"c\\d", 0, 3},
           {std::string("\x01\x1f") + "ctl", 0, 3},
           {".", 0, 3},
           {"..", 0, 3},
           {"", 0, 3}});
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_TRUE(WaitForLog("Created new folder: .._escape"));
    EXPECT_EQ(ReceivedNames(),
              (std::vector<std::string>{".._.._etc", "a_b", "c_d", "__ctl", "_", "_-A", "_-B"}));
    // The announced name stays for a resume.
    EXPECT_EQ(Inspect([] { return std::string(TheEngine.ReceiveList[0].WireName.View()); }),
              "../../etc");
    std::set<std::string> added;
    for (const std::string& path : Tree()) {
        if (before.count(path) == 0) {
            added.insert(path);
        }
    }
    const std::string folder = "/Incoming Files/.._escape";
    EXPECT_EQ(added, (std::set<std::string>{folder, folder + "/.._.._etc", folder + "/a_b",
                                            folder + "/c_d", folder + "/__ctl", folder + "/_",
                                            folder + "/_-A", folder + "/_-B"}));
}

TEST_F(AdmissionTest, CountsAndLengthsBeyondWhatTheListsHoldAreRefused) {
    // 101 entries: more than a list holds.
    std::vector<Offered> many(101, Offered{"f", 0, 3});
    Offer(many);
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    // The entries behind the header are read as lines of noise and dropped.
    EXPECT_EQ(TakeFor(700), "");
    Offer({}, 0, 0xFFFFFFFF);
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    // A data length the block counters cannot hold, and one no file has.
    Offer({{"huge", 0, 1u << 28}});
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    Offer({{"odd", 0, SectionWireBytes + 1}});
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    // A marker anywhere but at the head.
    Offer({{"a", 0, 3}, {"folder", 1, 0}});
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    const std::vector<std::string> log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "Corrupted file list."), 5);
    EXPECT_TRUE(std::filesystem::is_empty(IncomingPath));

    // 100 entries fit, and the last length below the limit is taken.
    std::vector<Offered> hundred;
    for (int i = 0; i < 99; ++i) {
        hundred.push_back({"f" + std::to_string(i), 0, 3});
    }
    hundred.push_back({"last", 0, (1u << 28) - 1});
    Offer(hundred);
    EXPECT_EQ(Take(6), "ACK3\r\n");
    EXPECT_EQ(TheEngine.ReceiveCount.load(), 100u);
}

TEST_F(AdmissionTest, ANameWithAllItsSuffixesTakenRefusesTheList) {
    WriteWholeFile(Incoming("busy"), "0");
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        WriteWholeFile(Incoming(std::string("busy-") + letter), std::string(1, letter));
    }
    Offer({{"free", 0, 3}, {"busy", 0, 3}});
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    EXPECT_TRUE(WaitForLog("Too many files named busy"));
    EXPECT_FALSE(PathExists(Incoming("free")));
    EXPECT_EQ(ReadWholeFile(Incoming("busy-Z")), "Z");

    // Twenty-eight files of one name in one list: the plain name and its 26
    // suffixes hold 27 of them.
    std::vector<Offered> same(28, Offered{"same", 0, 3});
    same.insert(same.begin(), Offered{"Box", 1, 0});
    Offer(same);
    EXPECT_EQ(TakeRefusal(), "NAK4\r\n");
    EXPECT_TRUE(WaitForLog("Too many files named same"));
    // The folder made for the refused list is gone again, and the log never
    // said it was made.
    EXPECT_FALSE(PathExists(Incoming("Box")));
    const std::vector<std::string> log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "Created new folder: Box"), 0);
    EXPECT_EQ(TheEngine.LinkState.load(), LinkConnected);
}
