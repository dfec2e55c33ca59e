#include "engine/checksum.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/test_data.h"
#include "support/wire_peer.h"

namespace kb::test {

using namespace kb::engine;

namespace {

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
    // A section's checksum is that of its whole chunks' checksums, high byte
    // first: here of the one chunk's, 0x10EE.
    EXPECT_EQ(Crc16(Data(abc), 1024, 0), 0x10EE);
    EXPECT_EQ(SectionCrc(Data(abc), 1200), 0x1F93);

    std::string counting(131070, '\0');
    for (size_t i = 0; i < counting.size(); ++i) {
        counting[i] = static_cast<char>(i % 256);
    }
    EXPECT_EQ(SectionCrc(Data(counting), 131070), 0x37BA);
}

// The independent peer puts each section's checksum, high byte first, in
// front of its bytes.
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
}

}  // namespace

}  // namespace kb::test
