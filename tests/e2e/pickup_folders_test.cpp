// Pick-up folders and exported entries between real stations: a
// correspondent fetches its folder by calling in, an entry that arrives in
// a call is entered once, and a far end that sends entries and requests meant
// to reach other people's folders reaches nothing.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "peer_fixture.h"
#include "two_stations.h"

namespace kb::test {

using namespace kb::platform;

namespace {

// The rows of a list as "show" prints them.
std::string Rows(Station& station, const std::string& control) {
    const std::string line = station.ShowControl(control);
    const size_t at = line.find("rows=\"");
    return at == std::string::npos ? "?" : line.substr(at + 6, line.find('"', at + 6) - at - 6);
}

// Types a record into the form and presses Add; the new record is on show.
void AddRecord(Station& station, const std::string& name, const std::string& number) {
    EXPECT_TRUE(station.Address(name, number));
    EXPECT_EQ(station.Command("entry add"), "ok");
}

// Bob presses Retrieve and Alice answers: the line that ends the session at
// each end, and both ends idle again.
void Retrieve(AliceAndBob& line, const std::string& answer, const std::string& alicesAnswer = "") {
    ASSERT_EQ(line.Bob->Command("retrieve"), "ok");
    ASSERT_TRUE(line.Bob->WaitForLog(answer));
    ASSERT_TRUE(line.Alice->WaitForLog(alicesAnswer.empty() ? answer : alicesAnswer));
    line.BackToIdle();
}

TEST(PickUpFolders, ACorrespondentFetchesItsFolderAndAnyoneElseIsToldThereIsNone) {
    AliceAndBob line("zyxel-2864", {"--rate", "0"});
    Station& alice = *line.Alice;
    Station& bob = *line.Bob;
    const auto pickUp = [&](const std::string& relative) {
        return line.AlicePath + "/Pick Up/" + relative;
    };

    // Alice keeps a folder for Bob, made with the button, and fills it.
    AddRecord(alice, "Bob", "030 555-2002");
    ASSERT_EQ(alice.Command("make-folder"), "ok");
    // The last two have long names that go out shortened alike.
    const std::vector<peer::File> files = {
        {"photo.bin", RandomBytes(300000, 41)},
        {"note.txt", RandomBytes(1000, 42)},
        {"empty.txt", ""},
        {"quarterly report of the year 2023.pdf", RandomBytes(900, 46)},
        {"quarterly report of the year 2024.pdf", RandomBytes(800, 47)}};
    const std::string shortened = "quarterly report of the yea.pdf";
    const std::string suffixed = "quarterly report of the y-A.pdf";
    for (const peer::File& file : files) {
        WriteWholeFile(pickUp("Bob/" + file.Name), file.Bytes);
    }

    // Bob fetches it: the roles turn, and the files land under Alice's name
    // for the folder.
    AddRecord(bob, "Alice", "5551001");
    Retrieve(line, "All files received.", "All files sent.");
    // Each name stays Alice's own in "Sent Files". Bob has the long ones
    // under the shortened name, the second with its letter.
    for (const peer::File& file : files) {
        ExpectSameBytes(pickUp("Bob/Sent Files/" + file.Name), file.Bytes);
    }
    for (size_t i = 0; i < 3; ++i) {
        ExpectSameBytes(line.IncomingPath("Bob/" + files[i].Name), files[i].Bytes);
    }
    const std::string first = ReadWholeFile(line.IncomingPath("Bob/" + shortened));
    const std::string second = ReadWholeFile(line.IncomingPath("Bob/" + suffixed));
    EXPECT_TRUE((first == files[3].Bytes && second == files[4].Bytes) ||
                (first == files[4].Bytes && second == files[3].Bytes));
    // The folder goes in the order the file system lists it.
    std::vector<std::string> sent =
        LinesHolding(alice.LogLines(), {"Retrieve request", "at ", "Sending File: "});
    std::sort(sent.begin() + 2, sent.end());
    EXPECT_EQ(sent, (std::vector<std::string>{"Retrieve request from Bob", "at 5552002",
                                              "Sending File: note.txt", "Sending File: photo.bin",
                                              "Sending File: " + shortened,
                                              "Sending File: " + shortened}));
    // Bob's log ends the call with the folder the files went to.
    std::vector<std::string> received = LinesHolding(
        bob.LogLines(),
        {"Calling", "at ", "Created new folder: ", "Receiving File: ", "Received files are in "});
    ASSERT_EQ(received.back(), "Received files are in Incoming Files/Bob");
    std::sort(received.begin() + 3, received.end() - 1);
    EXPECT_EQ(received, (std::vector<std::string>{
                            "Calling Alice", "at 5551001", "Created new folder: Bob",
                            "Receiving File: note.txt", "Receiving File: photo.bin",
                            "Receiving File: " + suffixed, "Receiving File: " + shortened,
                            "Received files are in Incoming Files/Bob"}));

    // Nothing waits for Bob now.
    Retrieve(line, "No files to be retrieved.");
    EXPECT_EQ(alice.Count("Retrieve request from 5552002"), 1);

    // Alice's record for Bob takes another number: Bob's call finds no folder.
    WriteWholeFile(pickUp("Bob/later.txt"), "for Bob only");
    ASSERT_EQ(alice.Command("select Bob"), "ok");
    ASSERT_EQ(alice.Command("number 5559999"), "ok");
    ASSERT_EQ(alice.Command("entry change"), "ok");
    Retrieve(line, "No retrieve folder found.");
    EXPECT_EQ(ReadWholeFile(pickUp("Bob/later.txt")), "for Bob only");
    EXPECT_FALSE(PathExists(line.IncomingPath("Bob/later.txt")));

    // The folder buttons and the rest hand their work to the desktop.
    for (const char* command :
         {"open-folder", "ctrl on", "open-folder", "ctrl off", "open-incoming", "help",
          "browser off", "help", "program a /usr/bin/gimp", "program a", "shift on",
          "program a cancel", "shift off", "program a"}) {
        ASSERT_EQ(alice.Command(command), "ok") << command;
    }
    const std::string manual = line.AlicePath + "/Kestrelbound_Manual/Start_Here.html";
    EXPECT_EQ(alice.TakeHandOffs(),
              (std::vector<std::string>{
                  "open: " + pickUp("Bob"), "open: " + line.AlicePath + "/Pick Up",
                  "open: " + line.AlicePath + "/Incoming Files", "browse: " + manual,
                  "raise: browser", "browse: " + manual, "dialog: open", "run: /usr/bin/gimp",
                  "dialog: open", "dialog: open"}));
}

TEST(EntriesInACall, AnEntryIsEnteredOnceAtTheEndOfTheCallThatBroughtItWhole) {
    // Alice's own entry behind a file of two sections; the line falls in the
    // middle of the entry's one section.
    const std::string big = RandomBytes(200000, 45);
    const size_t inEntry = peer::ListBytes(2) + peer::StreamLength(big.size()) + 2 + 70;
    AliceAndBob line("bitsurfr",
                     {"--rate", "0", "--fault", "drop:5551001:" + std::to_string(inEntry)});
    AddRecord(*line.Alice, "Alice Ltd", "5551001");
    const std::string entry = line.Root / "samples/alice.KBE";
    ASSERT_EQ(line.Alice->Command("export " + entry), "ok");
    ASSERT_TRUE(line.Alice->Address("Bob", "5552002"));
    ASSERT_EQ(line.Alice->Command("choose " + line.Sample("big.bin", big)), "ok");
    ASSERT_EQ(line.Alice->Command("choose " + entry), "ok");

    ASSERT_EQ(line.Alice->Command("send"), "ok");
    line.BackToIdle();
    ExpectSameBytes(line.IncomingPath("big.bin"), big);
    EXPECT_EQ(line.Bob->Count("Directory Entry Added"), 0);
    EXPECT_EQ(Rows(*line.Bob, "IDC_DIRECTORY_LIST"), "") << "nothing entered";

    // The rest of the list goes in the next call; the entry is entered as it
    // ends, and stays in its folder.
    line.SendThrough();
    EXPECT_EQ(line.Bob->Count("Directory Entry Added"), 1);
    EXPECT_EQ(Rows(*line.Bob, "IDC_DIRECTORY_LIST"), "Alice Ltd");
    ExpectSameBytes(line.IncomingPath("alice.KBE"), ReadWholeFile(entry));

    // Dropped on the directory list by Bob himself, the file is entered
    // again: he may keep two records of a name.
    ASSERT_EQ(line.Bob->Command("drop-directory \"" + line.IncomingPath("alice.KBE") + "\""), "ok");
    EXPECT_EQ(line.Bob->Count("Directory Entry Added"), 2);

    // A later call, started by a drop on Send, enters nothing again: the
    // entry sent again lands beside the first under a changed name, which
    // still ends in ".KBE".
    line.SendThrough("drop-send " + entry);
    ExpectSameBytes(line.IncomingPath("alice-A.KBE"), ReadWholeFile(entry));
    EXPECT_EQ(LinesHolding(line.Bob->LogLines(), {"Directory Entry"}).size(), 2u)
        << "not even tried";
    EXPECT_EQ(Rows(*line.Bob, "IDC_DIRECTORY_LIST"), "Alice Ltd|Alice Ltd");
}

// The station as holder of folders, called by a far end that sends what no
// sound correspondent would.
using FolderThief = PeerAndStation;

TEST_F(FolderThief, EntriesAndRequestsMeantForOtherPeoplesFoldersReachNothing) {
    // The station keeps a folder for Smith.
    AddRecord(*station_, "Smith", "0049 30 7777777");
    ASSERT_EQ(station_->Command("make-folder"), "ok");
    const std::string smith = stationPath_ + "/Pick Up/Smith/";
    WriteWholeFile(smith + "contract.txt", "Smith's contract");
    // A folder nobody's record owns yet, say left by hand.
    ASSERT_TRUE(CreateFolder(stationPath_ + "/Pick Up/Jones"));
    WriteWholeFile(stationPath_ + "/Pick Up/Jones/old.txt", "Jones's old file");

    // Exported entries, each with a pick-up folder claimed: for Smith's name
    // with the thief's number, for a name that would climb out of "Pick Up",
    // and for Jones.
    std::vector<peer::File> entries;
    for (const char* name : {"Smith", "..", "Jones"}) {
        entries.push_back(
            {name + std::string(".KBE"), peer::DirectoryEntry(name, "5553003", true)});
    }
    PeerSends(entries);
    ASSERT_TRUE(station_->WaitForLog("Directory Entry Added"));
    EXPECT_EQ(station_->Count("Directory Entry Not Added: Smith is in the directory already."), 1);
    EXPECT_EQ(station_->Count("Directory Entry Not Added: its name cannot name a folder."), 1);
    EXPECT_EQ(Rows(*station_, "IDC_DIRECTORY_LIST"), "Jones|Smith");

    // Neither Smith's record nor Jones's folder answers to the thief's number;
    // and a number too short to name anyone finds none, though it lies
    // inside Smith's.
    for (const std::string number : {"5553003", "", "777"}) {
        SCOPED_TRACE(number);
        Call();
        port_->Send("RETRIEVE\r\n" + number + std::string(32 - number.size(), '\0'));
        EXPECT_EQ(port_->ReceiveUntil("\r\n", 5000), "NOFILEDIR\r\n");
        EndCall();
    }
    EXPECT_EQ(station_->Count("No retrieve folder found."), 3);
    EXPECT_EQ(ReadWholeFile(smith + "contract.txt"), "Smith's contract");
    EXPECT_EQ(ReadWholeFile(stationPath_ + "/Pick Up/Jones/old.txt"), "Jones's old file");
    EXPECT_FALSE(PathExists(smith + "Sent Files/contract.txt"));
}

TEST(DirectoryByCommands, RecordsAreSortedRenamedAndDeletedWithTheirFolderAndNoMoreThan127Kept) {
    TempFolder root;
    const std::string folder = MakeInstallation(root, "station", 1);
    auto station = std::make_unique<Station>(folder);
    ASSERT_TRUE(station->WaitForLog("Searching Comm Port 4"));
    for (const char* name : {"zeta", "Alpha", "beta", "Zeta"}) {
        AddRecord(*station, name, "5551000");
    }
    // The search for an adapter, over before the first command, told its end.
    ASSERT_EQ(station->Messages().size(), 1u);
    // Byte order: every capital before every small letter.
    EXPECT_EQ(Rows(*station, "IDC_DIRECTORY_LIST"), "Alpha|Zeta|beta|zeta");

    // A new name takes the folder along with its files, and the record
    // stays on show where the sort puts it.
    ASSERT_EQ(station->Command("select Zeta"), "ok");
    ASSERT_EQ(station->Command("make-folder"), "ok");
    WriteWholeFile(folder + "/Pick Up/Zeta/waiting.txt", "waiting");
    ASSERT_EQ(station->Command("name omega"), "ok");
    ASSERT_EQ(station->Command("entry change"), "ok");
    EXPECT_EQ(Rows(*station, "IDC_DIRECTORY_LIST"), "Alpha|beta|omega|zeta");
    EXPECT_NE(station->ShowControl("IDC_DIRECTORY_LIST").find("selected=2"), std::string::npos);
    EXPECT_EQ(ReadWholeFile(folder + "/Pick Up/omega/waiting.txt"), "waiting");
    EXPECT_FALSE(PathExists(folder + "/Pick Up/Zeta"));

    // The contact form stores the contact and leaves the firm and its folder.
    EXPECT_EQ(station->Command("contact Mary"),
              "error: the form shows Firm:; say form contact first");
    ASSERT_EQ(station->Command("form contact"), "ok");
    ASSERT_EQ(station->Command("contact Mary Major of the Company"), "ok");
    ASSERT_EQ(station->Command("phone 030 1234"), "ok");
    ASSERT_EQ(station->Command("entry change"), "ok");
    const std::string stored = ReadWholeFile(folder + "/kestrelbound_directory");
    ASSERT_EQ(stored.size(), 2u + 4 * 140);
    const std::string omega = stored.substr(2 + 2 * 140, 140);
    EXPECT_EQ(omega.substr(0, 6), std::string("omega\0", 6));
    EXPECT_EQ(omega.substr(80, 20), std::string("Mary Major of the C\0", 20)) << "19 characters";
    EXPECT_EQ(omega.substr(100, 9), std::string("030 1234\0", 9));
    EXPECT_TRUE(FolderExists(folder + "/Pick Up/omega"));

    // Delete takes the record, and its folder with the empty "Sent Files",
    // once the folder holds nothing else.
    ASSERT_TRUE(DeleteFileAt(folder + "/Pick Up/omega/waiting.txt"));
    ASSERT_EQ(station->Command("select omega"), "ok");
    ASSERT_EQ(station->Command("entry delete"), "ok");
    EXPECT_EQ(Rows(*station, "IDC_DIRECTORY_LIST"), "Alpha|beta|zeta");
    EXPECT_FALSE(PathExists(folder + "/Pick Up/omega"));

    // The table holds 127 records; the 128th is refused, and the file keeps
    // what the table holds.
    for (int i = 3; i < 127; ++i) {
        AddRecord(*station, "Firm " + std::to_string(1000 + i), "5551000");
    }
    AddRecord(*station, "One too many", "5551000");
    EXPECT_EQ(station->Messages().back(),
              "Directory already has 128 entries.\r  Please delete an entry before adding a new "
              "one.");
    ASSERT_EQ(station->Quit(), 0);
    station = std::make_unique<Station>(folder);
    const std::string rows = Rows(*station, "IDC_DIRECTORY_LIST");
    EXPECT_EQ(std::count(rows.begin(), rows.end(), '|'), 126) << "127 rows after a new start";
    EXPECT_EQ(rows.find("One too many"), std::string::npos);
}

}  // namespace

}  // namespace kb::test
