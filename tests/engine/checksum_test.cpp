#include "engine/checksum.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

// CRC-16/XMODEM one bit at a time, written from the definition and sharing
// nothing with the table-driven code under test.
uint16_t BitwiseCrc(const uint8_t* bytes, size_t length, uint16_t crc) {
    for (size_t i = 0; i < length; ++i) {
        crc = static_cast<uint16_t>(crc ^ (bytes[i] << 8));
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x8000) ? static_cast<uint16_t>((crc << 1) ^ 0x1021)
                                 : static_cast<uint16_t>(crc << 1);
        }
    }
    return crc;
}

enum class ChunkOrder { HighFirst, LowFirst };

// The two-level checksum built the long way: the chunk values collected in a
// list in the given byte order, then one CRC over the list.
uint16_t ReferenceSectionCrc(const uint8_t* bytes, size_t length, ChunkOrder order) {
    const size_t chunks = length <= 1024 ? 0 : (length - 1) / 1024;
    std::vector<uint8_t> list;
    for (size_t i = 0; i < chunks; ++i) {
        const uint16_t value = BitwiseCrc(bytes + i * 1024, 1024, 0);
        const uint8_t high = static_cast<uint8_t>(value >> 8);
        const uint8_t low = static_cast<uint8_t>(value & 0xFF);
        if (order == ChunkOrder::HighFirst) {
            list.insert(list.end(), {high, low});
        } else {
            list.insert(list.end(), {low, high});
        }
    }
    return BitwiseCrc(list.data(), list.size(), 0);
}

std::vector<uint8_t> RandomBytes(std::mt19937& random, size_t length) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<uint8_t> bytes(length);
    for (auto& b : bytes) {
        b = static_cast<uint8_t>(byte(random));
    }
    return bytes;
}

std::vector<uint8_t> Repeated(const char* text, size_t length) {
    std::vector<uint8_t> bytes(length);
    const size_t n = std::char_traits<char>::length(text);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(text[i % n]);
    }
    return bytes;
}

std::vector<uint8_t> Counting(size_t length) {
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(i % 256);
    }
    return bytes;
}

TEST(Checksum, WorkedValues) {
    const auto abc = Repeated("abc", 3);
    EXPECT_EQ(Crc16(abc.data(), 3, 0), 0x9DD6);
    EXPECT_EQ(SectionCrc(abc.data(), 3), 0x0000);

    const auto abc1200 = Repeated("abc", 1200);
    EXPECT_EQ(Crc16(abc1200.data(), 1024, 0), 0x10EE);
    const uint8_t firstChunk[2] = {0x10, 0xEE};
    EXPECT_EQ(Crc16(firstChunk, 2, 0), 0x1F93);
    EXPECT_EQ(SectionCrc(abc1200.data(), 1200), 0x1F93);

    const auto section = Counting(131070);
    EXPECT_EQ(SectionCrc(section.data(), 131070), 0x37BA);
}

TEST(Checksum, LengthZeroGivesTheStartValue) {
    const uint8_t byte = 0x5A;
    EXPECT_EQ(Crc16(&byte, 0, 0), 0);
    EXPECT_EQ(Crc16(&byte, 0, 0xBEEF), 0xBEEF);
    EXPECT_EQ(Crc16(nullptr, 0, 0x1234), 0x1234);
    EXPECT_EQ(SectionCrc(&byte, 0), 0);
    EXPECT_EQ(SectionCrc(nullptr, 0), 0);
}

TEST(Checksum, Crc16MatchesBitwiseXmodem) {
    std::mt19937 random(7);
    std::uniform_int_distribution<int> length(0, 3000);
    std::uniform_int_distribution<int> start(0, 0xFFFF);
    std::uniform_int_distribution<int> offset(0, 7);
    for (int round = 0; round < 400; ++round) {
        const auto bytes = RandomBytes(random, 3008);
        // Every start alignment and every tail length of the eight-byte steps.
        const size_t from = static_cast<size_t>(offset(random));
        const size_t n = static_cast<size_t>(length(random));
        const uint16_t s = static_cast<uint16_t>(start(random));
        ASSERT_EQ(Crc16(bytes.data() + from, static_cast<uint32_t>(n), s),
                  BitwiseCrc(bytes.data() + from, n, s))
            << "length " << n << " offset " << from << " start " << s;
    }
    // A run split in two and carried on gives the CRC of the whole run.
    const auto bytes = RandomBytes(random, 1000);
    for (uint32_t cut : {0u, 1u, 7u, 8u, 9u, 500u, 999u, 1000u}) {
        const uint16_t head = Crc16(bytes.data(), cut, 0);
        EXPECT_EQ(Crc16(bytes.data() + cut, 1000 - cut, head), Crc16(bytes.data(), 1000, 0));
    }
}

TEST(Checksum, SectionCrcMatchesTheTwoLevelDefinition) {
    std::mt19937 random(11);
    const auto bytes = RandomBytes(random, 131072);
    for (uint32_t n : {1025u, 2047u, 2048u, 2049u, 4096u, 50000u, 131070u, 131071u, 131072u}) {
        EXPECT_EQ(SectionCrc(bytes.data(), n),
                  ReferenceSectionCrc(bytes.data(), n, ChunkOrder::HighFirst))
            << "length " << n;
    }
}

TEST(Checksum, ShortBuffersAlwaysGiveZero) {
    std::mt19937 random(3);
    for (uint32_t n = 0; n <= 1024; ++n) {
        const auto bytes = RandomBytes(random, n + 1);
        ASSERT_EQ(SectionCrc(bytes.data(), n), 0) << "length " << n;
    }
    const std::vector<uint8_t> ones(1024, 0xFF);
    EXPECT_EQ(SectionCrc(ones.data(), 1024), 0);
}

TEST(Checksum, UpTo2048BytesOnlyTheFirstChunkCounts) {
    std::mt19937 random(5);
    const auto first = RandomBytes(random, 1024);
    const uint16_t firstValue = BitwiseCrc(first.data(), 1024, 0);
    const uint8_t pair[2] = {static_cast<uint8_t>(firstValue >> 8),
                             static_cast<uint8_t>(firstValue & 0xFF)};
    const uint16_t expected = BitwiseCrc(pair, 2, 0);
    ASSERT_NE(expected, 0);
    for (uint32_t n = 1025; n <= 2048; ++n) {
        auto bytes = RandomBytes(random, n);
        std::copy(first.begin(), first.end(), bytes.begin());
        ASSERT_EQ(SectionCrc(bytes.data(), n), expected) << "length " << n;
    }
}

TEST(Checksum, EarlierChunksCountTheLastChunkDoesNot) {
    std::mt19937 random(13);
    auto section = RandomBytes(random, 131070);
    const uint16_t original = SectionCrc(section.data(), 131070);
    std::uniform_int_distribution<int> inChunk(0, 1023);

    // A changed byte in any of the 127 covered chunks shows.
    for (uint32_t chunk = 0; chunk < 127; ++chunk) {
        const size_t at = chunk * 1024 + static_cast<size_t>(inChunk(random));
        section[at] ^= 0x01;
        EXPECT_NE(SectionCrc(section.data(), 131070), original) << "byte " << at;
        section[at] ^= 0x01;
    }
    // The last 1022 bytes of a full section are outside the checksum.
    for (size_t at : {size_t{127 * 1024}, size_t{130100}, size_t{131069}}) {
        section[at] ^= 0xFF;
        EXPECT_EQ(SectionCrc(section.data(), 131070), original) << "byte " << at;
        section[at] ^= 0xFF;
    }
    // A length of whole chunks leaves its last full chunk out, and no empty
    // chunk stands behind it.
    const uint16_t fourChunks = SectionCrc(section.data(), 4096);
    section[3072] ^= 0xFF;
    section[4095] ^= 0xFF;
    EXPECT_EQ(SectionCrc(section.data(), 4096), fourChunks);
    section[3071] ^= 0xFF;
    EXPECT_NE(SectionCrc(section.data(), 4096), fourChunks);
}

TEST(Checksum, ChunkValuesEnterHighByteFirst) {
    const auto section = Counting(131070);
    const uint16_t lowFirst = ReferenceSectionCrc(section.data(), 131070, ChunkOrder::LowFirst);
    EXPECT_NE(lowFirst, 0x37BA);
    EXPECT_NE(SectionCrc(section.data(), 131070), lowFirst);

    const auto abc = Repeated("abc", 1200);
    EXPECT_NE(ReferenceSectionCrc(abc.data(), 1200, ChunkOrder::LowFirst), 0x1F93);
}

}  // namespace
