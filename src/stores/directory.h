// The correspondent directory: the parties this end can call.
//
// A sorted table of fixed 140-byte records, held whole in memory and kept in
// the file "kestrelbound_directory": a 2-byte count, little-endian, then the
// records in table order. The record in memory has exactly the layout of the
// file. The file is written over its old content without being cut short, so
// bytes of an earlier, longer table may lie behind the records; the count
// rules and they are never read.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace kb::stores {

// The record is stored as the host's bytes, which must be little-endian.
static_assert(std::endian::native == std::endian::little,
              "the directory record is stored as the host's bytes, which must be little-endian");

inline constexpr uint32_t CorrespondentSize = 140;
// Slots in the table. One more than the records it may hold: the slot behind
// the last record stays zero, because the scans of the pick-up folders run up
// to and including CorrespondentDirectory::Count.
inline constexpr int DirectorySlots = 128;
inline constexpr int DirectoryMaxRecords = DirectorySlots - 1;
// Characters of a name or number; its field holds one more, for the NUL.
inline constexpr size_t FirmNameMaxLength = 31;
inline constexpr size_t ContactMaxLength = 19;

struct Correspondent {
    char FirmName[32];    // shown in the list; the sort key; the pick-up folder's name
    char IsdnNumber[32];  // the number to dial
    int32_t Protocol;     // 0 V.120, 1 AIMUX, 2 X.75
    int32_t Carrier;      // 0 Default, 1 AT&T, 2 MCI, 3 Sprint
    uint8_t Reserved72;
    uint8_t Use56K;
    // Finds a record again after sorting; meaningless in the file.
    uint8_t SelectMark;
    uint8_t Reserved75;
    uint8_t Use2B;
    uint8_t UseV42;
    uint8_t HasPickUp;  // a pick-up folder exists for this record
    uint8_t HotSend;    // 1: the pick-up folder goes out by itself; 0: it waits to be fetched
    char ContactName[20];
    char ContactPhone[20];
    uint32_t HotBytes;  // bytes seen in the hot folder at the last look
    uint8_t Reserved124[12];
    // Used only by an exported entry; an imported record keeps its value.
    uint8_t EntryMagic[4];
};

static_assert(std::is_trivially_copyable_v<Correspondent>);
static_assert(std::is_standard_layout_v<Correspondent>);
static_assert(sizeof(Correspondent) == CorrespondentSize);
static_assert(offsetof(Correspondent, FirmName) == 0);
static_assert(offsetof(Correspondent, IsdnNumber) == 32);
static_assert(offsetof(Correspondent, Protocol) == 64);
static_assert(offsetof(Correspondent, Carrier) == 68);
static_assert(offsetof(Correspondent, Reserved72) == 72);
static_assert(offsetof(Correspondent, Use56K) == 73);
static_assert(offsetof(Correspondent, SelectMark) == 74);
static_assert(offsetof(Correspondent, Reserved75) == 75);
static_assert(offsetof(Correspondent, Use2B) == 76);
static_assert(offsetof(Correspondent, UseV42) == 77);
static_assert(offsetof(Correspondent, HasPickUp) == 78);
static_assert(offsetof(Correspondent, HotSend) == 79);
static_assert(offsetof(Correspondent, ContactName) == 80);
static_assert(offsetof(Correspondent, ContactPhone) == 100);
static_assert(offsetof(Correspondent, HotBytes) == 120);
static_assert(offsetof(Correspondent, Reserved124) == 124);
static_assert(offsetof(Correspondent, EntryMagic) == 136);

// The table, zero-filled. It lives as long as its installation, which
// outlives every thread that reads it.
struct CorrespondentDirectory {
    Correspondent Records[DirectorySlots] = {};
    // Records in use, in slots 0 to Count - 1. The communications thread reads
    // it while it looks for a caller's record.
    std::atomic<int16_t> Count{0};

    Correspondent& operator[](int slot) { return Records[slot]; }
    const Correspondent& operator[](int slot) const { return Records[slot]; }
};

// The text of a fixed-width field, up to its NUL or the field's end; a field
// from a damaged file without a NUL never reads past the field.
template <size_t N>
std::string FieldText(const char (&field)[N]) {
    size_t length = 0;
    while (length < N && field[length] != '\0') {
        ++length;
    }
    return std::string(field, length);
}

// The longest start of text that takes at most `bytes` bytes and ends
// between two characters, so that a name cut to a field never ends in half
// of one.
inline std::string_view CutToWholeCharacters(std::string_view text, size_t bytes) {
    if (text.size() <= bytes) {
        return text;
    }
    size_t end = bytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return text.substr(0, end);
}

// Puts text into a field, cut to the field's width less one between two
// characters, and clears every byte behind it.
template <size_t N>
void SetFieldText(char (&field)[N], std::string_view text) {
    const std::string_view kept = CutToWholeCharacters(text, N - 1);
    for (size_t i = 0; i < N; ++i) {
        field[i] = i < kept.size() ? kept[i] : '\0';
    }
}

// Reads the file at path into the table. On the first run creates the file as
// the count 0, two zero bytes. True when the table holds what the file holds,
// read or just made; false after the message "Cannot create directory file.",
// with the table empty. The count in the file is taken only as far as it is
// sound: a negative count loads nothing, and no more records are loaded than
// the table may hold (127) or than the file holds whole.
bool LoadDirectory(CorrespondentDirectory& directory, const std::string& path);

// Writes the count and the records over the start of the existing file at
// path, without cutting the file short and without creating it.
// True if the file could be opened; no message either way.
bool SaveDirectory(const CorrespondentDirectory& directory, const std::string& path);

// Sorts the records in use by FirmName.
void SortDirectory(CorrespondentDirectory& directory);

// Orders two records as strncmp orders the first 31 bytes of their FirmName:
// byte order, so every capital comes before every small letter.
int CompareCorrespondents(const Correspondent& a, const Correspondent& b);

}  // namespace kb::stores
