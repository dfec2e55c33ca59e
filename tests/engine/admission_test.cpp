// Admission of a file list where a peer on a real line cannot check the far
// end's word.

#include <optional>
#include <thread>

#include "engine/call_end.h"
#include "engine_harness.h"
#include "platform/files.h"

namespace kb::test {

using namespace kb::engine;
using namespace kb::platform;

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

    // A list, its header's total that of the entries unless given; the
    // answer to it. A refusal throws away what is in the input, so the next
    // offer waits until it has.
    std::string Offer(const std::vector<Offered>& entries, std::optional<uint32_t> total = {}) {
        std::string list;
        uint32_t sum = 0;
        for (const Offered& entry : entries) {
            list += peer::Entry(entry.Name, entry.Kind, entry.DataLength, entry.DataLength);
            sum += entry.DataLength;
        }
        Send("H100\r\n" + peer::Header(static_cast<uint32_t>(entries.size()), total.value_or(sum)) +
             list);
        const std::string answer = Take(6);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return answer;
    }

    std::vector<std::string> ReceivedNames() {
        return Inspect([&] {
            std::vector<std::string> names;
            for (uint32_t i = 0; i < engine_.Call.ReceiveCount.load(); ++i) {
                names.emplace_back(engine_.ReceiveList[i].DisplayName.View());
            }
            return names;
        });
    }

    // This end breaks the transfer off; the far end may offer again.
    void Abandon() {
        EndCall(engine_, CallEnd::Requested);
        EXPECT_EQ(Take(7), "ABORT\r\n");
    }
};

}  // namespace

TEST_F(AdmissionTest, FreeSpaceHoldsTheLargerTotalAndAFileTakesItsNameOnlyWhenWhole) {
    struct Case {
        const char* What;
        uint64_t Free;
        uint32_t HeaderTotal;
        std::vector<Offered> Entries;
        std::vector<std::string> Taken;  // the files of a list that is taken
    };
    const std::vector<Offered> pair = {{"one.txt", 0, 1003}, {"two.txt", 0, 2000}};
    const std::vector<Offered> boxed = {{"Box", 1, 0x7FFFFFFF}, {"one.txt", 0, 3002}};
    const uint32_t longest = (1u << 28) - 1;  // the longest stream the block counters hold
    const std::vector<Case> cases = {
        {"a total too large", 3002, 3003, pair, {}},
        {"a total that understates the entries", 3002, 3000, pair, {}},
        {"a marker counts nothing", 3002, 0, boxed, {"one.txt"}},
        {"exactly the free space", 3003, 3003, pair, {"one.txt", "two.txt"}},
        {"the longest stream", uint64_t{1} << 40, longest, {{"last", 0, longest}}, {"last"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.What);
        SetFreeSpaceQuery(engine_, [free = c.Free] { return free; });
        const long refusals = Count("Not enough free space on volume.");
        EXPECT_EQ(Offer(c.Entries, c.HeaderTotal), c.Taken.empty() ? "NAK3\r\n" : "ACK3\r\n");
        EXPECT_EQ(ReceivedNames(), c.Taken);
        if (!c.Taken.empty()) {
            Abandon();
        } else {
            EXPECT_EQ(Count("Not enough free space on volume."), refusals + 1);
        }
    }
    // Each list that was refused or abandoned for the next left nothing
    // behind, and the call went on.
    EXPECT_FALSE(PathExists(Incoming("Box/one.txt")));
    EXPECT_FALSE(PathExists(Incoming("one.txt")));
    EXPECT_FALSE(PathExists(Incoming("two.txt")));
    // The last list's file is kept for a resume, under its marker.
    EXPECT_TRUE(PathExists(Incoming("last.part")));
    EXPECT_FALSE(PathExists(Incoming("last")));

    // A file stands under its own name only once it is whole: until then under a
    // marker, made when its turn comes, so that a file not begun has nothing on
    // the disk. A name that something took meanwhile is never taken from it.
    const peer::File first{"a.txt", RandomBytes(2000, 4)};
    const peer::File second{"b.txt", RandomBytes(10, 5)};
    Send(ListFor({first, second, {"e.txt", ""}}));
    EXPECT_EQ(Take(6), "ACK3\r\n");
    // What else stands on the disk meanwhile, the killed station's test shows.
    EXPECT_TRUE(PathExists(Incoming("a.txt.part")));

    WriteWholeFile(Incoming("a.txt"), "mine");
    Send(peer::Stream(first.Bytes));
    EXPECT_EQ(Take(6), "ACK4\r\n");
    // Compared whole, so that a failure does not print the data.
    EXPECT_TRUE(ReadWholeFile(Incoming("a.txt")) == "mine");
    EXPECT_TRUE(ReadWholeFile(Incoming("a-A.txt")) == first.Bytes);
    EXPECT_FALSE(PathExists(Incoming("a.txt.part")));
    EXPECT_TRUE(Logged("Name taken meanwhile; saved as a-A.txt"));
    EXPECT_TRUE(PathExists(Incoming("b.txt.part")));

    Send(peer::Stream(second.Bytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_TRUE(ReadWholeFile(Incoming("b.txt")) == second.Bytes);
    EXPECT_FALSE(PathExists(Incoming("b.txt.part")));
}

TEST_F(AdmissionTest, NamesTakenGetSuffixesTheAnnouncedNameIsKeptAndWithoutOneLeftTheListGoes) {
    WriteWholeFile(Incoming("report.doc"), "mine");
    EXPECT_EQ(Offer({{"report.doc", 0, 5}, {"report.doc", 0, 5}}), "ACK3\r\n");
    EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{"report-A.doc", "report-B.doc"}));
    // The announced name stays for a resume; the list on the wire follows the
    // names in use.
    EXPECT_EQ(Inspect([&] { return std::string(engine_.ReceiveList[0].WireName.View()); }),
              "report.doc");
    EXPECT_EQ(Inspect([&] { return std::string(engine_.WireList[1].Name.View()); }),
              "report-B.doc");
    EXPECT_EQ(ReadWholeFile(Incoming("report.doc")), "mine");
    Abandon();

    // The letter goes in front of the extension, which only the last dot
    // begins and which is neither the whole name, nor empty, nor longer than
    // ten bytes; the stem gives way to keep 31 bytes, and never cuts a
    // character of two bytes in two.
    std::string umlauts;
    for (int i = 0; i < 15; ++i) {
        umlauts += "\xC3\xBC";
    }
    const struct {
        std::string Name;
        std::string Second;
    } cases[] = {
        {"notes", "notes-A"},
        {".profile", ".profile-A"},
        {"file.", "file.-A"},
        {"a.tar.gz", "a.tar-A.gz"},
        {"m.abcdefghi", "m-A.abcdefghi"},
        {"m.abcdefghij", "m.abcdefghij-A"},
        {"abcdefghijklmnopqrstuvwxyz0.pdf", "abcdefghijklmnopqrstuvwxy-A.pdf"},
        {umlauts.substr(0, 26) + "a.pdf", umlauts.substr(0, 24) + "-A.pdf"},
        {umlauts + "a", umlauts.substr(0, 28) + "-A"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        EXPECT_EQ(Offer({{c.Name, 0, 5}, {c.Name, 0, 5}}), "ACK3\r\n");
        EXPECT_EQ(ReceivedNames(), (std::vector<std::string>{c.Name, c.Second}));
        Abandon();
    }

    // A name with all its suffixes taken refuses the list and makes nothing.
    WriteWholeFile(Incoming("busy"), "0");
    ASSERT_TRUE(CreateFolder(Incoming("box")));
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        WriteWholeFile(Incoming(std::string("busy-") + letter), std::string(1, letter));
        ASSERT_TRUE(CreateFolder(Incoming(std::string("box-") + letter)));
    }
    EXPECT_EQ(Offer({{"free", 0, 3}, {"busy", 0, 3}}), "NAK4\r\n");
    EXPECT_TRUE(WaitForLog("Too many files named busy"));
    EXPECT_FALSE(PathExists(Incoming("free")));
    EXPECT_EQ(ReadWholeFile(Incoming("busy-Z")), "Z");

    // A folder marker whose name and every suffix are taken refuses the list
    // the same way; nothing is made in any of the folders.
    EXPECT_EQ(Offer({{"box", 1, 0}, {"inside", 0, 3}}), "NAK4\r\n");
    EXPECT_TRUE(WaitForLog("Too many files named box"));
    EXPECT_FALSE(PathExists(Incoming("box/inside")));
    EXPECT_FALSE(PathExists(Incoming("box-Z/inside")));

    // Twenty-eight files of one name in one list: the plain name and its 26
    // suffixes hold 27 of them.
    std::vector<Offered> same(28, Offered{"same", 0, 3});
    same.insert(same.begin(), Offered{"Box", 1, 0});
    EXPECT_EQ(Offer(same), "NAK4\r\n");
    EXPECT_TRUE(WaitForLog("Too many files named same"));
    // The folder made for the refused list is gone again, and the log never
    // said it was made.
    EXPECT_FALSE(PathExists(Incoming("Box")));
    EXPECT_FALSE(Logged("Created new folder: Box"));
    EXPECT_EQ(engine_.Call.LinkState.load(), LinkState::Connected);
}

}  // namespace kb::test
