// One file of a send or receive list.
//
// FileEntry is a plain record: lists of them are shifted with memmove-like
// moves and the receiver keeps a whole copy as the candidate for a recovered
// transfer, so it must stay trivially copyable. A fresh entry is all zero.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "platform/shared_word.h"

namespace kb::engine {

using platform::SharedWord;

// Text in a field of fixed width, zero-terminated when it is shorter than the
// field. Its bytes are the field's bytes, so it can stand in a record that goes
// on the wire.
template <std::size_t N>
struct FixedText {
    char Bytes[N]{};

    // Puts text in, cut to N - 1 characters, and clears every byte behind it.
    // False if the text had to be cut.
    bool Set(std::string_view text) {
        const std::size_t n = text.size() < N ? text.size() : N - 1;
        std::memcpy(Bytes, text.data(), n);
        std::memset(Bytes + n, 0, N - n);
        return n == text.size();
    }

    // The text up to its terminator. A field without a terminator, as one from
    // the far end may be, yields all N bytes and nothing beyond them.
    [[nodiscard]] std::string_view View() const {
        const void* end = std::memchr(Bytes, 0, N);
        const std::size_t n =
            end ? static_cast<std::size_t>(static_cast<const char*>(end) - Bytes) : N;
        return std::string_view(Bytes, n);
    }

    [[nodiscard]] bool IsEmpty() const { return Bytes[0] == 0; }
    void Clear() { std::memset(Bytes, 0, N); }
};

// How many bytes of text to keep so that at most limit bytes remain and no
// character of several bytes (UTF-8) is cut in two: names are shortened and
// suffixed by bytes, and a cut character would make the name invalid text.
constexpr std::size_t WholeCharactersWithin(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) {
        return text.size();
    }
    std::size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    return cut;
}

// Four characters in reading order, such as a creator or type code.
using FourCharCode = std::array<char, 4>;

// The codes that this program puts on every file it offers.
inline constexpr FourCharCode DefaultCreatorCode{'d', 'o', 's', 'a'};
inline constexpr FourCharCode DefaultTypeCode{'T', 'E', 'X', 'T'};

// What an entry stands for: a file, or the folder that the files behind it
// belong to; a program file differs from a plain one only in its icon. The
// far end may announce any number, and one this program does not know is
// kept as it came, so the type holds every signed 16-bit value; only the
// wire's records and the icon of a list row see the number.
enum class FileKind : int16_t { PlainFile = 0, FolderMarker = 1, ProgramFile = 2 };
// The kind's number, which the wire carries and which picks a row's icon.
constexpr int16_t KindNumber(FileKind kind) {
    return static_cast<int16_t>(kind);
}

struct FileEntry {
    FixedText<32> WireName;     // receiving side: the name as announced
    FixedText<32> DisplayName;  // the name shown, announced and, on receipt, in use
    FixedText<512> FilePath;    // full path of the file
    FileKind EntryKind = FileKind::PlainFile;
    uint32_t TotalLength = 0;  // wire bytes of the entry
    uint32_t DataLength = 0;   // wire bytes of the data stream
    uint32_t AuxLength = 0;    // wire bytes of the second stream
    FourCharCode CreatorCode{};
    FourCharCode TypeCode{};
    uint32_t EntryComplete = 0;  // receiving side: the whole file has arrived
    int16_t NextBlock = 0;       // block that opens the next section to read or write
    int16_t DataBlocks = 0;      // whole blocks in DataLength
    int16_t BlocksDone = 0;      // whole blocks moved
    int16_t LastBlockBytes = 0;  // bytes of the short last block, possibly 0
    uint32_t DataDone = 0;       // nothing more of the data stream is to move
    int16_t AuxNextBlock = 0;
    int16_t AuxBlocks = 0;
    int16_t AuxBlocksDone = 0;
    int16_t AuxLastBlockBytes = 0;
    uint32_t AuxDone = 0;
    // The progress figures are read for the display by one thread while the
    // threads of the pipeline write them, so each access is atomic.
    SharedWord<uint32_t> BytesDone;      // wire bytes moved
    SharedWord<uint32_t> StartTime;      // NowMs when the first byte moved, 0 until then
    SharedWord<uint32_t> LastBlockTime;  // NowMs when the latest block moved, 0 until then
};

static_assert(std::is_trivially_copyable_v<FileEntry>);
static_assert(std::is_standard_layout_v<FileEntry>);
static_assert(sizeof(FixedText<32>) == 32 && sizeof(FixedText<512>) == 512);

}  // namespace kb::engine
