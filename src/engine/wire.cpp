#include "engine/wire.h"

#include <algorithm>

#include "engine/checksum.h"

namespace kb::engine {

namespace {

uint32_t Swapped32(uint32_t value) {
    SwapLong(&value);
    return value;
}

// A signed 16-bit value widened with its sign, as the wire carries it.
int32_t Widened(int16_t value) {
    return static_cast<int32_t>(Swapped32(static_cast<uint32_t>(int32_t{value})));
}

uint32_t Widened(uint16_t value) {
    return Swapped32(value);
}

// The low 16 bits of a wire field in host order; the high ones are dropped.
int16_t NarrowedSigned(int32_t wire) {
    return static_cast<int16_t>(static_cast<uint16_t>(Swapped32(static_cast<uint32_t>(wire))));
}

uint16_t NarrowedUnsigned(uint32_t wire) {
    return static_cast<uint16_t>(Swapped32(wire));
}

void SwapSigned(int32_t* value) {
    *value = static_cast<int32_t>(Swapped32(static_cast<uint32_t>(*value)));
}

// A code's four characters taken as one host-order value, and back.
uint32_t CodeValue(const FourCharCode& code) {
    uint32_t value;
    std::memcpy(&value, code.data(), sizeof value);
    return value;
}

FourCharCode CodeOfValue(uint32_t value) {
    FourCharCode code;
    std::memcpy(code.data(), &value, sizeof value);
    return code;
}

uint16_t StoredSectionCrc(const uint8_t* section) {
    return static_cast<uint16_t>((section[0] << 8) | section[1]);
}

}  // namespace

void SwapLong(uint32_t* value) {
    const uint32_t v = *value;
    *value = (v >> 24) | ((v >> 8) & 0x0000FF00u) | ((v << 8) & 0x00FF0000u) | (v << 24);
}

void SwapShort(uint16_t* value) {
    *value = static_cast<uint16_t>((*value >> 8) | (*value << 8));
}

void SetEntryLengths(FileEntry& entry, uint32_t dataLength) {
    entry.TotalLength = dataLength;
    entry.DataLength = dataLength;
    entry.AuxLength = 0;
    entry.EntryComplete = 0;
    entry.NextBlock = 0;
    entry.DataBlocks = DataBlocksOf(dataLength);
    entry.BlocksDone = 0;
    entry.LastBlockBytes = LastBlockBytesOf(dataLength);
    entry.DataDone = dataLength == 0 ? 1 : 0;
    entry.AuxNextBlock = 0;
    entry.AuxBlocks = 0;
    entry.AuxBlocksDone = 0;
    entry.AuxLastBlockBytes = 0;
    entry.AuxDone = 1;
    entry.BytesDone = 0;
    entry.StartTime = 0;
    entry.LastBlockTime = 0;
}

uint16_t ExpectedBlockOf(const FileEntry& entry) {
    if (entry.BlocksDone < entry.DataBlocks) {
        return BlockBytes;
    }
    return static_cast<uint16_t>(entry.LastBlockBytes);
}

void SealSection(uint8_t* section, uint32_t fileBytes) {
    const uint16_t crc = SectionCrc(section + SectionCrcBytes, fileBytes);
    section[0] = static_cast<uint8_t>(crc >> 8);
    section[1] = static_cast<uint8_t>(crc & 0xFF);
}

bool SectionIntact(const uint8_t* section, uint32_t fileBytes) {
    return SectionCrc(section + SectionCrcBytes, fileBytes) == StoredSectionCrc(section);
}

SessionHeader MakeSessionHeader(uint32_t fileCount, uint32_t totalBytes) {
    SessionHeader header;
    header.Magic = Swapped32(SessionMagic);
    std::memcpy(header.Tag, "W100", 4);
    header.FileCount = Swapped32(fileCount);
    header.TotalBytes = Swapped32(totalBytes);
    return header;
}

void SwapSessionHeader(SessionHeader& header) {
    SwapLong(&header.Magic);
    SwapLong(&header.FileCount);
    SwapLong(&header.TotalBytes);
}

WireFileEntry MakeWireFileEntry(const FileEntry& entry) {
    WireFileEntry wire;
    wire.Name.Set(entry.DisplayName.View());
    wire.EntryKind = Widened(KindNumber(entry.EntryKind));
    wire.TotalLength = Swapped32(entry.TotalLength);
    wire.DataLength = Swapped32(entry.DataLength);
    wire.AuxLength = Swapped32(entry.AuxLength);
    wire.CreatorCode = entry.CreatorCode;
    wire.TypeCode = entry.TypeCode;
    return wire;
}

void SwapWireFileEntry(WireFileEntry& entry) {
    SwapSigned(&entry.EntryKind);
    SwapLong(&entry.TotalLength);
    SwapLong(&entry.DataLength);
    SwapLong(&entry.AuxLength);
}

RecoveryBody MakeRecoveryBody(uint16_t expectedBlock, uint32_t receiveRemaining,
                              const FileEntry& entry) {
    RecoveryBody body;
    body.ExpectedBlock = Widened(expectedBlock);
    body.ReceiveRemaining = Swapped32(receiveRemaining);
    body.EntryKind = Widened(KindNumber(entry.EntryKind));
    body.TotalLength = Swapped32(entry.TotalLength);
    body.DataLength = Swapped32(entry.DataLength);
    body.AuxLength = Swapped32(entry.AuxLength);
    body.CreatorCode = Swapped32(CodeValue(entry.CreatorCode));
    body.TypeCode = Swapped32(CodeValue(entry.TypeCode));
    body.EntryComplete = Swapped32(entry.EntryComplete);
    body.NextBlock = Widened(entry.NextBlock);
    body.DataBlocks = Widened(entry.DataBlocks);
    body.BlocksDone = Widened(entry.BlocksDone);
    body.LastBlockBytes = Widened(entry.LastBlockBytes);
    body.DataDone = Swapped32(entry.DataDone);
    body.AuxNextBlock = Widened(entry.AuxNextBlock);
    body.AuxBlocks = Widened(entry.AuxBlocks);
    body.AuxBlocksDone = Widened(entry.AuxBlocksDone);
    body.AuxLastBlockBytes = Widened(entry.AuxLastBlockBytes);
    body.AuxDone = Swapped32(entry.AuxDone);
    body.BytesDone = Swapped32(entry.BytesDone);
    return body;
}

RecoveryPosition ApplyRecoveryBody(const RecoveryBody& body, FileEntry& entry) {
    entry.EntryKind = static_cast<FileKind>(NarrowedSigned(body.EntryKind));
    entry.TotalLength = Swapped32(body.TotalLength);
    entry.DataLength = Swapped32(body.DataLength);
    entry.AuxLength = Swapped32(body.AuxLength);
    entry.CreatorCode = CodeOfValue(Swapped32(body.CreatorCode));
    entry.TypeCode = CodeOfValue(Swapped32(body.TypeCode));
    entry.EntryComplete = Swapped32(body.EntryComplete);
    entry.NextBlock = NarrowedSigned(body.NextBlock);
    entry.DataBlocks = NarrowedSigned(body.DataBlocks);
    entry.BlocksDone = NarrowedSigned(body.BlocksDone);
    entry.LastBlockBytes = NarrowedSigned(body.LastBlockBytes);
    entry.DataDone = Swapped32(body.DataDone);
    entry.AuxNextBlock = NarrowedSigned(body.AuxNextBlock);
    entry.AuxBlocks = NarrowedSigned(body.AuxBlocks);
    entry.AuxBlocksDone = NarrowedSigned(body.AuxBlocksDone);
    entry.AuxLastBlockBytes = NarrowedSigned(body.AuxLastBlockBytes);
    entry.AuxDone = Swapped32(body.AuxDone);
    entry.BytesDone = Swapped32(body.BytesDone);
    return RecoveryPositionOf(body);
}

RecoveryPosition RecoveryPositionOf(const RecoveryBody& body) {
    RecoveryPosition position;
    position.ExpectedBlock = NarrowedUnsigned(body.ExpectedBlock);
    position.ReceiveRemaining = Swapped32(body.ReceiveRemaining);
    return position;
}

RecoveryMessage MakeRecoveryMessage(const WireToken& token, const RecoveryBody& body) {
    RecoveryMessage message;
    std::memcpy(message.Token, token.Bytes(),
                std::min<std::size_t>(token.Length(), sizeof message.Token));
    message.Body = body;
    return message;
}

RetrieveRequest MakeRetrieveRequest(std::string_view localNumber) {
    RetrieveRequest request;
    request.LocalNumber.Set(localNumber);
    return request;
}

bool RecoveryBodySound(const RecoveryBody& body) {
    FileEntry position;
    ApplyRecoveryBody(body, position);
    const uint32_t length = position.DataLength;
    if (!DataLengthFits(length) || length % SectionWireBytes == 1 ||
        length % SectionWireBytes == 2) {
        return false;
    }
    if (position.DataBlocks != DataBlocksOf(length) ||
        position.LastBlockBytes != LastBlockBytesOf(length)) {
        return false;
    }
    const int16_t next = position.NextBlock;
    return next >= 0 && next % static_cast<int16_t>(BlocksPerSection) == 0 &&
           next <= position.DataBlocks && position.BlocksDone == next;
}

}  // namespace kb::engine
