#include "stores/directory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/message_box.h"
#include "stores/paths.h"
#include "support/temp_folder.h"

namespace {

// A record as the file holds it, with a name and a number and the rest zero
// but for a marker byte, so that a record's position can be told.
std::string RecordBytes(const std::string& firm, const std::string& number, uint8_t marker) {
    std::string bytes(CorrespondentSize, '\0');
    std::memcpy(bytes.data(), firm.data(), firm.size());
    std::memcpy(bytes.data() + 32, number.data(), number.size());
    bytes[124] = static_cast<char>(marker);
    return bytes;
}

std::string CountBytes(int16_t count) {
    const uint16_t raw = static_cast<uint16_t>(count);
    return std::string{static_cast<char>(raw & 0xFF), static_cast<char>(raw >> 8)};
}

bool SlotIsZero(int slot) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&Directory[slot]);
    for (uint32_t i = 0; i < CorrespondentSize; ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

class DirectoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        BuildPaths(folder_.Path());
        SetMessageBoxHandler([this](const std::string& text) { messages_.push_back(text); });
    }
    void TearDown() override { SetMessageBoxHandler(nullptr); }

    std::string FilePath() const { return folder_ / "kestrelbound_directory"; }

    TempFolder folder_;
    std::vector<std::string> messages_;
};

TEST_F(DirectoryTest, FirstRunWritesTwoZeroBytesAndLeavesTheTableEmpty) {
    // Something left in memory from before must not survive the load.
    DirectoryCount = 3;
    SetFieldText(Directory[0].FirmName, "Left over");

    ASSERT_EQ(LoadDirectory(), 1);
    EXPECT_EQ(ReadWholeFile(FilePath()), std::string(2, '\0'));
    EXPECT_EQ(DirectoryCount.load(), 0);
    EXPECT_TRUE(SlotIsZero(0));
    EXPECT_TRUE(messages_.empty());

    // The empty file loads as an empty table, with no message.
    ASSERT_EQ(LoadDirectory(), 1);
    EXPECT_EQ(DirectoryCount.load(), 0);
    EXPECT_TRUE(messages_.empty());
}

TEST_F(DirectoryTest, AFileThatCannotBeCreatedGivesTheMessageAndAnEmptyTable) {
    BuildPaths(folder_ / "missing folder");
    EXPECT_EQ(LoadDirectory(), 0);
    EXPECT_EQ(messages_, std::vector<std::string>{"Cannot create directory file."});
    EXPECT_EQ(DirectoryCount.load(), 0);
    // Saving then fails quietly and creates nothing.
    EXPECT_FALSE(SaveDirectory());
    EXPECT_EQ(messages_.size(), 1u);
}

TEST_F(DirectoryTest, OnlyTheCountedRecordsLoadAndTheTailIsNeverRead) {
    WriteWholeFile(FilePath(), CountBytes(2) + RecordBytes("Alpha", "555", 1) +
                                   RecordBytes("Beta", "666", 2) + RecordBytes("Stale", "777", 3));
    ASSERT_EQ(LoadDirectory(), 1);
    ASSERT_EQ(DirectoryCount.load(), 2);
    EXPECT_EQ(FieldText(Directory[0].FirmName), "Alpha");
    EXPECT_EQ(FieldText(Directory[1].IsdnNumber), "666");
    EXPECT_EQ(Directory[1].Reserved124[0], 2);
    EXPECT_TRUE(SlotIsZero(2));
}

TEST_F(DirectoryTest, ACountOutsideTheTableNeverWritesPastIt) {
    // 200 records claimed and 130 present: the table takes 127 and keeps its
    // spare slot zero.
    std::string file = CountBytes(200);
    for (int i = 0; i < 130; ++i) {
        file += RecordBytes("Firm" + std::to_string(i), "1", static_cast<uint8_t>(i + 1));
    }
    WriteWholeFile(FilePath(), file);
    ASSERT_EQ(LoadDirectory(), 1);
    EXPECT_EQ(DirectoryCount.load(), DirectoryMaxRecords);
    EXPECT_EQ(Directory[126].Reserved124[0], 127);
    EXPECT_TRUE(SlotIsZero(127));

    // A negative count loads nothing.
    WriteWholeFile(FilePath(), CountBytes(-1) + RecordBytes("Alpha", "555", 1));
    ASSERT_EQ(LoadDirectory(), 1);
    EXPECT_EQ(DirectoryCount.load(), 0);
    EXPECT_TRUE(SlotIsZero(0));

    // A count above what the file holds loads only the whole records.
    WriteWholeFile(FilePath(), CountBytes(5) + RecordBytes("Alpha", "555", 1) +
                                   RecordBytes("Beta", "666", 2) + std::string(70, 'x'));
    ASSERT_EQ(LoadDirectory(), 1);
    EXPECT_EQ(DirectoryCount.load(), 2);
    EXPECT_TRUE(SlotIsZero(2));

    // A file of one byte is an empty table.
    WriteWholeFile(FilePath(), std::string(1, '\x05'));
    ASSERT_EQ(LoadDirectory(), 1);
    EXPECT_EQ(DirectoryCount.load(), 0);
    EXPECT_TRUE(messages_.empty());
}

TEST_F(DirectoryTest, SaveWritesEveryFieldAtItsOffsetAndKeepsTheOlderTail) {
    const std::string tail(3 * CorrespondentSize, 't');
    WriteWholeFile(FilePath(), CountBytes(3) + tail);
    ASSERT_EQ(LoadDirectory(), 1);

    DirectoryCount = 1;
    Correspondent& r = Directory[0];
    std::memset(&r, 0, sizeof r);
    SetFieldText(r.FirmName, "Smith & Sons");
    SetFieldText(r.IsdnNumber, "555+666");
    r.Protocol = 2;
    r.Carrier = 0x01020304;
    r.Use56K = 1;
    r.SelectMark = 1;
    r.Use2B = 1;
    r.UseV42 = 1;
    r.HasPickUp = 1;
    r.HotSend = 1;
    SetFieldText(r.ContactName, "a contact name longer than nineteen");
    SetFieldText(r.ContactPhone, "0123");
    r.HotBytes = 40000;
    std::memcpy(r.EntryMagic, "eDBK", 4);
    ASSERT_TRUE(SaveDirectory());

    const std::string bytes = ReadWholeFile(FilePath());
    // Not cut short: the older bytes behind the new record stay.
    ASSERT_EQ(bytes.size(), 2 + tail.size());
    EXPECT_EQ(bytes.substr(0, 2), CountBytes(1));
    const std::string rec = bytes.substr(2, CorrespondentSize);
    EXPECT_EQ(rec.substr(0, 13), std::string("Smith & Sons\0", 13));
    EXPECT_EQ(rec.substr(32, 8), std::string("555+666\0", 8));
    EXPECT_EQ(rec.substr(64, 4), std::string("\x02\x00\x00\x00", 4));
    EXPECT_EQ(rec.substr(68, 4), std::string("\x04\x03\x02\x01", 4));
    EXPECT_EQ(rec.substr(72, 8), std::string("\x00\x01\x01\x00\x01\x01\x01\x01", 8));
    EXPECT_EQ(rec.substr(80, 20), std::string("a contact name long\0", 20));
    EXPECT_EQ(rec.substr(100, 5), std::string("0123\0", 5));
    EXPECT_EQ(rec.substr(120, 4), std::string("\x40\x9C\x00\x00", 4));
    EXPECT_EQ(rec.substr(124, 12), std::string(12, '\0'));
    EXPECT_EQ(rec.substr(136, 4), "eDBK");
    EXPECT_EQ(bytes.substr(2 + CorrespondentSize), tail.substr(CorrespondentSize));

    // And it comes back as it went.
    ASSERT_EQ(LoadDirectory(), 1);
    ASSERT_EQ(DirectoryCount.load(), 1);
    EXPECT_EQ(Directory[0].Carrier, 0x01020304);
    EXPECT_EQ(Directory[0].HotBytes, 40000u);
    EXPECT_EQ(FieldText(Directory[0].ContactName), "a contact name long");
}

TEST_F(DirectoryTest, SortIsByteOrderOverTheFirst31BytesOfTheName) {
    ASSERT_EQ(LoadDirectory(), 1);
    const std::vector<std::string> names = {"alpha", "Zeta", "beta", "Alpha", "Beta"};
    for (size_t i = 0; i < names.size(); ++i) {
        SetFieldText(Directory[i].FirmName, names[i]);
    }
    DirectoryCount = static_cast<int16_t>(names.size());
    SortDirectory();
    std::vector<std::string> sorted;
    for (size_t i = 0; i < names.size(); ++i) {
        sorted.push_back(FieldText(Directory[i].FirmName));
    }
    EXPECT_EQ(sorted, (std::vector<std::string>{"Alpha", "Beta", "Zeta", "alpha", "beta"}));
    EXPECT_TRUE(SlotIsZero(5));

    // Byte 32 of the name field lies beyond the key: two names that differ
    // only there compare equal.
    Correspondent a{};
    Correspondent b{};
    std::memset(a.FirmName, 'x', 32);
    std::memset(b.FirmName, 'x', 32);
    b.FirmName[31] = 'y';
    EXPECT_EQ(CompareCorrespondents(a, b), 0);
    b.FirmName[30] = 'y';
    EXPECT_LT(CompareCorrespondents(a, b), 0);
    // Bytes above 127 sort after the letters, as unsigned bytes.
    SetFieldText(a.FirmName, "\xC3\x89tienne");
    SetFieldText(b.FirmName, "zed");
    EXPECT_GT(CompareCorrespondents(a, b), 0);
}

TEST_F(DirectoryTest, FieldsAreCutToTheirWidthAndReadWithinIt) {
    Correspondent r{};
    SetFieldText(r.FirmName, std::string(40, 'n'));
    EXPECT_EQ(FieldText(r.FirmName), std::string(31, 'n'));
    EXPECT_EQ(r.FirmName[31], '\0');
    // A field without its NUL, as a damaged file may hold, stops at its end.
    std::memset(r.ContactName, 'c', sizeof r.ContactName);
    std::memset(r.ContactPhone, 'p', sizeof r.ContactPhone);
    EXPECT_EQ(FieldText(r.ContactName), std::string(20, 'c'));
}

}  // namespace
