// What passes on the data channel once the call is up: text tokens, four
// binary records, and file data in checksummed sections cut into blocks.
//
// Every integer on the wire is big-endian. The engine keeps values in host
// order and converts on the way in and out; the Make... functions below give
// records ready to send, and the readers take records as they arrived, so that
// callers seldom need to swap anything themselves.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "engine/file_entry.h"

namespace kb::engine {

// Conversion to and from the wire is a reversal of bytes, which is right on a
// little-endian host: the only kind this program is built for.
static_assert(std::endian::native == std::endian::little);

// Reverse the bytes of a value in place.
void SwapLong(uint32_t* value);
void SwapShort(uint16_t* value);

// ---------------------------------------------------------------------------
// Sections and blocks

inline constexpr uint32_t BlockBytes = 8192;
inline constexpr uint32_t BlocksPerSection = 16;
inline constexpr uint32_t SectionCrcBytes = 2;
inline constexpr uint32_t SectionWireBytes = BlockBytes * BlocksPerSection;       // 131072
inline constexpr uint32_t SectionFileBytes = SectionWireBytes - SectionCrcBytes;  // 131070
// Entries in SendList, ReceiveList and the wire list.
inline constexpr int ListCapacity = 100;
// The block counters are signed 16-bit, so a data stream must stay below this
// to be counted in blocks at all: the longest stream the receiving side takes.
inline constexpr uint64_t DataLengthLimit = uint64_t{1} << 28;
// The sending side counts further. Its NextBlock names the block that opens
// the next section to read and rises by 16 with every section read, so after
// the last section of a file of n sections it stands at 16 n, and a signed
// 16-bit counter holds that for at most 2047 sections: the largest file this
// end offers is 2047 whole sections, a stream of 32752 blocks.
inline constexpr uint64_t SectionsToSendLimit = (uint64_t{INT16_MAX} + 1) / BlocksPerSection - 1;
inline constexpr uint64_t LargestFileToSend = SectionsToSendLimit * SectionFileBytes;

// Wire bytes of a file of that size: its bytes and 2 for each section, where
// a size of an exact number of sections has no empty section behind it.
constexpr uint64_t DataLengthForSize(uint64_t fileSize) {
    const uint64_t sections = (fileSize + SectionFileBytes - 1) / SectionFileBytes;
    return fileSize + SectionCrcBytes * sections;
}

// True if a data stream of that length can be counted in blocks.
constexpr bool DataLengthFits(uint64_t dataLength) {
    return dataLength < DataLengthLimit;
}

// True if a file of that size can be offered: every section of it can be
// counted on the sending side.
constexpr bool FileSizeCanBeSent(uint64_t fileSize) {
    return fileSize <= LargestFileToSend;
}

// Whole blocks in a data stream.
constexpr int16_t DataBlocksOf(uint32_t dataLength) {
    return static_cast<int16_t>(dataLength / BlockBytes);
}

// Bytes of the short last block of a data stream; 0 when it ends on a block.
constexpr int16_t LastBlockBytesOf(uint32_t dataLength) {
    return static_cast<int16_t>(dataLength % BlockBytes);
}

// Offset in the file of the section that opens at block nextBlock, a multiple
// of 16: each block counted at 8192 bytes, less the 2 checksum bytes of every
// section before it.
constexpr int64_t SectionFileOffset(int16_t nextBlock) {
    return int64_t{nextBlock} * BlockBytes - nextBlock / 8;
}

// Gives an entry the lengths of a data stream of dataLength wire bytes, and
// puts its position at the start: nothing moved, nothing complete, the second
// stream empty and done. Names, kind and codes stay as they are.
void SetEntryLengths(FileEntry& entry, uint32_t dataLength);

// Size of the next block due for the entry: a whole block while there are
// whole blocks left, otherwise its short last block.
uint16_t ExpectedBlockOf(const FileEntry& entry);

// A section in a buffer: bytes 0 and 1 hold the checksum, high byte first,
// and the fileBytes of the file follow from byte 2.
//
// Puts the checksum of the section's file bytes in front of them.
void SealSection(uint8_t* section, uint32_t fileBytes);
// True if the checksum in front of the section's file bytes is theirs.
[[nodiscard]] bool SectionIntact(const uint8_t* section, uint32_t fileBytes);

// ---------------------------------------------------------------------------
// Tokens

// A token as it is written: its text, then CR LF. A received line is searched
// for the text alone, anywhere in the line.
struct WireToken {
    std::string_view Line;

    [[nodiscard]] constexpr std::string_view Text() const {
        return Line.substr(0, Line.size() - 2);
    }
    [[nodiscard]] constexpr uint32_t Length() const { return static_cast<uint32_t>(Line.size()); }
    [[nodiscard]] constexpr const char* Bytes() const { return Line.data(); }
};

inline constexpr WireToken TokenSyncon{"SYNCON\r\n"};
inline constexpr WireToken TokenRcvcon{"RCVCON\r\n"};
inline constexpr WireToken TokenH100{"H100\r\n"};
inline constexpr WireToken TokenAck3{"ACK3\r\n"};
inline constexpr WireToken TokenFileResta3{"FILERESTA3\r\n"};
inline constexpr WireToken TokenNak3{"NAK3\r\n"};
inline constexpr WireToken TokenNak4{"NAK4\r\n"};
inline constexpr WireToken TokenAck4{"ACK4\r\n"};
inline constexpr WireToken TokenAck2{"ACK2\r\n"};
inline constexpr WireToken TokenFileRecovr{"FILERECOVR\r\n"};
inline constexpr WireToken TokenContSend{"CONTSEND\r\n"};
inline constexpr WireToken TokenSendRecovr{"SENDRECOVR\r\n"};
inline constexpr WireToken TokenAbort{"ABORT\r\n"};
inline constexpr WireToken TokenRetrieve{"RETRIEVE\r\n"};
inline constexpr WireToken TokenNoFileDir{"NOFILEDIR\r\n"};
inline constexpr WireToken TokenNoFileAvail{"NOFILEAVAIL\r\n"};

// Every token this program sends.
inline constexpr std::array<WireToken, 16> AllTokens{
    TokenSyncon, TokenRcvcon,   TokenH100,      TokenAck3,        TokenFileResta3, TokenNak3,
    TokenNak4,   TokenAck4,     TokenAck2,      TokenFileRecovr,  TokenContSend,   TokenSendRecovr,
    TokenAbort,  TokenRetrieve, TokenNoFileDir, TokenNoFileAvail,
};

// Texts the sender accepts but this program never sends: the first counts as
// ACK3, the second as FILERESTA3 with its body.
inline constexpr std::string_view TextAck1 = "ACK1";
inline constexpr std::string_view TextFileResta1 = "FILERESTA1";
// The adapter's report of a lost line. The sender looks for the short form,
// the receiver for the whole text.
inline constexpr std::string_view TextNoC = "NO C";
inline constexpr std::string_view TextNoCarrier = "NO CARRIER";

// True if the text stands anywhere in the line.
constexpr bool LineHolds(std::string_view line, std::string_view text) {
    return line.find(text) != std::string_view::npos;
}
constexpr bool LineHolds(std::string_view line, const WireToken& token) {
    return LineHolds(line, token.Text());
}
// True if the line holds the text, or the other text that counts the same
// where there is one (an empty other text counts for nothing).
constexpr bool LineHoldsEither(std::string_view line, std::string_view text,
                               std::string_view orText) {
    return LineHolds(line, text) || (!orText.empty() && LineHolds(line, orText));
}

// ---------------------------------------------------------------------------
// Records
//
// Each record is laid out byte for byte as it goes on the wire. Fields of the
// records hold wire order from the moment they are built until they are read
// back, unless a Swap... function has turned them to host order.

// Behind H100.
struct SessionHeader {
    uint32_t Magic = 0;
    uint8_t Reserved[10]{};   // zero when sent, ignored on receipt
    char Tag[6]{};            // "W100" and two zero bytes, ignored on receipt
    uint32_t FileCount = 0;   // entries of the list that follows, a folder marker included
    uint32_t TotalBytes = 0;  // wire bytes of all files of the list
};

inline constexpr uint32_t SessionMagic = 0xFFAA5500;

// One entry of the file list that follows the header.
struct WireFileEntry {
    FixedText<32> Name;
    int32_t EntryKind = 0;
    uint32_t TotalLength = 0;
    uint32_t DataLength = 0;
    uint32_t AuxLength = 0;
    FourCharCode CreatorCode{};  // reading order, never swapped
    FourCharCode TypeCode{};     // reading order, never swapped
};

// Where the receiver stood when the current section began, behind FILERECOVR
// and FILERESTA3. Twenty 32-bit fields; the 16-bit values of the entry are
// widened, the signed ones with their sign. The two codes are swapped like
// every other field, so their characters travel in reverse order.
struct RecoveryBody {
    uint32_t ExpectedBlock = 0;
    uint32_t ReceiveRemaining = 0;
    int32_t EntryKind = 0;
    uint32_t TotalLength = 0;
    uint32_t DataLength = 0;
    uint32_t AuxLength = 0;
    uint32_t CreatorCode = 0;
    uint32_t TypeCode = 0;
    uint32_t EntryComplete = 0;
    int32_t NextBlock = 0;
    int32_t DataBlocks = 0;
    int32_t BlocksDone = 0;
    int32_t LastBlockBytes = 0;
    uint32_t DataDone = 0;
    int32_t AuxNextBlock = 0;
    int32_t AuxBlocks = 0;
    int32_t AuxBlocksDone = 0;
    int32_t AuxLastBlockBytes = 0;
    uint32_t AuxDone = 0;
    uint32_t BytesDone = 0;
};

// The recovery token and its body, written in one piece.
struct RecoveryMessage {
    char Token[12]{};
    RecoveryBody Body;
};

// Behind RETRIEVE: the caller's own ISDN number, zero-padded.
struct RetrieveRequest {
    FixedText<32> LocalNumber;
};

static_assert(sizeof(SessionHeader) == 28);
static_assert(offsetof(SessionHeader, Magic) == 0);
static_assert(offsetof(SessionHeader, Reserved) == 4);
static_assert(offsetof(SessionHeader, Tag) == 14);
static_assert(offsetof(SessionHeader, FileCount) == 20);
static_assert(offsetof(SessionHeader, TotalBytes) == 24);

static_assert(sizeof(WireFileEntry) == 56);
static_assert(offsetof(WireFileEntry, Name) == 0);
static_assert(offsetof(WireFileEntry, EntryKind) == 32);
static_assert(offsetof(WireFileEntry, TotalLength) == 36);
static_assert(offsetof(WireFileEntry, DataLength) == 40);
static_assert(offsetof(WireFileEntry, AuxLength) == 44);
static_assert(offsetof(WireFileEntry, CreatorCode) == 48);
static_assert(offsetof(WireFileEntry, TypeCode) == 52);

static_assert(sizeof(RecoveryBody) == 80);
static_assert(offsetof(RecoveryBody, ExpectedBlock) == 0);
static_assert(offsetof(RecoveryBody, ReceiveRemaining) == 4);
static_assert(offsetof(RecoveryBody, EntryKind) == 8);
static_assert(offsetof(RecoveryBody, TotalLength) == 12);
static_assert(offsetof(RecoveryBody, DataLength) == 16);
static_assert(offsetof(RecoveryBody, AuxLength) == 20);
static_assert(offsetof(RecoveryBody, CreatorCode) == 24);
static_assert(offsetof(RecoveryBody, TypeCode) == 28);
static_assert(offsetof(RecoveryBody, EntryComplete) == 32);
static_assert(offsetof(RecoveryBody, NextBlock) == 36);
static_assert(offsetof(RecoveryBody, DataBlocks) == 40);
static_assert(offsetof(RecoveryBody, BlocksDone) == 44);
static_assert(offsetof(RecoveryBody, LastBlockBytes) == 48);
static_assert(offsetof(RecoveryBody, DataDone) == 52);
static_assert(offsetof(RecoveryBody, AuxNextBlock) == 56);
static_assert(offsetof(RecoveryBody, AuxBlocks) == 60);
static_assert(offsetof(RecoveryBody, AuxBlocksDone) == 64);
static_assert(offsetof(RecoveryBody, AuxLastBlockBytes) == 68);
static_assert(offsetof(RecoveryBody, AuxDone) == 72);
static_assert(offsetof(RecoveryBody, BytesDone) == 76);

static_assert(sizeof(RecoveryMessage) == 92);
static_assert(offsetof(RecoveryMessage, Token) == 0);
static_assert(offsetof(RecoveryMessage, Body) == 12);
static_assert(TokenFileRecovr.Length() == sizeof(RecoveryMessage::Token));
static_assert(TokenFileResta3.Length() == sizeof(RecoveryMessage::Token));

static_assert(sizeof(RetrieveRequest) == 32);
static_assert(offsetof(RetrieveRequest, LocalNumber) == 0);

static_assert(std::is_trivially_copyable_v<SessionHeader> &&
              std::is_trivially_copyable_v<WireFileEntry> &&
              std::is_trivially_copyable_v<RecoveryBody> &&
              std::is_trivially_copyable_v<RecoveryMessage> &&
              std::is_trivially_copyable_v<RetrieveRequest>);

// A record copied out of received bytes, which need not be aligned.
template <class Record>
Record RecordFromBytes(const void* bytes) {
    static_assert(std::is_trivially_copyable_v<Record>);
    Record record;
    std::memcpy(&record, bytes, sizeof record);
    return record;
}

// The header of a list of fileCount entries and totalBytes wire bytes, in wire
// order: magic, zero reserved bytes, tag, count and total.
SessionHeader MakeSessionHeader(uint32_t fileCount, uint32_t totalBytes);
// Turns the magic, the count and the total between wire and host order; the
// other fields are bytes and stay.
void SwapSessionHeader(SessionHeader& header);

// The list entry that announces a file, in wire order. The name is the
// entry's DisplayName with zeros behind it; the codes keep their order.
WireFileEntry MakeWireFileEntry(const FileEntry& entry);
// Turns the kind and the three lengths between wire and host order.
void SwapWireFileEntry(WireFileEntry& entry);

// The two values of a RecoveryBody that belong to the session rather than to
// the file, in host order.
struct RecoveryPosition {
    uint16_t ExpectedBlock = 0;
    uint32_t ReceiveRemaining = 0;
};

// The body for the receiver's position, in wire order: the two session values
// and the eighteen length and position fields of the entry.
RecoveryBody MakeRecoveryBody(uint16_t expectedBlock, uint32_t receiveRemaining,
                              const FileEntry& entry);
// Takes a body in wire order into the entry: the eighteen fields, in host order
// and narrowed to their width. Names, path, StartTime and LastBlockTime stay.
// Returns the two session values.
RecoveryPosition ApplyRecoveryBody(const RecoveryBody& body, FileEntry& entry);
// The two session values of a body in wire order, without touching any entry.
RecoveryPosition RecoveryPositionOf(const RecoveryBody& body);

// The token, FILERECOVR or FILERESTA3, in front of the body.
RecoveryMessage MakeRecoveryMessage(const WireToken& token, const RecoveryBody& body);

// The request of a retrieve, carrying this end's number, cut to 31 characters.
RetrieveRequest MakeRetrieveRequest(std::string_view localNumber);

// True if a body, as it came from the far end, describes a position inside a
// data stream that the block counters can hold, so that the pipeline can
// take it over without leaving its buffers.
[[nodiscard]] bool RecoveryBodySound(const RecoveryBody& body);

}  // namespace kb::engine
