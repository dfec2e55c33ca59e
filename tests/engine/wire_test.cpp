#include "engine/wire.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "engine/checksum.h"
#include "engine/file_entry.h"

namespace {

using Bytes = std::vector<uint8_t>;

template <class Record>
Bytes BytesOf(const Record& record) {
    Bytes bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Bytes Zeros(size_t n) {
    return Bytes(n, 0);
}

Bytes TextBytes(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

// An entry for a file of that size, filled the way the file list fills one.
FileEntry EntryForFile(std::string_view name, uint64_t size) {
    FileEntry entry;
    entry.DisplayName.Set(name);
    entry.FilePath.Set(std::string("/data/") + std::string(name));
    entry.EntryKind = KindPlainFile;
    SetEntryLengths(entry, static_cast<uint32_t>(DataLengthForSize(size)));
    entry.CreatorCode = DefaultCreatorCode;
    entry.TypeCode = DefaultTypeCode;
    return entry;
}

// ---------------------------------------------------------------------------
// A list of one file, a.txt of 1000 bytes, as it goes on the wire.

TEST(WireExample, OneFileListBytes) {
    const FileEntry entry = EntryForFile("a.txt", 1000);
    ASSERT_EQ(entry.DataLength, 1002u);

    const Bytes sent = Concat({
        TextBytes(TokenH100.Line),
        BytesOf(MakeSessionHeader(1, entry.TotalLength)),
        BytesOf(MakeWireFileEntry(entry)),
    });

    const Bytes header = Concat({
        {0xFF, 0xAA, 0x55, 0x00},
        Zeros(10),
        {0x57, 0x31, 0x30, 0x30, 0x00, 0x00},
        {0x00, 0x00, 0x00, 0x01},
        {0x00, 0x00, 0x03, 0xEA},
    });
    // The bytes behind the name's terminator are ours to choose: zeros.
    const Bytes fileEntry = Concat({
        {0x61, 0x2E, 0x74, 0x78, 0x74, 0x00},
        Zeros(26),
        {0x00, 0x00, 0x00, 0x00},
        {0x00, 0x00, 0x03, 0xEA},
        {0x00, 0x00, 0x03, 0xEA},
        {0x00, 0x00, 0x00, 0x00},
        {0x64, 0x6F, 0x73, 0x61},
        {0x54, 0x45, 0x58, 0x54},
    });
    EXPECT_EQ(sent, Concat({TextBytes("H100\r\n"), header, fileEntry}));
}

TEST(WireExample, DataStreamIsOneShortBlockOpeningWithZeroChecksum) {
    const FileEntry entry = EntryForFile("a.txt", 1000);
    EXPECT_EQ(entry.DataBlocks, 0);
    EXPECT_EQ(entry.LastBlockBytes, 1002);
    EXPECT_EQ(ExpectedBlockOf(entry), 1002);

    std::mt19937 random(1);
    Bytes section(SectionWireBytes, 0xEE);
    for (uint32_t i = 0; i < 1000; ++i) {
        section[2 + i] = static_cast<uint8_t>(random() | 1);
    }
    SealSection(section.data(), 1000);
    EXPECT_EQ(section[0], 0x00);
    EXPECT_EQ(section[1], 0x00);
    EXPECT_TRUE(SectionIntact(section.data(), 1000));
}

TEST(WireExample, ReceivedRecordsReadBackInHostOrder) {
    const FileEntry entry = EntryForFile("a.txt", 1000);
    // As the receiver finds them in its input, behind an odd offset.
    const Bytes arrived =
        Concat({{0x99}, BytesOf(MakeSessionHeader(1, 1002)), BytesOf(MakeWireFileEntry(entry))});

    auto header = RecordFromBytes<SessionHeader>(arrived.data() + 1);
    SwapSessionHeader(header);
    EXPECT_EQ(header.Magic, SessionMagic);
    EXPECT_EQ(header.FileCount, 1u);
    EXPECT_EQ(header.TotalBytes, 1002u);

    auto wire = RecordFromBytes<WireFileEntry>(arrived.data() + 1 + sizeof(SessionHeader));
    SwapWireFileEntry(wire);
    EXPECT_EQ(wire.Name.View(), "a.txt");
    EXPECT_EQ(wire.EntryKind, 0);
    EXPECT_EQ(wire.TotalLength, 1002u);
    EXPECT_EQ(wire.DataLength, 1002u);
    EXPECT_EQ(wire.AuxLength, 0u);
    EXPECT_EQ(wire.CreatorCode, DefaultCreatorCode);
    EXPECT_EQ(wire.TypeCode, DefaultTypeCode);
}

TEST(WireRecords, MagicInAnotherByteOrderIsNotTheMagic) {
    const Bytes reversed = Concat({{0x00, 0x55, 0xAA, 0xFF}, Zeros(24)});
    auto header = RecordFromBytes<SessionHeader>(reversed.data());
    SwapSessionHeader(header);
    EXPECT_NE(header.Magic, SessionMagic);
}

TEST(WireRecords, FolderMarkerAndProgramKindsAreBigEndian) {
    FileEntry marker;
    marker.DisplayName.Set("Reports");
    marker.EntryKind = KindFolderMarker;
    const Bytes markerBytes = BytesOf(MakeWireFileEntry(marker));
    EXPECT_EQ(Bytes(markerBytes.begin() + 32, markerBytes.begin() + 36),
              (Bytes{0x00, 0x00, 0x00, 0x01}));

    FileEntry program = EntryForFile("setup.exe", 70000);
    program.EntryKind = KindProgramFile;
    const Bytes programBytes = BytesOf(MakeWireFileEntry(program));
    EXPECT_EQ(Bytes(programBytes.begin() + 32, programBytes.begin() + 36),
              (Bytes{0x00, 0x00, 0x00, 0x02}));
    // 70000 + 2 = 0x00011172
    EXPECT_EQ(Bytes(programBytes.begin() + 40, programBytes.begin() + 44),
              (Bytes{0x00, 0x01, 0x11, 0x72}));
}

TEST(WireRecords, NameFieldIsZeroPaddedWhateverTheEntryHeld) {
    FileEntry entry = EntryForFile("b", 10);
    // Left-over bytes behind the terminator of the entry's own field.
    std::memset(entry.DisplayName.Bytes, 'Z', sizeof entry.DisplayName.Bytes);
    entry.DisplayName.Bytes[0] = 'b';
    entry.DisplayName.Bytes[1] = 0;
    const Bytes bytes = BytesOf(MakeWireFileEntry(entry));
    EXPECT_EQ(bytes[0], 'b');
    EXPECT_EQ(Bytes(bytes.begin() + 1, bytes.begin() + 32), Zeros(31));
}

TEST(WireRecords, RetrieveRequestCarriesTheNumberZeroPadded) {
    const Bytes bytes = BytesOf(MakeRetrieveRequest("0301234567"));
    EXPECT_EQ(bytes, Concat({TextBytes("0301234567"), Zeros(22)}));

    // A number too long for the field keeps its terminator.
    const Bytes longNumber = BytesOf(MakeRetrieveRequest(std::string(40, '9')));
    EXPECT_EQ(longNumber, Concat({Bytes(31, '9'), Zeros(1)}));
}

// ---------------------------------------------------------------------------
// Tokens

TEST(WireTokens, BytesAndLengths) {
    const std::vector<std::string_view> lines = {
        "SYNCON\r\n",     "RCVCON\r\n",     "H100\r\n",      "ACK3\r\n",
        "FILERESTA3\r\n", "NAK3\r\n",       "NAK4\r\n",      "ACK4\r\n",
        "ACK2\r\n",       "FILERECOVR\r\n", "CONTSEND\r\n",  "SENDRECOVR\r\n",
        "ABORT\r\n",      "RETRIEVE\r\n",   "NOFILEDIR\r\n", "NOFILEAVAIL\r\n",
    };
    const std::vector<uint32_t> lengths = {8, 8, 6, 6, 12, 6, 6, 6, 6, 12, 10, 12, 7, 10, 11, 13};
    ASSERT_EQ(AllTokens.size(), lines.size());
    for (size_t i = 0; i < AllTokens.size(); ++i) {
        EXPECT_EQ(AllTokens[i].Line, lines[i]);
        EXPECT_EQ(AllTokens[i].Length(), lengths[i]) << lines[i];
        EXPECT_EQ(std::string_view(AllTokens[i].Bytes(), AllTokens[i].Length()), lines[i]);
        EXPECT_EQ(AllTokens[i].Text().find_first_of("\r\n"), std::string_view::npos);
    }
}

// The searches of each side, in the order in which they run.
const std::vector<std::string_view> SenderSearches = {
    TokenFileRecovr.Text(),
    TokenContSend.Text(),
    TextNoC,
    TextAck1,
    TokenAck3.Text(),
    TextFileResta1,
    TokenFileResta3.Text(),
    TokenAck2.Text(),
    TokenAbort.Text(),
    TokenRcvcon.Text(),
    TokenAck4.Text(),
};
const std::vector<std::string_view> ReceiverSearches = {
    TokenSyncon.Text(),   TokenH100.Text(),      TextNoCarrier,
    TokenRetrieve.Text(), TokenNoFileDir.Text(), TokenNoFileAvail.Text(),
};

std::vector<std::string_view> Matches(std::string_view line,
                                      const std::vector<std::string_view>& searches) {
    std::vector<std::string_view> found;
    for (auto text : searches) {
        if (LineHolds(line, text)) {
            found.push_back(text);
        }
    }
    return found;
}

TEST(WireTokens, EachTokenTriggersExactlyItsOwnSearch) {
    // What the receiver sends reaches the sender's searches, and the other
    // way round. NAK3 and NAK4 have no search; a token must never set off a
    // search meant for another one.
    const std::vector<std::pair<WireToken, std::string_view>> toSender = {
        {TokenRcvcon, "RCVCON"},     {TokenAck3, "ACK3"},   {TokenFileResta3, "FILERESTA3"},
        {TokenAck4, "ACK4"},         {TokenAck2, "ACK2"},   {TokenFileRecovr, "FILERECOVR"},
        {TokenContSend, "CONTSEND"}, {TokenAbort, "ABORT"},
    };
    for (const auto& [token, search] : toSender) {
        EXPECT_EQ(Matches(token.Line, SenderSearches), std::vector<std::string_view>{search})
            << token.Line;
    }
    EXPECT_TRUE(Matches(TokenNak3.Line, SenderSearches).empty());
    EXPECT_TRUE(Matches(TokenNak4.Line, SenderSearches).empty());

    const std::vector<std::pair<WireToken, std::string_view>> toReceiver = {
        {TokenSyncon, "SYNCON"},           {TokenH100, "H100"},
        {TokenRetrieve, "RETRIEVE"},       {TokenNoFileDir, "NOFILEDIR"},
        {TokenNoFileAvail, "NOFILEAVAIL"},
    };
    for (const auto& [token, search] : toReceiver) {
        EXPECT_EQ(Matches(token.Line, ReceiverSearches), std::vector<std::string_view>{search})
            << token.Line;
    }
    EXPECT_TRUE(LineHolds(TokenSendRecovr.Line, TokenSendRecovr));
}

TEST(WireTokens, LinesAreSearchedAnywhere) {
    EXPECT_TRUE(LineHolds("\x1b[0mOK ACK3\r\n", TokenAck3));
    EXPECT_TRUE(LineHolds("ACK1\r\n", TextAck1));
    EXPECT_FALSE(LineHolds("ACK1\r\n", TokenAck3));
    EXPECT_TRUE(LineHolds("FILERESTA1\r\n", TextFileResta1));
    // The adapter's message is seen by both sides, the bare CR LF in front of
    // it by nobody.
    EXPECT_TRUE(LineHolds("NO CARRIER\r\n", TextNoC));
    EXPECT_TRUE(LineHolds("NO CARRIER\r\n", TextNoCarrier));
    EXPECT_TRUE(Matches("\r\n", SenderSearches).empty());
    EXPECT_TRUE(Matches("\r\n", ReceiverSearches).empty());
    EXPECT_EQ(Matches("SYNCON H100\r\n", ReceiverSearches),
              (std::vector<std::string_view>{"SYNCON", "H100"}));
}

// ---------------------------------------------------------------------------
// Sections and blocks

TEST(WireArithmetic, LengthsOfFilesOnTheWire) {
    struct Case {
        uint64_t size;
        uint32_t dataLength;
        int16_t dataBlocks;
        int16_t lastBlockBytes;
    };
    const Case cases[] = {
        {0, 0, 0, 0},
        {1, 3, 0, 3},
        {8190, 8192, 1, 0},
        {8191, 8193, 1, 1},
        {131070, 131072, 16, 0},
        {131071, 131075, 16, 3},
        {262140, 262144, 32, 0},
        {262141, 262147, 32, 3},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DataLengthForSize(c.size), c.dataLength) << c.size;
        EXPECT_EQ(DataBlocksOf(c.dataLength), c.dataBlocks) << c.size;
        EXPECT_EQ(LastBlockBytesOf(c.dataLength), c.lastBlockBytes) << c.size;
    }
}

TEST(WireArithmetic, NewEntryPosition) {
    const FileEntry empty = EntryForFile("empty", 0);
    EXPECT_EQ(empty.DataDone, 1u);
    EXPECT_EQ(empty.TotalLength, 0u);

    FileEntry entry = EntryForFile("f", 8191);
    EXPECT_EQ(entry.TotalLength, 8193u);
    EXPECT_EQ(entry.DataDone, 0u);
    EXPECT_EQ(entry.AuxLength, 0u);
    EXPECT_EQ(entry.AuxDone, 1u);
    EXPECT_EQ(entry.NextBlock, 0);
    EXPECT_EQ(entry.BytesDone, 0u);
    EXPECT_EQ(ExpectedBlockOf(entry), 8192);
    entry.BlocksDone = 1;
    EXPECT_EQ(ExpectedBlockOf(entry), 1);

    EXPECT_EQ(ExpectedBlockOf(EntryForFile("one", 1)), 3);
    // A stream that ends on a block boundary has no short block: after its
    // last whole block nothing more is due.
    FileEntry whole = EntryForFile("whole", 131070);
    whole.BlocksDone = 16;
    EXPECT_EQ(ExpectedBlockOf(whole), 0);
}

TEST(WireArithmetic, BlockCountersHoldEveryStreamBelowTheLimit) {
    EXPECT_TRUE(DataLengthFits(DataLengthLimit - 1));
    EXPECT_FALSE(DataLengthFits(DataLengthLimit));
    EXPECT_EQ(DataBlocksOf(static_cast<uint32_t>(DataLengthLimit - 1)), 32767);
    // The largest file whose stream still fits.
    const uint64_t sections = (DataLengthLimit - 1) / SectionWireBytes;
    const uint64_t size =
        sections * SectionFileBytes + (DataLengthLimit - 1) % SectionWireBytes - 2;
    EXPECT_EQ(DataLengthForSize(size), DataLengthLimit - 1);
    EXPECT_FALSE(DataLengthFits(DataLengthForSize(size + 1)));
}

TEST(WireArithmetic, SectionOffsetsInTheFile) {
    EXPECT_EQ(SectionFileOffset(0), 0);
    EXPECT_EQ(SectionFileOffset(16), 131070);
    EXPECT_EQ(SectionFileOffset(32), 262140);
    EXPECT_EQ(SectionFileOffset(48), 393210);
    // The highest section start that the 16-bit counter reaches.
    EXPECT_EQ(SectionFileOffset(32752), int64_t{2047} * 131070);
}

TEST(WireSections, SealedSectionsCheckAndDamageShows) {
    std::mt19937 random(9);
    Bytes section(SectionWireBytes);
    for (auto& b : section) {
        b = static_cast<uint8_t>(random());
    }
    SealSection(section.data(), SectionFileBytes);
    const uint16_t crc = SectionCrc(section.data() + 2, SectionFileBytes);
    EXPECT_EQ(section[0], crc >> 8);
    EXPECT_EQ(section[1], crc & 0xFF);
    EXPECT_TRUE(SectionIntact(section.data(), SectionFileBytes));

    section[2 + 5000] ^= 0x10;
    EXPECT_FALSE(SectionIntact(section.data(), SectionFileBytes));
    section[2 + 5000] ^= 0x10;
    section[0] ^= 0x01;
    EXPECT_FALSE(SectionIntact(section.data(), SectionFileBytes));
    section[0] ^= 0x01;
    section[1] ^= 0x80;
    EXPECT_FALSE(SectionIntact(section.data(), SectionFileBytes));
}

// ---------------------------------------------------------------------------
// Recovery

FileEntry EntryInTransfer() {
    FileEntry entry = EntryForFile("report.doc", 400000);
    entry.EntryComplete = 0;
    entry.NextBlock = 32;
    entry.BlocksDone = 32;
    entry.BytesDone = 262144;
    return entry;
}

TEST(WireRecovery, BodyBytesAreBigEndianWithCodesReversed) {
    const FileEntry entry = EntryInTransfer();
    const Bytes body = BytesOf(MakeRecoveryBody(8192, 0x01020304, entry));
    ASSERT_EQ(body.size(), 80u);
    auto field = [&](size_t offset) {
        return Bytes(body.begin() + offset, body.begin() + offset + 4);
    };
    EXPECT_EQ(field(0), (Bytes{0x00, 0x00, 0x20, 0x00}));
    EXPECT_EQ(field(4), (Bytes{0x01, 0x02, 0x03, 0x04}));
    // 400000 + 2 x 4 = 400008 = 0x00061A88
    EXPECT_EQ(field(12), (Bytes{0x00, 0x06, 0x1A, 0x88}));
    EXPECT_EQ(field(16), (Bytes{0x00, 0x06, 0x1A, 0x88}));
    EXPECT_EQ(field(24), TextBytes("asod"));
    EXPECT_EQ(field(28), TextBytes("TXET"));
    EXPECT_EQ(field(36), (Bytes{0x00, 0x00, 0x00, 0x20}));
    // 400008 / 8192 = 48 whole blocks, 6792 = 0x1A88 bytes behind them.
    EXPECT_EQ(field(40), (Bytes{0x00, 0x00, 0x00, 0x30}));
    EXPECT_EQ(field(48), (Bytes{0x00, 0x00, 0x1A, 0x88}));
    EXPECT_EQ(field(72), (Bytes{0x00, 0x00, 0x00, 0x01}));
    EXPECT_EQ(field(76), (Bytes{0x00, 0x04, 0x00, 0x00}));
}

TEST(WireRecovery, BodySurvivesTheWireFieldForField) {
    FileEntry sent;
    sent.EntryKind = -2;
    sent.TotalLength = 0xA1B2C3D4;
    sent.DataLength = 0x0FFFFFFF;
    sent.AuxLength = 0x12345678;
    sent.CreatorCode = DefaultCreatorCode;
    sent.TypeCode = FourCharCode{'B', 'I', 'N', 0};
    sent.EntryComplete = 1;
    sent.NextBlock = 32752;
    sent.DataBlocks = -1;
    sent.BlocksDone = -32768;
    sent.LastBlockBytes = 8191;
    sent.DataDone = 0xDEADBEEF;
    sent.AuxNextBlock = -16;
    sent.AuxBlocks = 300;
    sent.AuxBlocksDone = -300;
    sent.AuxLastBlockBytes = 32767;
    sent.AuxDone = 1;
    sent.BytesDone = 0xFEDCBA98;

    const Bytes wire = BytesOf(MakeRecoveryBody(0xFFFF, 0x89ABCDEF, sent));
    // Signed fields travel sign-extended, the unsigned block size does not.
    auto field = [&](size_t offset) {
        return Bytes(wire.begin() + offset, wire.begin() + offset + 4);
    };
    EXPECT_EQ(field(0), (Bytes{0x00, 0x00, 0xFF, 0xFF}));
    EXPECT_EQ(field(8), (Bytes{0xFF, 0xFF, 0xFF, 0xFE}));
    EXPECT_EQ(field(40), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(field(44), (Bytes{0xFF, 0xFF, 0x80, 0x00}));
    EXPECT_EQ(field(24), TextBytes("asod"));

    // The far end reads the 80 bytes from wherever its buffer put them.
    Bytes buffer(83, 0x55);
    std::copy(wire.begin(), wire.end(), buffer.begin() + 3);
    const auto body = RecordFromBytes<RecoveryBody>(buffer.data() + 3);

    FileEntry taken = EntryForFile("mine.txt", 5);
    taken.WireName.Set("theirs.txt");
    taken.StartTime = 111;
    taken.LastBlockTime = 222;
    const FileEntry before = taken;
    const RecoveryPosition position = ApplyRecoveryBody(body, taken);

    EXPECT_EQ(position.ExpectedBlock, 0xFFFF);
    EXPECT_EQ(position.ReceiveRemaining, 0x89ABCDEFu);
    const RecoveryPosition peek = RecoveryPositionOf(body);
    EXPECT_EQ(peek.ExpectedBlock, position.ExpectedBlock);
    EXPECT_EQ(peek.ReceiveRemaining, position.ReceiveRemaining);

    EXPECT_EQ(taken.EntryKind, sent.EntryKind);
    EXPECT_EQ(taken.TotalLength, sent.TotalLength);
    EXPECT_EQ(taken.DataLength, sent.DataLength);
    EXPECT_EQ(taken.AuxLength, sent.AuxLength);
    EXPECT_EQ(taken.CreatorCode, sent.CreatorCode);
    EXPECT_EQ(taken.TypeCode, sent.TypeCode);
    EXPECT_EQ(taken.EntryComplete, sent.EntryComplete);
    EXPECT_EQ(taken.NextBlock, sent.NextBlock);
    EXPECT_EQ(taken.DataBlocks, sent.DataBlocks);
    EXPECT_EQ(taken.BlocksDone, sent.BlocksDone);
    EXPECT_EQ(taken.LastBlockBytes, sent.LastBlockBytes);
    EXPECT_EQ(taken.DataDone, sent.DataDone);
    EXPECT_EQ(taken.AuxNextBlock, sent.AuxNextBlock);
    EXPECT_EQ(taken.AuxBlocks, sent.AuxBlocks);
    EXPECT_EQ(taken.AuxBlocksDone, sent.AuxBlocksDone);
    EXPECT_EQ(taken.AuxLastBlockBytes, sent.AuxLastBlockBytes);
    EXPECT_EQ(taken.AuxDone, sent.AuxDone);
    EXPECT_EQ(taken.BytesDone, sent.BytesDone);

    // What the body does not carry stays as it was.
    EXPECT_EQ(taken.WireName.View(), before.WireName.View());
    EXPECT_EQ(taken.DisplayName.View(), before.DisplayName.View());
    EXPECT_EQ(taken.FilePath.View(), before.FilePath.View());
    EXPECT_EQ(taken.StartTime, 111u);
    EXPECT_EQ(taken.LastBlockTime, 222u);
}

TEST(WireRecovery, WideValuesAreNarrowedToTheirFields) {
    // A body from another build may carry more than 16 bits; only the low
    // bits reach a 16-bit field.
    RecoveryBody body = MakeRecoveryBody(8192, 0, EntryInTransfer());
    body.NextBlock = static_cast<int32_t>(0x10000100u);  // wire order: 0x00010010 in host order
    body.ExpectedBlock = 0x20000100u;                    // host order 0x00010020
    FileEntry entry;
    const RecoveryPosition position = ApplyRecoveryBody(body, entry);
    EXPECT_EQ(entry.NextBlock, 0x0010);
    EXPECT_EQ(position.ExpectedBlock, 0x0020);
}

TEST(WireRecovery, MessageIsTokenThenBody) {
    const RecoveryBody body = MakeRecoveryBody(8192, 400008, EntryInTransfer());
    const Bytes resend = BytesOf(MakeRecoveryMessage(TokenFileRecovr, body));
    EXPECT_EQ(resend, Concat({TextBytes("FILERECOVR\r\n"), BytesOf(body)}));
    const Bytes restart = BytesOf(MakeRecoveryMessage(TokenFileResta3, body));
    EXPECT_EQ(restart, Concat({TextBytes("FILERESTA3\r\n"), BytesOf(body)}));
}

// ---------------------------------------------------------------------------
// Text fields

TEST(FixedTextField, CutsAndTerminates) {
    FixedText<32> name;
    EXPECT_TRUE(name.IsEmpty());
    EXPECT_TRUE(name.Set(std::string(31, 'a')));
    EXPECT_EQ(name.View(), std::string(31, 'a'));
    EXPECT_FALSE(name.Set(std::string(32, 'b')));
    EXPECT_EQ(name.View(), std::string(31, 'b'));
    EXPECT_EQ(name.Bytes[31], 0);
    EXPECT_TRUE(name.Set("x"));
    EXPECT_EQ(name.View(), "x");
    EXPECT_EQ(std::string(name.Bytes + 1, 31), std::string(31, '\0'));
    name.Clear();
    EXPECT_TRUE(name.IsEmpty());

    // A field from the far end without any terminator is read to its end
    // and no further.
    std::memset(name.Bytes, 'q', sizeof name.Bytes);
    EXPECT_EQ(name.View(), std::string(32, 'q'));
}

}  // namespace
