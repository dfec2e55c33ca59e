// The records that go on the wire, byte for byte, where the end-to-end tests
// cannot see them: zeros behind names, the limits of the block counters, the
// recovery body in every field and both directions; and the sections'
// checksums.

#include "engine/wire.h"

#include <cstring>

#include "engine/checksum.h"
#include "engine_harness.h"

namespace kb::test {

using namespace kb::engine;

namespace {

template <class Record>
std::string BytesOf(const Record& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

TEST(WireRecords, FieldsAreZeroPaddedAndCutAndTheBlockCountersReachEveryStreamAndSection) {
    FileEntry entry = EntryForFile("b", "/data/b", 10);
    // Left-over bytes behind the terminator of the entry's own field.
    std::memset(entry.DisplayName.Bytes + 2, 'Z', sizeof entry.DisplayName.Bytes - 2);
    EXPECT_EQ(BytesOf(MakeWireFileEntry(entry)).substr(0, 32), "b" + std::string(31, '\0'));
    EXPECT_EQ(BytesOf(MakeRetrieveRequest("0301234567")), "0301234567" + std::string(22, '\0'));
    // A number too long for the field keeps its terminator.
    EXPECT_EQ(BytesOf(MakeRetrieveRequest(std::string(40, '9'))),
              std::string(31, '9') + std::string(1, '\0'));

    // The block counters reach every stream below the limit, and every
    // section.
    EXPECT_EQ(DataBlocksOf(static_cast<uint32_t>(DataLengthLimit - 1)), 32767);
    // The largest file whose stream still fits, and one byte more.
    const uint64_t size = (DataLengthLimit - 1) / SectionWireBytes * SectionFileBytes +
                          (DataLengthLimit - 1) % SectionWireBytes - 2;
    EXPECT_EQ(DataLengthForSize(size), DataLengthLimit - 1);
    EXPECT_FALSE(DataLengthFits(DataLengthForSize(size + 1)));
    // The highest section start that the 16-bit counter reaches.
    EXPECT_EQ(SectionFileOffset(32752), int64_t{2047} * 131070);
}

TEST(WireRecovery, EveryFieldOfABodyIsTakenAndMadeAgainSignedOnesWithTheirSign) {
    // The twenty fields high byte first: the two session values, then the
    // entry's, the signed ones sign-extended and the codes turned round.
    std::string wire;
    // "asod" and "\0NIB" are the codes as the wire carries them.
    for (const uint32_t field :
         {0x0000FFFFu, 0x89ABCDEFu, 0xFFFFFFFEu, 0xA1B2C3D4u, 0x0FFFFFFFu, 0x12345678u, 0x61736F64u,
          0x004E4942u, 1u,          0x7FF0u,     0xFFFFFFFFu, 0xFFFF8000u, 0x1FFFu,     0xDEADBEEFu,
          0xFFFFFFF0u, 300u,        0xFFFFFED4u, 0x7FFFu,     1u,          0xFEDCBA98u}) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            wire += static_cast<char>(field >> shift);
        }
    }
    // The far end reads the 80 bytes from wherever its buffer put them.
    const std::string buffer = "xyz" + wire;
    const auto body = RecordFromBytes<RecoveryBody>(buffer.data() + 3);
    FileEntry taken = EntryForFile("mine.txt", "/data/mine.txt", 5);
    taken.WireName.Set("theirs.txt");
    taken.StartTime = 111;
    taken.LastBlockTime = 222;
    const RecoveryPosition position = ApplyRecoveryBody(body, taken);
    EXPECT_EQ(position.ExpectedBlock, 0xFFFF);
    EXPECT_EQ(position.ReceiveRemaining, 0x89ABCDEFu);
    EXPECT_EQ(KindNumber(taken.EntryKind), -2);
    EXPECT_EQ(taken.DataBlocks, -1);
    EXPECT_EQ(taken.BlocksDone, -32768);
    EXPECT_EQ(taken.AuxBlocksDone, -300);
    EXPECT_EQ(taken.CreatorCode, DefaultCreatorCode);
    EXPECT_EQ(taken.TypeCode, (FourCharCode{'B', 'I', 'N', 0}));
    // The body made from what was taken is the one that came.
    EXPECT_EQ(BytesOf(MakeRecoveryBody(position.ExpectedBlock, position.ReceiveRemaining, taken)),
              wire);
    // What the body does not carry stays as it was.
    EXPECT_EQ(taken.WireName.View(), "theirs.txt");
    EXPECT_EQ(taken.DisplayName.View(), "mine.txt");
    EXPECT_EQ(taken.FilePath.View(), "/data/mine.txt");
    EXPECT_EQ(taken.StartTime, 111u);
    EXPECT_EQ(taken.LastBlockTime, 222u);

    // A body from another build may carry more than 16 bits; only the low
    // bits reach a 16-bit field.
    RecoveryBody wide = body;
    wide.NextBlock = static_cast<int32_t>(0x10000100u);  // wire order: 0x00010010 in host order
    wide.ExpectedBlock = 0x20000100u;                    // host order 0x00010020
    EXPECT_EQ(ApplyRecoveryBody(wide, taken).ExpectedBlock, 0x0020);
    EXPECT_EQ(taken.NextBlock, 0x0010);
}

const uint8_t* Data(const std::string& bytes) {
    return reinterpret_cast<const uint8_t*>(bytes.data());
}

// The independent peer puts each section's checksum, high byte first, in
// front of its bytes; a section of counting bytes has the worked value.
TEST(Checksum, SectionCrcIsWhatAnIndependentPeerPutsInFrontOfASection) {
    const std::string bytes = RandomBytes(131070, 11);
    // Up to 1024 bytes no chunk is covered and the checksum is 0; a length
    // of whole chunks leaves its last full chunk out.
    for (uint32_t n : {1u, 1023u, 1024u, 1025u, 2047u, 2048u, 2049u, 4096u, 50000u, 131070u}) {
        const std::string stream = peer::Stream(bytes.substr(0, n));
        const auto expected = static_cast<uint16_t>(static_cast<uint8_t>(stream[0]) << 8 |
                                                    static_cast<uint8_t>(stream[1]));
        EXPECT_EQ(SectionCrc(Data(bytes), n), expected) << "length " << n;
    }
    EXPECT_EQ(SectionCrc(Data(bytes), 0), 0);

    std::string counting(131070, '\0');
    for (size_t i = 0; i < counting.size(); ++i) {
        counting[i] = static_cast<char>(i % 256);
    }
    EXPECT_EQ(SectionCrc(Data(counting), 131070), 0x37BA);
}

}  // namespace

}  // namespace kb::test
