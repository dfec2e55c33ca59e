#include "engine/checksum.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/test_data.h"

namespace {

// CRC-16/XMODEM one bit at a time, written from the definition and sharing
// nothing with the table-driven code under test.
uint16_t BitwiseCrc(const uint8_t* bytes, size_t length) {
    uint16_t crc = 0;
    for (size_t i = 0; i < length; ++i) {
        crc = static_cast<uint16_t>(crc ^ (bytes[i] << 8));
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x8000) ? static_cast<uint16_t>((crc << 1) ^ 0x1021)
                                 : static_cast<uint16_t>(crc << 1);
        }
    }
    return crc;
}

// The two-level checksum built the long way: the chunk values collected in a
// list, high byte first, then one CRC over the list.
uint16_t ReferenceSectionCrc(const uint8_t* bytes, size_t length) {
    const size_t chunks = length <= 1024 ? 0 : (length - 1) / 1024;
    std::vector<uint8_t> list;
    for (size_t i = 0; i < chunks; ++i) {
        const uint16_t value = BitwiseCrc(bytes + i * 1024, 1024);
        list.insert(list.end(), {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)});
    }
    return BitwiseCrc(list.data(), list.size());
}

const uint8_t* Data(const std::string& bytes) {
    return reinterpret_cast<const uint8_t*>(bytes.data());
}

TEST(Checksum, WorkedValues) {
    std::string abc;
    while (abc.size() < 1200) {
        abc += "abc";
    }
    EXPECT_EQ(Crc16(Data(abc), 3, 0), 0x9DD6);
    EXPECT_EQ(SectionCrc(Data(abc), 3), 0x0000);
    EXPECT_EQ(Crc16(Data(abc), 1024, 0), 0x10EE);
    const uint8_t firstChunk[2] = {0x10, 0xEE};
    EXPECT_EQ(Crc16(firstChunk, 2, 0), 0x1F93);
    EXPECT_EQ(SectionCrc(Data(abc), 1200), 0x1F93);

    std::string counting(131070, '\0');
    for (size_t i = 0; i < counting.size(); ++i) {
        counting[i] = static_cast<char>(i % 256);
    }
    EXPECT_EQ(SectionCrc(Data(counting), 131070), 0x37BA);
}

TEST(Checksum, SectionCrcMatchesTheTwoLevelDefinition) {
    const std::string bytes = RandomBytes(131072, 11);
    // Up to 1024 bytes no chunk is covered and the checksum is 0; a length
    // of whole chunks leaves its last full chunk out.
    for (uint32_t n : {0u, 1u, 1023u, 1024u, 1025u, 2047u, 2048u, 2049u, 4096u, 50000u, 131070u,
                       131071u, 131072u}) {
        EXPECT_EQ(SectionCrc(Data(bytes), n), ReferenceSectionCrc(Data(bytes), n))
            << "length " << n;
    }
}

}  // namespace
