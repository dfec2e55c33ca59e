#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/files.h"
#include "support/temp_folder.h"

TEST(Files, FolderRulesThatCallersRelyOn) {
    TempFolder root;
    const std::string folder = root / "Incoming Files";
    EXPECT_TRUE(CreateFolder(folder));
    EXPECT_FALSE(CreateFolder(folder)) << "making a folder that exists must fail";
    WriteWholeFile(folder + "/a.txt", "x");
    EXPECT_FALSE(RemoveFolder(folder)) << "a folder that holds a file stays";
    EXPECT_TRUE(DeleteFileAt(folder + "/a.txt"));
    EXPECT_FALSE(DeleteFileAt(folder + "/a.txt"));
    EXPECT_TRUE(RemoveFolder(folder));
    EXPECT_FALSE(FolderExists(folder));
}

TEST(Files, MoveNeverReplacesAnExistingFile) {
    TempFolder root;
    WriteWholeFile(root / "new", "new");
    WriteWholeFile(root / "old", "old");
    EXPECT_FALSE(MoveFileNoReplace(root / "new", root / "old"));
    EXPECT_EQ(ReadWholeFile(root / "old"), "old");
    EXPECT_EQ(ReadWholeFile(root / "new"), "new");
    EXPECT_TRUE(MoveFileNoReplace(root / "new", root / "moved"));
    EXPECT_FALSE(PathExists(root / "new"));
    EXPECT_EQ(ReadWholeFile(root / "moved"), "new");
}

TEST(Files, OpenModesKeepOrCutContent) {
    TempFolder root;
    const std::string path = root / "f";
    File file;
    EXPECT_FALSE(file.Open(path, File::Mode::Write)) << "write mode never creates";
    EXPECT_FALSE(file.Open(root.Path(), File::Mode::Read)) << "a folder is no file";
    WriteWholeFile(path, "0123456789");

    ASSERT_TRUE(file.Open(path, File::Mode::Write));
    EXPECT_TRUE(file.Write("ab", 2));
    file.Close();
    EXPECT_EQ(ReadWholeFile(path), "ab23456789") << "writing from the start keeps the tail";

    ASSERT_TRUE(file.Open(path, File::Mode::Write));
    ASSERT_TRUE(file.Seek(0, File::From::End));
    EXPECT_TRUE(file.Write("Z", 1));
    EXPECT_EQ(file.Length(), 11);
    file.Close();

    ASSERT_TRUE(file.Open(path, File::Mode::Read));
    char buffer[64];
    ASSERT_TRUE(file.Seek(8, File::From::Begin));
    EXPECT_EQ(file.Read(buffer, sizeof buffer), 3u) << "a read at the end gives fewer bytes";
    EXPECT_EQ(std::string(buffer, 3), "89Z");
    file.Close();

    ASSERT_TRUE(file.Open(path, File::Mode::CreateReadWrite));
    EXPECT_EQ(file.Length(), 0);
}

TEST(Files, ListingShowsFilesWithSizesAndMarksFolders) {
    TempFolder root;
    WriteWholeFile(root / "three", "abc");
    ASSERT_TRUE(CreateFolder(root / "Sent Files"));
    std::vector<FolderEntry> entries;
    ASSERT_TRUE(ListFolder(root.Path(), entries));
    int files = 0;
    int folders = 0;
    for (const FolderEntry& entry : entries) {
        if (entry.isFolder) {
            ++folders;
        } else {
            ++files;
            EXPECT_EQ(entry.name, "three");
            EXPECT_EQ(entry.size, 3u);
        }
    }
    EXPECT_EQ(files, 1);
    EXPECT_EQ(folders, 3) << "\".\", \"..\" and the subfolder";
    EXPECT_FALSE(ListFolder(root / "missing", entries));
    EXPECT_GT(FreeDiskSpace(root.Path()), 0u);
}

TEST(Clock, IntervalArithmeticIsSixteenBit) {
    EXPECT_EQ(ElapsedBetween(100, 900, 101, 150), 250);
    EXPECT_EQ(ElapsedBetween(100, 0, 104, 0), 4000);
    EXPECT_EQ(ElapsedBetween(100, 0, 132, 767), 32767);
    EXPECT_LT(ElapsedBetween(100, 0, 132, 768), 0) << "turns negative past 32767 ms";
}

TEST(Clock, StampIntervalsSurviveTheWrap) {
    ShiftNowMsForTest(0);
    const uint32_t base = NowMs();
    ShiftNowMsForTest(0xFFFFFFFFu - base - 5);  // the clock now stands 5 ms before the wrap
    const uint32_t before = NowMs();
    SleepMs(20);
    const uint32_t after = NowMs();
    ShiftNowMsForTest(0);
    EXPECT_LT(after, before) << "the stamp wrapped";
    EXPECT_GE(static_cast<uint32_t>(after - before), 20u);
    EXPECT_LT(static_cast<uint32_t>(after - before), 5000u);
}
