// The directory panel and the controls that reach past the window: records
// made, changed, shown and removed with the file and the pick-up folders
// behind them, the pick-up folder's buttons, the program buttons' paths,
// exported entries going out and coming in; and what a name or an entry
// from someone else may never reach.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "app/control_model.h"
#include "app/main_window.h"
#include "platform/files.h"
#include "resources/resource.h"
#include "stores/directory.h"
#include "stores/paths.h"
#include "stores/preferences.h"
#include "support/recording_desktop.h"
#include "support/wire_peer.h"
#include "window_fixture.h"

namespace kb::test {

using namespace kb::app;
using namespace kb::platform;
using namespace kb::resources;
using namespace kb::stores;

namespace {

constexpr const char* FolderRefusal =
    "Could not create a new pick up directory for this correspondent.\r  Please check to see "
    "that you do not already have a directory\r in your Pick Up folder by this name.";

class DesktopControlsTest : public WindowTest {
protected:
    void AddRecord(const std::string& name, const std::string& number) {
        Type(IDC_NAME, name);
        Type(IDC_NUMBER, number);
        ASSERT_TRUE(Press(IDC_ADD).Done) << name;
    }
    RecordingDesktop desktop_;
};

TEST_F(DesktopControlsTest, AddedRecordsStandInByteOrderAndTheNewOneIsOnShow) {
    EXPECT_FALSE(Controls().Enabled(IDC_ADD));
    Type(IDC_NAME, "alpha");
    EXPECT_FALSE(Controls().Enabled(IDC_ADD));
    Type(IDC_NUMBER, "555");
    EXPECT_TRUE(Controls().Enabled(IDC_ADD));
    Controls().Check(IDC_56K, true);
    Controls().Select(IDC_CARRIER, 2);
    ASSERT_TRUE(Press(IDC_ADD).Done);
    // The new record is chosen, as if clicked.
    EXPECT_EQ(EnabledOf({IDC_CHANGE, IDC_DELETE, IDC_NEW}), std::vector<bool>(3, true));
    AddRecord("  Zeta\t", " 666 ");

    // A number the dial cannot use, or another record's name, is refused
    // with a word, and nothing is stored; blanks around either do not count.
    const std::string badNumber =
        "\" cannot be dialled.\rPlease use digits; spaces and + & - "
        "( ) / . may stand between them.";
    const std::vector<std::vector<std::string>> refusals = {
        {" \t ", "555", "Please type the correspondent's name."},
        {"Beta", "   ", "The ISDN number \"" + badNumber},
        {"Beta", "555-2OO2", "The ISDN number \"555-2OO2" + badNumber},
        {" Zeta", "777", "Zeta is in your Directory already.\rPlease choose another name."},
    };
    for (const std::vector<std::string>& refused : refusals) {
        AddRecord(refused[0], refused[1]);
        EXPECT_EQ(Messages().back(), refused[2]);
    }

    EXPECT_EQ(RowTexts(IDC_DIRECTORY_LIST), (std::vector<std::string>{"Zeta", "alpha"}));
    EXPECT_EQ(Controls().Selection(IDC_DIRECTORY_LIST), 0);
    EXPECT_EQ(window_->Correspondents().CurrentEntry(), 0);
    EXPECT_EQ(ReadWholeFile(stores_->Paths.DirectoryPath).substr(0, 2), std::string("\x02\0", 2));
    EXPECT_EQ(stores_->Directory[1].Use56K, 1);
    EXPECT_EQ(stores_->Directory[1].Carrier, 2);
    EXPECT_EQ(stores_->Directory[1].HasPickUp, 0);
    // A new record shows the button that makes its pick-up folder.
    EXPECT_TRUE(Controls().Shown(IDC_MAKE_FOLDER));
    EXPECT_FALSE(Controls().Shown(IDC_HOT_SEND));

    // Choosing a record shows it and opens Change, Delete and New.
    Choose(IDC_DIRECTORY_LIST, 1);
    EXPECT_EQ(Controls().Text(IDC_NAME), "alpha");
    EXPECT_EQ(Controls().Text(IDC_NUMBER), "555");
    EXPECT_TRUE(Controls().Checked(IDC_56K));
    EXPECT_EQ(Controls().Selection(IDC_CARRIER), 2);
    EXPECT_EQ(EnabledOf({IDC_ADD, IDC_CHANGE, IDC_DELETE, IDC_NEW}), std::vector<bool>(4, true));
    Type(IDC_NAME, "Zeta");
    ASSERT_TRUE(Press(IDC_CHANGE).Done);
    EXPECT_EQ(Messages().size(), refusals.size() + 1);
    EXPECT_EQ(FieldText(stores_->Directory[1].FirmName), "alpha");
    EXPECT_EQ(FieldText(stores_->Directory[0].FirmName), "Zeta");
    EXPECT_EQ(FieldText(stores_->Directory[0].IsdnNumber), "666");
    // A field takes what the record holds, cut between two characters, and
    // shows the cut as it is typed: 31 bytes of a firm, 19 of a contact.
    std::string umlauts;
    for (int i = 0; i < 31; ++i) {
        umlauts += "\xc3\xbc";
    }
    Type(IDC_NAME, "a" + umlauts);
    EXPECT_EQ(Controls().Text(IDC_NAME), "a" + umlauts.substr(0, 30));
    Choose(IDC_FORM, 1);
    Type(IDC_NUMBER, umlauts);
    EXPECT_EQ(Controls().Text(IDC_NUMBER), umlauts.substr(0, 18));
    Choose(IDC_FORM, 0);
    Type(IDC_NAME, "alpha");  // a record keeps its own name
    ASSERT_TRUE(Press(IDC_CHANGE).Done);
    EXPECT_EQ(Messages().size(), refusals.size() + 1);
    // The contact form changes a record and never adds or deletes one.
    Choose(IDC_FORM, 1);
    EXPECT_FALSE(Controls().Enabled(IDC_DELETE));
    Type(IDC_NAME, "A contact");
    Type(IDC_NUMBER, "1");
    EXPECT_FALSE(Controls().Enabled(IDC_ADD));
    Choose(IDC_FORM, 0);
    // New empties the form and forgets the record on show.
    Press(IDC_NEW);
    EXPECT_EQ(Controls().Text(IDC_NAME), "");
    EXPECT_EQ(window_->Correspondents().CurrentEntry(), -1);
    EXPECT_EQ(EnabledOf({IDC_ADD, IDC_CHANGE, IDC_DELETE, IDC_NEW}), std::vector<bool>(4, false));
}

TEST_F(DesktopControlsTest, APickUpFolderIsMadeOnceTurnsHotWhenStoredAndItsButtonTellsItsState) {
    AddRecord("Smith", "5551234");
    ASSERT_TRUE(Press(IDC_MAKE_FOLDER).Done);
    EXPECT_TRUE(FolderExists(stores_->Paths.PickUpPath + "/Smith/Sent Files"));
    EXPECT_EQ(ReadWholeFile(stores_->Paths.DirectoryPath).at(2 + 78), 1) << "saved at once";
    EXPECT_FALSE(Controls().Shown(IDC_MAKE_FOLDER));
    EXPECT_TRUE(Controls().Shown(IDC_FOLDER_EMPTY));
    EXPECT_TRUE(Controls().Shown(IDC_HOT_RETRIEVE));
    EXPECT_TRUE(Controls().Checked(IDC_HOT_RETRIEVE));
    EXPECT_FALSE(Controls().Checked(IDC_HOT_SEND));

    // Send marks the folder hot only when the record is stored.
    Choose(IDC_DIRECTORY_LIST, 0);
    ASSERT_TRUE(Click(IDC_HOT_SEND, true).Done);
    EXPECT_EQ(stores_->Directory[0].HotSend, 0);
    ASSERT_TRUE(Press(IDC_CHANGE).Done);
    EXPECT_EQ(stores_->Directory[0].HotSend, 1);
    EXPECT_TRUE(Controls().Shown(IDC_HOT_EMPTY));

    // The scan looks at a hot folder only while "Ignore Hot Folders" is
    // clear; its first look notes the folder's total.
    WriteWholeFile(stores_->Paths.PickUpPath + "/Smith/a.txt", "12345");
    ASSERT_TRUE(Click(IDC_IGNORE_HOT, true).Done);
    window_->OnTimer(TimerHotFolders);
    EXPECT_EQ(stores_->Directory[0].HotBytes, 0u);
    ASSERT_TRUE(Click(IDC_IGNORE_HOT, false).Done);
    window_->OnTimer(TimerHotFolders);
    EXPECT_EQ(stores_->Directory[0].HotBytes, 5u);

    // The folder button tells whether the folder holds anything and is hot,
    // as the stored record says.
    window_->Correspondents().ShowCorrespondent(0);
    EXPECT_TRUE(Controls().Shown(IDC_HOT_FILLED));
    EXPECT_FALSE(Controls().Shown(IDC_HOT_EMPTY));
    EXPECT_TRUE(Controls().Checked(IDC_HOT_SEND));
    stores_->Directory[0].HotSend = 0;
    window_->Correspondents().ShowCorrespondent(0);
    EXPECT_TRUE(Controls().Shown(IDC_FOLDER_FILLED));
    EXPECT_TRUE(Controls().Checked(IDC_HOT_RETRIEVE));
    EXPECT_FALSE(Controls().Checked(IDC_HOT_SEND));

    // A folder that still holds a file keeps its record, with a word; once
    // it holds nothing but the "Sent Files" that showing the record makes,
    // both folders go with the record.
    const std::string smith = stores_->Paths.PickUpPath + "/Smith";
    Choose(IDC_DIRECTORY_LIST, 0);
    Press(IDC_DELETE);
    const std::string stays = "Smith stays in your Directory: its pick-up folder\r" + smith +
                              "\rstill holds files. Please move them elsewhere first.";
    ASSERT_TRUE(DeleteFileAt(smith + "/a.txt"));
    Choose(IDC_DIRECTORY_LIST, 0);
    Press(IDC_DELETE);
    EXPECT_EQ(stores_->Directory.Count.load(), 0);
    EXPECT_EQ(ReadWholeFile(stores_->Paths.DirectoryPath).substr(0, 2), std::string(2, '\0'));

    // A folder removed by hand: the record has none from then on.
    AddRecord("Smith", "5551234");
    ASSERT_TRUE(Press(IDC_MAKE_FOLDER).Done);
    ASSERT_TRUE(RemoveFolder(smith + "/Sent Files"));
    ASSERT_TRUE(RemoveFolder(smith));
    window_->Correspondents().ShowCorrespondent(0);
    EXPECT_TRUE(Controls().Shown(IDC_MAKE_FOLDER));
    EXPECT_FALSE(Controls().Shown(IDC_HOT_SEND));
    Choose(IDC_DIRECTORY_LIST, 0);
    Press(IDC_DELETE);
    EXPECT_EQ(stores_->Directory.Count.load(), 0);

    // A folder of that name on disk already belongs to nobody here: the
    // message, and the record keeps no folder.
    ASSERT_TRUE(CreateFolder(stores_->Paths.PickUpPath + "/Jones"));
    AddRecord("Jones", "5559876");
    ASSERT_TRUE(Press(IDC_MAKE_FOLDER).Done);
    EXPECT_EQ(Messages(), (std::vector<std::string>{stays, FolderRefusal}));
    EXPECT_EQ(stores_->Directory[0].HasPickUp, 0) << "Jones";
    EXPECT_TRUE(Controls().Shown(IDC_MAKE_FOLDER));
}

// A name that is no folder name is refused however the entry came; what a
// call brings is checked by the end-to-end tests, the rest here.
TEST_F(DesktopControlsTest, ANameThatIsNoFolderNameNeverBecomesAPath) {
    ASSERT_TRUE(CreateFolder(stores_->Paths.PickUpPath + "/Smith"));
    WriteWholeFile(stores_->Paths.PickUpPath + "/Smith/secret", "smith's");
    size_t refusals = 0;
    for (const std::string name : {"", "..", ".", "../Pick Up", "../Smith", "a/b", "tab\there"}) {
        SCOPED_TRACE(name);
        // Nor is an exported entry of that name entered.
        WriteWholeFile(folder_ / "bad.KBE", peer::DirectoryEntry(name, "5558888", true));
        EXPECT_FALSE(window_->Correspondents().ImportDirectoryEntry(folder_ / "bad.KBE"));
        EXPECT_EQ(RowTexts(IDC_LOG).back(),
                  "Directory Entry Not Added: its name cannot name a folder.");
        EXPECT_EQ(static_cast<size_t>(stores_->Directory.Count.load()), refusals);
        if (name.empty()) {
            continue;
        }
        AddRecord(name, "5551234");
        ASSERT_TRUE(Press(IDC_MAKE_FOLDER).Done);
        EXPECT_EQ(Messages().size(), ++refusals);
        EXPECT_EQ(Messages().back(), FolderRefusal);
        const int16_t current = window_->Correspondents().CurrentEntry();
        EXPECT_EQ(stores_->Directory[current].HasPickUp, 0);
        // A record that claims a folder all the same shows none and offers
        // none to open.
        stores_->Directory[current].HasPickUp = 1;
        window_->Correspondents().ShowCorrespondent(current);
        EXPECT_TRUE(Controls().Shown(IDC_MAKE_FOLDER));
        EXPECT_EQ(stores_->Directory[current].HasPickUp, 0);
    }
    EXPECT_TRUE(desktop_.Take().empty());

    // A record with a folder renamed to such a name leaves its folder be.
    AddRecord("Jones", "5559876");
    ASSERT_TRUE(Press(IDC_MAKE_FOLDER).Done);
    ASSERT_EQ(Controls().RowText(IDC_DIRECTORY_LIST, 4), "Jones");
    Choose(IDC_DIRECTORY_LIST, 4);
    Type(IDC_NAME, "./Smith");
    ASSERT_TRUE(Press(IDC_CHANGE).Done);
    EXPECT_TRUE(FolderExists(stores_->Paths.PickUpPath + "/Jones/Sent Files"));
    EXPECT_EQ(ReadWholeFile(stores_->Paths.PickUpPath + "/Smith/secret"), "smith's");
    // Deleting it has no folder to remove.
    const int before = stores_->Directory.Count.load();
    ASSERT_TRUE(Press(IDC_DELETE).Done);
    EXPECT_EQ(stores_->Directory.Count.load(), before - 1);
    EXPECT_TRUE(FolderExists(stores_->Paths.PickUpPath + "/Jones"));
}

// Each program button keeps its own program, chosen in a dialog that says
// which button it is for, and a path its field cannot hold whole is not kept
// cut short. The IN button opens the folder where the latest file arrived:
// "Incoming Files" itself or a delivery's folder directly below it.
TEST_F(DesktopControlsTest, EachProgramButtonKeepsItsOwnPathAndInOpensTheLatestArrivalsFolder) {
    desktop_.Answer("/usr/bin/gimp");
    ASSERT_TRUE(Press(IDC_PROGRAM_1).Done);
    desktop_.Answer("/" + std::string(600, 'p'));
    ASSERT_TRUE(Press(IDC_PROGRAM_2).Done);
    EXPECT_EQ(FieldText(stores_->Prefs.ExternalProgramA), "/usr/bin/gimp");
    EXPECT_EQ(FieldText(stores_->Prefs.ExternalProgramB), "");
    ASSERT_TRUE(Press(IDC_PROGRAM_2).Done);
    EXPECT_EQ(desktop_.Take(), std::vector<std::string>(3, "dialog: open"));
    EXPECT_EQ(desktop_.Titles(), (std::vector<std::string>{"Choose the program for button 1",
                                                           "Choose the program for button 2",
                                                           "Choose the program for button 2"}));

    const std::string incoming = stores_->Paths.IncomingPath;
    ASSERT_TRUE(CreateFolder(incoming + "/Alice"));
    ASSERT_TRUE(std::filesystem::create_directories(incoming + "/Alice-A/inner"));
    const auto now = std::filesystem::file_time_type::clock::now();
    // What arrives how many minutes ago, and the folder opened then, both
    // below "Incoming Files".
    const std::tuple<const char*, int, const char*> steps[] = {
        {nullptr, 0, ""},
        {"/Alice/a.txt", 30, "/Alice"},
        {"/Alice-A/b.txt", 20, "/Alice-A"},
        {"/Alice-A/inner/deeper.txt", 1, "/Alice-A"},  // not a delivery's own
        {"/loose.txt", 10, ""},
        {"/Alice/c.txt", 5, "/Alice"},
        {"/Alice-A/d.txt", 5, "/Alice-A"},  // the same moment: the later letter
    };
    std::vector<std::string> expected;
    for (const auto& [arrives, minutesAgo, opened] : steps) {
        if (arrives != nullptr) {
            WriteWholeFile(incoming + arrives, "x");
            std::filesystem::last_write_time(incoming + arrives,
                                             now - std::chrono::minutes(minutesAgo));
        }
        ASSERT_TRUE(Press(IDC_OPEN_INCOMING).Done);
        expected.push_back("open: " + incoming + opened);
    }
    EXPECT_EQ(desktop_.Take(), expected);
}

TEST_F(DesktopControlsTest, AnExportedEntryComesBackWholeAsTheRecordItWas) {
    EXPECT_FALSE(ChooseMenu(ID_FILE_EXPORT_ENTRY).Done) << "nothing on show";
    AddRecord("Smith & Co", "030 5551234");
    Choose(IDC_DIRECTORY_LIST, 0);
    Choose(IDC_PROTOCOL, 2);
    Choose(IDC_CARRIER, 3);
    Click(IDC_56K, true);
    ASSERT_TRUE(Press(IDC_CHANGE).Done);
    ASSERT_TRUE(Press(IDC_MAKE_FOLDER).Done);
    const Correspondent original = stores_->Directory[0];

    // Cancelled, nothing is written; a place that cannot take a file is told.
    ASSERT_TRUE(ChooseMenu(ID_FILE_EXPORT_ENTRY).Done);
    desktop_.Answer(folder_ / "no folder/x.KBE");
    ASSERT_TRUE(ChooseMenu(ID_FILE_EXPORT_ENTRY).Done);
    EXPECT_EQ(Messages(), std::vector<std::string>{"Cannot create exported directory entry file."});
    const std::string exported = folder_ / "smith.KBE";
    desktop_.Answer(exported);
    ASSERT_TRUE(ChooseMenu(ID_FILE_EXPORT_ENTRY).Done);
    EXPECT_EQ(desktop_.Take(), std::vector<std::string>(3, "dialog: save Smith & Co.KBE"));

    const std::string bytes = ReadWholeFile(exported);
    ASSERT_EQ(bytes.size(), CorrespondentSize);
    EXPECT_EQ(bytes.substr(64, 8), std::string("\0\0\0\x03\0\0\0\x04", 8));
    EXPECT_EQ(bytes.substr(136, 4), "KBDe");

    // Taken back in a directory of its own, and only whole: a file cut
    // short, one too long, one of another magic or none is no entry, nor is
    // a drop of a name in .Kbe; each is named in a message.
    ASSERT_TRUE(RemoveFolder(stores_->Paths.PickUpPath + "/Smith & Co/Sent Files"));
    window_->Correspondents().OnDirectoryDelete();
    ASSERT_EQ(stores_->Directory.Count.load(), 0);
    std::string otherMagic = bytes;
    otherMagic[139] = 'E';
    for (const std::string& bad : {bytes.substr(0, 139), bytes + "x", otherMagic}) {
        WriteWholeFile(folder_ / "bad.KBE", bad);
        EXPECT_FALSE(window_->Correspondents().ImportDirectoryEntry(folder_ / "bad.KBE"))
            << bad.size();
    }
    EXPECT_FALSE(window_->Correspondents().ImportDirectoryEntry(folder_ / "missing.KBE"));
    WriteWholeFile(folder_ / "smith.Kbe", bytes);
    Drop(IDC_DIRECTORY_LIST, {folder_ / "smith.Kbe"});
    Drop(IDC_DIRECTORY_LIST, {exported, folder_ / "smith.Kbe"});
    ASSERT_EQ(stores_->Directory.Count.load(), 1);
    const auto noEntry = [](const std::string& path) {
        return "This file is no exported directory entry and was not added:\r" + path;
    };
    EXPECT_EQ(Messages(), (std::vector<std::string>{
                              Messages()[0], noEntry(folder_ / "bad.KBE"),
                              noEntry(folder_ / "bad.KBE"), noEntry(folder_ / "bad.KBE"),
                              noEntry(folder_ / "missing.KBE"), noEntry(folder_ / "smith.Kbe")}));
    EXPECT_EQ(window_->Correspondents().CurrentEntry(), 0);
    EXPECT_EQ(Controls().Text(IDC_NAME), "Smith & Co");
    EXPECT_EQ(ReadWholeFile(stores_->Paths.DirectoryPath).substr(0, 2), std::string("\x01\0", 2))
        << "saved";
    // The same record but for the mark and the magic, with a folder made
    // for it.
    Correspondent back = stores_->Directory[0];
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(back.EntryMagic), 4), "eDBK");
    back.SelectMark = original.SelectMark;
    std::memcpy(back.EntryMagic, original.EntryMagic, 4);
    EXPECT_EQ(std::memcmp(&back, &original, CorrespondentSize), 0);
    EXPECT_TRUE(FolderExists(stores_->Paths.PickUpPath + "/Smith & Co"));
}

}  // namespace

}  // namespace kb::test
