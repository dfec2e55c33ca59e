// kbstation as an unattended station runs: a child process in an installation
// folder of its own, commands on its standard input, answers and log lines on
// its standard output, and its end by a signal or in the middle of a call.

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "e2e/harness.h"
#include "platform/files.h"
#include "station/waits.h"
#include "stores/status_log.h"
#include "support/installation.h"
#include "support/temp_folder.h"
#include "support/test_data.h"

namespace kb::test {

using namespace kb::platform;
using namespace kb::station;

namespace {

using namespace std::chrono_literals;

// Every line of output is whole and of one of the kinds the station prints:
// threads that print while the station ends never tear a line.
void ExpectWholeLines(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        const bool known = line == "ok" || line.rfind("error: ", 0) == 0 ||
                           line.rfind("log: ", 0) == 0 || line.rfind("message: ", 0) == 0 ||
                           line.rfind("question: ", 0) == 0 || line.rfind("control IDC_", 0) == 0 ||
                           line.rfind("menu text=", 0) == 0;
        EXPECT_TRUE(known) << line;
    }
}

// Without an adapter the station says so as a message box would, with its
// line break escaped, and refuses to send; at the end of its input it goes
// on waiting for calls, and SIGTERM ends it as quit does.
TEST(StationTest, WithoutAnAdapterItRefusesToSendAndOnlySigtermEndsIt) {
    TempFolder root;
    const std::string folder = MakeInstallation(root, "station", 1);
    Station station(folder);
    ASSERT_EQ(station.Command("wait ISDN TA not found. 30"), "ok");
    EXPECT_EQ(station.Command("send"), "error: IDC_SEND is disabled");
    ASSERT_EQ(station.Command("show"), "ok");
    const std::vector<std::string> shown = station.Process().AllLines();
    EXPECT_EQ(LinesHolding(shown, {"message: "}),
              std::vector<std::string>{
                  "message: Could not find your ISDN TA.  Please check your cables\\rand make "
                  "sure the ISDN TA is powered on.\\r\\rNo ISDN TA on this PC? Start a virtual "
                  "adapter (virtual-ta), or make \"COM1\" in the installation folder a link to "
                  "your adapter's port. The manual's page Troubleshooting, \"No adapter found\", "
                  "tells how."});
    const std::vector<std::string> number = LinesHolding(shown, {"control IDC_OWN_NUMBER "});
    ASSERT_EQ(number.size(), 1u);
    EXPECT_NE(number[0].find(" enabled=0"), std::string::npos) << number[0];

    // A file name's control characters, and its bytes that are no UTF-8
    // character, never reach the output raw, and the harness reads the name
    // back whole. The file is too large to send, so a log line names it.
    const std::string name = "bell\a-esc\x1b[2J-tab\t-back\\-c1\xc2\x9b-bad\xff-\xc3\xbc";
    WriteWholeFile(folder + "/" + name, "");
    ASSERT_EQ(::truncate((folder + "/" + name).c_str(), off_t{1} << 28), 0);
    EXPECT_EQ(station.Command("add " + name), "ok");
    const std::string escaped = R"(bell\x07-esc\x1B[2J-tab\t-back\\-c1\xC2\x9B-bad\xFF-)"
                                "\xc3\xbc";
    EXPECT_EQ(station.Command("add gone-" + name),
              "error: no such file or folder: gone-" + escaped);
    const std::vector<std::string> logged =
        LinesHolding(station.Process().AllLines(), {"log: File too large"});
    ASSERT_EQ(logged, std::vector<std::string>{"log: File too large to send: " + escaped});
    EXPECT_EQ(Unescaped(logged[0]), "log: File too large to send: " + name);

    // Add takes several files at once, and the File menu a folder, which
    // asks before it takes their place; the station answers Yes.
    WriteWholeFile(folder + "/one", "1");
    WriteWholeFile(folder + "/two", "2");
    ASSERT_TRUE(CreateFolder(folder + "/docs"));
    WriteWholeFile(folder + "/docs/a", "a");
    EXPECT_EQ(station.Command("choose one two"), "ok");
    EXPECT_EQ(station.Command("file-click 1"), "ok");
    EXPECT_EQ(station.Command("add-folder docs"), "ok");
    EXPECT_EQ(station.Command("file-click 2"), "error: IDC_FILE_LIST has no row 2");
    EXPECT_EQ(LinesHolding(station.Process().AllLines(), {"dialog: ", "question: "}),
              (std::vector<std::string>{"dialog: open", "dialog: folder",
                                        "question: The folder \"docs\" takes the place of "
                                        "everything in the File List.\\rReplace the list?"}));

    station.Process().CloseInput();
    // Still answering: an unattended station waits for calls.
    EXPECT_EQ(station.Process().WaitForExit(300ms), -1);
    EXPECT_EQ(station.Stop(SIGTERM, 30s), 0);
    EXPECT_EQ(LinesHolding(station.Process().AllLines(), {"log: Stopping Kestrelbound "}).size(),
              1u);
    const std::vector<std::string> stored = SavedLog(folder);
    ASSERT_GE(stored.size(), 2u);
    EXPECT_EQ(stored.front().rfind("Starting Kestrelbound ", 0), 0u);
    EXPECT_EQ(stored.back().rfind("Stopping Kestrelbound ", 0), 0u);
}

TEST(StationTest, StationsThatLeaveDuringATransferStopCleanlyAndKeepThePartForAResume) {
    TempFolder root;
    const std::string sender = MakeInstallation(root, "sender");
    const std::string receiver = MakeInstallation(root, "receiver");
    // 1 MB at 8000 bytes a second: the transfer is sure to be under way.
    WriteWholeFile(sender + "/big.bin", std::string(1000000, 'b'));
    VirtualAdapters adapters({sender + "/COM1=bitsurfr:5551111", receiver + "/COM1=3com:5552222"},
                             {"--rate", "8000"});
    Station a(sender);
    Station b(receiver);
    ASSERT_EQ(a.Command("wait Initializing Incoming: 60"), "ok");
    ASSERT_EQ(b.Command("wait Initializing Incoming: 60"), "ok");
    ASSERT_EQ(b.Command("wait-state idle"), "ok");
    ASSERT_EQ(a.Command("number 5552222"), "ok");
    ASSERT_EQ(a.Command("add big.bin"), "ok");
    ASSERT_EQ(a.Command("send"), "ok");
    ASSERT_EQ(b.Command("wait Receiving File: big.bin"), "ok");
    ASSERT_EQ(b.Command("wait-state transfer"), "ok");
    ASSERT_EQ(a.Command("wait-state transfer"), "ok");

    // The receiver leaves in the middle of the file: its threads stop, and
    // the file stays under the marker it stands under until it is whole, for
    // the next start to take up.
    EXPECT_EQ(b.Command("quit"), "ok");
    EXPECT_EQ(b.Process().WaitForExit(30s), 0);
    EXPECT_TRUE(PathExists(receiver + "/Incoming Files/big.bin.part"));
    EXPECT_FALSE(PathExists(receiver + "/Incoming Files/big.bin"));
    const std::vector<std::string> stored = SavedLog(receiver);
    ASSERT_FALSE(stored.empty());
    EXPECT_EQ(stored.back().rfind("Stopping Kestrelbound ", 0), 0u);

    // The sender leaves while its feeder and writer may still be at work.
    EXPECT_EQ(a.Command("quit"), "ok");
    EXPECT_EQ(a.Process().WaitForExit(30s), 0);
    ExpectWholeLines(a.Process().AllLines());
    ExpectWholeLines(b.Process().AllLines());
}

// A wait looks only behind the line that the last wait matched, so the lines
// up to that one go; a wait that finds nothing lets nothing go; and once the
// commands have ended, no line is kept at all, however long the station runs.
TEST(StationTest, OnlyTheLogLinesThatAWaitCanStillFindAreKept) {
    SeenLines seen;
    for (int call = 0; call < 1000; ++call) {
        seen.Add("Connected " + std::to_string(call));
        seen.Add("All files received.");
        ASSERT_TRUE(seen.TakeMatch("All files received."));
    }
    EXPECT_EQ(seen.Kept(), 0u);
    seen.Add("one");
    seen.Add("two");
    EXPECT_FALSE(seen.TakeMatch("three"));
    EXPECT_TRUE(seen.TakeMatch("one"));
    EXPECT_EQ(seen.Kept(), 1u);
    seen.EndWaits();
    for (int call = 0; call < 1000; ++call) {
        seen.Add("Connected " + std::to_string(call));
    }
    EXPECT_EQ(seen.Kept(), 0u);
}

}  // namespace

}  // namespace kb::test
