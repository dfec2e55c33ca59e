#include "stores/directory.h"

#include <cstring>

#include "store_fixture.h"

namespace kb::test {

using namespace kb::stores;

namespace {

// A record as the file holds it, with a name and a number and the rest zero
// but for a marker byte, so that a record's position can be told.
std::string RecordBytes(const std::string& firm, const std::string& number, uint8_t marker) {
    std::string bytes = Padded(firm, 32) + Padded(number, 32) + std::string(76, '\0');
    bytes[124] = static_cast<char>(marker);
    return bytes;
}

std::string CountBytes(int16_t count) {
    const uint16_t raw = static_cast<uint16_t>(count);
    return std::string{static_cast<char>(raw & 0xFF), static_cast<char>(raw >> 8)};
}

using DirectoryTest = StoreTest;

// Only the counted records load, and of a count outside the table, or larger
// than the file holds, only the whole records that fit, never more than the
// table holds; the slot behind them stays zero, whatever a load before left
// there. (The two zero bytes of a first run are the program's start test's.)
TEST_F(DirectoryTest, ACountOutsideTheTableNeverWritesPastItAndASaveWritesEveryField) {
    std::string many = CountBytes(200);
    for (int i = 0; i < 130; ++i) {
        many += RecordBytes("Firm" + std::to_string(i), "1", static_cast<uint8_t>(i + 1));
    }
    const std::string two = RecordBytes("Alpha", "555", 1) + RecordBytes("Beta", "666", 2);
    struct CountCase {
        const char* What;
        std::string File;
        int16_t Loaded;
    };
    const CountCase cases[] = {
        {"a stale record behind the count", CountBytes(2) + two + RecordBytes("Stale", "7", 3), 2},
        {"200 claimed, 130 present", many, DirectoryMaxRecords},
        {"a negative count", CountBytes(-1) + two, 0},
        {"more than the file holds", CountBytes(5) + two + std::string(70, 'x'), 2},
        {"a file of one byte", std::string(1, '\x05'), 0},
    };
    for (const CountCase& c : cases) {
        SCOPED_TRACE(c.What);
        WriteWholeFile(stores_.Paths.DirectoryPath, c.File);
        ASSERT_TRUE(LoadDirectory(stores_.Directory, stores_.Paths.DirectoryPath));
        EXPECT_EQ(stores_.Directory.Count.load(), c.Loaded);
        if (c.Loaded > 0) {
            EXPECT_EQ(stores_.Directory[c.Loaded - 1].Reserved124[0], c.Loaded)
                << "the last one loaded";
        }
        const auto* behind = reinterpret_cast<const char*>(&stores_.Directory[c.Loaded]);
        EXPECT_EQ(std::string(behind, CorrespondentSize), std::string(CorrespondentSize, '\0'));
    }
    EXPECT_TRUE(Messages().empty());

    // A save writes every field at its offset and keeps the older tail.
    const std::string tail(3 * CorrespondentSize, 't');
    WriteWholeFile(stores_.Paths.DirectoryPath, CountBytes(3) + tail);
    ASSERT_TRUE(LoadDirectory(stores_.Directory, stores_.Paths.DirectoryPath));

    stores_.Directory.Count = 1;
    Correspondent& r = stores_.Directory[0];
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
    SetFieldText(r.ContactName, "a contact name lon\xc3\xbcger than nineteen");
    SetFieldText(r.ContactPhone, "0123");
    r.HotBytes = 40000;
    std::memcpy(r.EntryMagic, "eDBK", 4);
    ASSERT_TRUE(SaveDirectory(stores_.Directory, stores_.Paths.DirectoryPath));

    // Little-endian numbers; the flag bytes 72 to 79; the contact cut to 19
    // bytes, less where that would split a character. Not cut short: the
    // older bytes behind the new record stay.
    EXPECT_EQ(ReadWholeFile(stores_.Paths.DirectoryPath),
              CountBytes(1) + Padded("Smith & Sons", 32) + Padded("555+666", 32) +
                  std::string("\x02\0\0\0\x04\x03\x02\x01\x00\x01\x01\x00\x01\x01\x01\x01", 16) +
                  Padded("a contact name lon", 20) + Padded("0123", 20) +
                  std::string("\x40\x9C\0\0", 4) + std::string(12, '\0') + "eDBK" +
                  tail.substr(CorrespondentSize));
}

// The order of whole names is the window's and the station's tests'; here the
// edges of the key. Byte 32 of the name field lies beyond it: two names that
// differ only there compare equal. A field is read within its width.
TEST(DirectoryFields, TheKeyIsTheFirst31BytesOfTheNameAsUnsignedBytesAndAFieldEndsAtItsWidth) {
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
    // A field without its NUL, as a damaged file may hold, stops at its end.
    std::memset(a.ContactName, 'c', sizeof a.ContactName);
    std::memset(a.ContactPhone, 'p', sizeof a.ContactPhone);
    EXPECT_EQ(FieldText(a.ContactName), std::string(20, 'c'));
}

}  // namespace

}  // namespace kb::test
