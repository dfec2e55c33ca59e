// The file list: drops of files and folders, the dialog, deleting, and the
// limits of the list.

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "app/chosen_call.h"
#include "app/control_model.h"
#include "app/main_window.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "platform/files.h"
#include "resources/resource.h"
#include "support/recording_desktop.h"
#include "window_fixture.h"

namespace kb::test {

using namespace kb::app;
using namespace kb::engine;
using namespace kb::platform;
using namespace kb::resources;

namespace {

using FileListTest = WindowTest;

// What the user is asked before a folder takes the place of the list.
std::string Replacing(const std::string& folder) {
    return "The folder \"" + folder +
           "\" takes the place of everything in the File List.\rReplace the list?";
}

// A dialog that is cancelled adds nothing; a file that cannot be opened is
// told and leaves the list as it was. Add takes several files at once, and
// the File menu a folder, as a drop of it would.
TEST_F(FileListTest, TheDialogsTakeSeveralFilesOrAFolderAndACancelNothing) {
    RecordingDesktop desktop;
    window_->Files().OnFileAdd();
    EXPECT_EQ(desktop.Take(), std::vector<std::string>{"dialog: open"});
    EXPECT_FALSE(window_->Files().AddFileToList(folder_ / "missing", "missing"));
    EXPECT_EQ(Messages(), std::vector<std::string>{
                              "Cannot open file.  It may be in use by another application."});
    EXPECT_EQ(engine_->SendList.Count(), 0);

    desktop.Answer({folder_.MakeFile("one", 1), folder_.MakeFile("two", 0)});
    ASSERT_TRUE(Press(IDC_FILE_ADD).Done);
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), (std::vector<std::string>{"one", "two"}));
    folder_.MakeFile("docs/a", 3);
    desktop.Answer(folder_ / "docs");
    ASSERT_TRUE(ChooseMenu(ID_FILE_ADD_FOLDER).Done);
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), (std::vector<std::string>{"docs", "a"}));
    EXPECT_EQ(Messages().back(), Replacing("docs"));
    EXPECT_EQ(desktop.Take(), (std::vector<std::string>{"dialog: open", "dialog: folder"}));
    // The menu is open during a call, the list is not.
    engine_->Call.LinkState = LinkState::Connected;
    ASSERT_TRUE(ChooseMenu(ID_FILE_ADD_FOLDER).Done);
    engine_->Call.LinkState = LinkState::Idle;
    EXPECT_EQ(Messages().back(), "The File List cannot change during a call.");
    EXPECT_TRUE(desktop.Take().empty());
}

TEST_F(FileListTest, AFolderReplacesTheListAndTravelsOneLevelDeep) {
    const std::string docs = MakeFolder("docs");
    folder_.MakeFile("docs/a.txt", 100);
    folder_.MakeFile("docs/b.exe.txt", 200);
    folder_.MakeFile("docs/empty", 0);
    folder_.MakeFile("docs/Sent Files/old", 5);

    Drop(IDC_FILE_LIST, {folder_.MakeFile("loose", 10), docs + "/"});
    ASSERT_EQ(engine_->SendList.Count(), 4);
    const std::vector<ListRow> rows = Controls().Rows(IDC_FILE_LIST);
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows[0].Text, "docs");
    EXPECT_EQ(rows[0].Detail, "");
    EXPECT_EQ(rows[0].Image, KindNumber(FileKind::FolderMarker));
    EXPECT_EQ(engine_->SendList[0].FilePath.View(), docs);
    EXPECT_EQ(engine_->SendList[0].TotalLength, 0u);

    // The files, in the order the file system lists them, the empty one too.
    std::vector<FolderEntry> listed;
    ASSERT_TRUE(ListFolder(docs, listed));
    std::vector<std::string> expected;
    for (const FolderEntry& item : listed) {
        if (!item.IsFolder) {
            expected.push_back(item.Name);
        }
    }
    ASSERT_EQ(expected.size(), 3u);
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(rows[i].Text, expected[i - 1]);
        EXPECT_EQ(engine_->SendList[i].FilePath.View(), docs + "/" + expected[i - 1]);
        const FileKind kind =
            expected[i - 1] == "b.exe.txt" ? FileKind::ProgramFile : FileKind::PlainFile;
        EXPECT_EQ(engine_->SendList[i].EntryKind, kind);
        EXPECT_EQ(rows[i].Image, KindNumber(kind));
    }
    // The marker adds nothing to the total.
    EXPECT_EQ(engine_->SendList.Remaining(), 102u + 202u + 0u);
    window_->Display().RecomputeSendTotal();
    EXPECT_EQ(engine_->SendList.Remaining(), 304u);
    // The process's folder never moved.
    EXPECT_NE(CurrentFolder(), docs);
}

TEST_F(FileListTest, WhereADropLandsAndWhatItTakesForAFolder) {
    // During a call, or beside the lists, a drop does nothing; during a
    // call it says so.
    const std::string file = folder_.MakeFile("file", 10);
    engine_->Call.LinkState = LinkState::Connected;
    Drop(IDC_FILE_LIST, {file});
    Drop(IDC_SEND, {file});
    engine_->Call.LinkState = LinkState::Idle;
    Drop(IDC_LOG, {file});
    Drop(0, {file});
    // A name ending in .KBE is a file like any other on the file list.
    Drop(IDC_FILE_LIST, {folder_.MakeFile("smith.KBE", 140)});
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), std::vector<std::string>{"smith.KBE"});
    // A folder would replace the list: the user is asked, and No keeps the
    // list and places no call from Send.
    const std::string kept = MakeFolder("kept");
    folder_.MakeFile("kept/k", 1);
    AnswerQuestions(false);
    Drop(IDC_FILE_LIST, {file, kept});
    Drop(IDC_SEND, {kept});
    AnswerQuestions(true);
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), std::vector<std::string>{"smith.KBE"});
    const std::string shut = "The File List cannot change during a call.";
    EXPECT_EQ(Messages(),
              (std::vector<std::string>{shut, shut, Replacing("kept"), Replacing("kept")}));

    // What cannot be read, file or folder, is named in one message and left
    // out; the files and folders dropped with it stay.
    const std::string before = folder_.MakeFile("before", 1);
    const std::string after = folder_.MakeFile("after", 2);
    const std::string docs = MakeFolder("docs");
    folder_.MakeFile("docs/a", 3);
    const std::string lockedFile = folder_.MakeFile("locked file", 4);
    const std::string lockedFolder = MakeFolder("locked folder");
    const std::pair<std::string, mode_t> modes[] = {
        {folder_.Path(), 0755}, {docs, 0755},    {before, 0644},   {after, 0644},
        {docs + "/a", 0644},    {lockedFile, 0}, {lockedFolder, 0}};
    for (const auto& [path, mode] : modes) {
        ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
    }
    // Files are opened from here as a user without root's rights opens them,
    // on this thread: a file or folder without read permission is then
    // unreadable even when the tests run as root.
    const int root = ::setfsuid(65534);
    File probe;
    const bool unreadable = !probe.Open(lockedFile, File::Mode::Read);
    if (unreadable) {
        Drop(IDC_FILE_LIST, {before, lockedFile, lockedFolder, folder_ / "gone", after});
        EXPECT_EQ(RowTexts(IDC_FILE_LIST),
                  (std::vector<std::string>{"smith.KBE", "before", "after"}));
        // A folder still replaces the list, and what cannot be read does not.
        Drop(IDC_FILE_LIST, {docs, lockedFile});
    }
    ::setfsuid(root);
    if (!unreadable) {
        GTEST_SKIP() << "files without read permission can still be read here";
    }
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), (std::vector<std::string>{"docs", "a"}));
    EXPECT_EQ(engine_->SendList[0].EntryKind, FileKind::FolderMarker);
    EXPECT_EQ(Messages(), (std::vector<std::string>{
                              shut, shut, Replacing("kept"), Replacing("kept"),
                              "These could not be opened and were not added:\r" + lockedFile +
                                  "\r" + lockedFolder + "\r" + (folder_ / "gone"),
                              Replacing("docs"),
                              "These could not be opened and were not added:\r" + lockedFile}));
    Press(IDC_FILE_CLEAR);

    // Of two folders in one drop only the second stays.
    folder_.MakeFile("first/one", 1);
    folder_.MakeFile("second/two", 2);
    Drop(IDC_FILE_LIST, {folder_ / "first", folder_ / "second"});
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), (std::vector<std::string>{"second", "two"}));
    EXPECT_EQ(engine_->SendList.Count(), 2);

    // A drop on Send with an unreadable item still goes for the call; with
    // a number but no adapter found, nothing would ever answer the dial: the
    // call is not placed, and the user is told why.
    Type(IDC_NUMBER, "5551234");
    Drop(IDC_SEND, {folder_ / "unreadable"});
    EXPECT_EQ(Messages().back(), line::NoAdapterMessage);
    EXPECT_EQ(engine_->Call.LinkState.load(), LinkState::Idle);
    // A number that the dial would shorten is not dialled, by Send or by
    // Retrieve, and the message names it.
    Type(IDC_NUMBER, "555-2OO2");
    Drop(IDC_SEND, {folder_ / "unreadable"});
    window_->Line().OnButton(IDC_RETRIEVE);
    const std::string undiallable = UndiallableNumberMessage("555-2OO2");
    EXPECT_EQ(Messages().end()[-2], undiallable);
    EXPECT_EQ(Messages().back(), undiallable);
}

TEST_F(FileListTest, DeleteTakesTheClickedRowAndItsEntry) {
    for (const char* name : {"a", "b", "c"}) {
        ASSERT_TRUE(window_->Files().AddFileToList(folder_.MakeFile(name, 100), name));
    }
    window_->Files().OnFileClick(1);
    window_->Files().OnFileDelete();
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(engine_->SendList[0].DisplayName.View(), "a");
    EXPECT_EQ(engine_->SendList[1].DisplayName.View(), "c");
    EXPECT_EQ(engine_->SendList.Remaining(), 204u);
    EXPECT_FALSE(Controls().Enabled(IDC_FILE_DELETE));
    // With no row chosen, Delete does nothing.
    window_->Files().OnFileDelete();
    EXPECT_EQ(engine_->SendList.Count(), 2);

    // Adding a file forgets the click.
    window_->Files().OnFileClick(0);
    ASSERT_TRUE(window_->Files().AddFileToList(folder_.MakeFile("d", 1), "d"));
    EXPECT_EQ(window_->Files().SelectedFileRow(), -1);
    EXPECT_FALSE(Controls().Enabled(IDC_FILE_DELETE));
    // The same file can go in twice.
    ASSERT_TRUE(window_->Files().AddFileToList(folder_ / "d", "d"));
    EXPECT_EQ(engine_->SendList.Count(), 4);
}

TEST_F(FileListTest, ALongNameKeepsItsExtensionAndThePathStaysWhole) {
    const std::string name = "a report with a name far longer than the field.pdf";
    const std::string path = folder_.MakeFile(name, 10);
    ASSERT_TRUE(window_->Files().AddFileToList(path, name));
    EXPECT_EQ(engine_->SendList[0].DisplayName.View(), "a report with a name far lo.pdf");
    EXPECT_EQ(engine_->SendList[0].FilePath.View(), path);
    EXPECT_EQ(RowTexts(IDC_FILE_LIST), std::vector<std::string>{"a report with a name far lo.pdf"});

    EXPECT_EQ(ShortDisplayName(std::string(40, 'x')), std::string(31, 'x'));
    EXPECT_EQ(ShortDisplayName(std::string(31, 'x')), std::string(31, 'x'));
    // An extension too long to be worth keeping is cut with the rest.
    EXPECT_EQ(ShortDisplayName(std::string(20, 'x') + "." + std::string(20, 'e')),
              std::string(20, 'x') + "." + std::string(10, 'e'));
    // A character of two bytes is never cut in two.
    EXPECT_EQ(ShortDisplayName(std::string(30, 'x') + "\xC3\xA9" + "tail"), std::string(30, 'x'));
}

// What the list refuses it names in a log line: a path too long, a file too
// large for the protocol, and what passes a hundred entries.
TEST_F(FileListTest, APathTooLongAFileTooLargeOrAHundredAndFirstEntryIsRefusedWithItsLine) {
    // Folders of 200 characters each: the path passes 511 at the file.
    const std::string name = std::string(120, 'f');
    const std::string longPath =
        folder_.MakeFile(std::string(200, 'd') + "/" + std::string(200, 'e') + "/" + name, 1);
    ASSERT_GT(longPath.size(), 511u);
    EXPECT_FALSE(window_->Files().AddFileToList(longPath, name));
    EXPECT_EQ(RowTexts(IDC_LOG).back(), "Path too long: " + name + " was not added.");

    // One byte more than 2047 sections, the most that the sending side's
    // block counter holds: the smallest file too large (the largest goes
    // whole from one station to another). Sparse, so that it costs no disk.
    const std::string huge = folder_.MakeFile("huge.bin", 0);
    ASSERT_EQ(::truncate(huge.c_str(), off_t{2047} * 131070 + 1), 0);
    EXPECT_FALSE(window_->Files().AddFileToList(huge, "huge.bin"));
    EXPECT_EQ(RowTexts(IDC_LOG).back(), "File too large to send: huge.bin");
    EXPECT_EQ(engine_->SendList.Count(), 0);
    EXPECT_EQ(Controls().RowCount(IDC_FILE_LIST), 0);

    // The list holds a hundred entries and never more.
    const std::string file = folder_.MakeFile("f", 1);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(window_->Files().AddFileToList(file, "f"));
    }
    EXPECT_FALSE(window_->Files().AddFileToList(file, "f"));
    EXPECT_EQ(engine_->SendList.Count(), 100);
    EXPECT_EQ(Controls().RowCount(IDC_FILE_LIST), 100);
    EXPECT_EQ(RowTexts(IDC_LOG).back(), "File list is full: f was not added.");

    // A folder of 120 files: its marker and the first 99, and one line.
    const std::string big = MakeFolder("big");
    for (int i = 0; i < 120; ++i) {
        folder_.MakeFile("big/file" + std::to_string(i), 1);
    }
    const size_t linesBefore = RowTexts(IDC_LOG).size();
    window_->Files().AddFolderToSendList(big, "big");
    EXPECT_EQ(engine_->SendList.Count(), 100);
    EXPECT_EQ(Controls().RowCount(IDC_FILE_LIST), 100);
    const std::vector<std::string> lines = RowTexts(IDC_LOG);
    ASSERT_EQ(lines.size(), linesBefore + 1);
    EXPECT_EQ(lines.back(), "File list is full: 21 files of big were not added.");
}

}  // namespace

}  // namespace kb::test
