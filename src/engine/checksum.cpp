#include "engine/checksum.h"

#include <array>

namespace kb::engine {

namespace {

constexpr uint16_t Polynomial = 0x1021;
constexpr uint32_t ChunkBytes = 1024;

// Slices[k][b] is the CRC, from 0, of the byte b followed by k zero bytes.
// Slices[0] is the ordinary byte table; the others let the main loop take
// eight bytes per step, which matters on the receiving side, where a whole
// section is checked between two blocks.
constexpr int SliceCount = 8;
using SliceTables = std::array<std::array<uint16_t, 256>, SliceCount>;

constexpr SliceTables MakeSliceTables() {
    SliceTables tables{};
    for (uint32_t b = 0; b < 256; ++b) {
        uint16_t c = static_cast<uint16_t>(b << 8);
        for (int bit = 0; bit < 8; ++bit) {
            c = (c & 0x8000) ? static_cast<uint16_t>((c << 1) ^ Polynomial)
                             : static_cast<uint16_t>(c << 1);
        }
        tables[0][b] = c;
    }
    for (int k = 1; k < SliceCount; ++k) {
        for (uint32_t b = 0; b < 256; ++b) {
            const uint16_t prev = tables[k - 1][b];
            tables[k][b] = static_cast<uint16_t>(tables[0][prev >> 8] ^ (prev << 8));
        }
    }
    return tables;
}

constexpr SliceTables Slices = MakeSliceTables();

static_assert(Slices[0][1] == 0x1021 && Slices[0][2] == 0x2042 && Slices[0][3] == 0x3063);

}  // namespace

uint16_t Crc16(const uint8_t* bytes, uint32_t length, uint16_t start) {
    uint16_t c = start;
    // The running value stands for the next two bytes of input: its high byte
    // folds into the first of them, its low byte into the second.
    while (length >= SliceCount) {
        const uint8_t b0 = static_cast<uint8_t>(bytes[0] ^ (c >> 8));
        const uint8_t b1 = static_cast<uint8_t>(bytes[1] ^ (c & 0xFF));
        c = static_cast<uint16_t>(Slices[7][b0] ^ Slices[6][b1] ^ Slices[5][bytes[2]] ^
                                  Slices[4][bytes[3]] ^ Slices[3][bytes[4]] ^ Slices[2][bytes[5]] ^
                                  Slices[1][bytes[6]] ^ Slices[0][bytes[7]]);
        bytes += SliceCount;
        length -= SliceCount;
    }
    while (length > 0) {
        c = static_cast<uint16_t>(Slices[0][(c >> 8) ^ *bytes] ^ (c << 8));
        ++bytes;
        --length;
    }
    return c;
}

uint16_t SectionCrc(const uint8_t* bytes, uint32_t length) {
    if (length <= ChunkBytes) {
        return 0;
    }
    // Every chunk that has at least one byte after it; the last chunk, full
    // or not, stays out.
    const uint32_t chunks = (length - 1) / ChunkBytes;
    // The chunk values are fed to the second level as they come, high byte
    // first, which gives the same value as collecting them in a list.
    uint16_t outer = 0;
    for (uint32_t i = 0; i < chunks; ++i) {
        const uint16_t inner = Crc16(bytes + i * ChunkBytes, ChunkBytes, 0);
        const uint8_t pair[2] = {static_cast<uint8_t>(inner >> 8),
                                 static_cast<uint8_t>(inner & 0xFF)};
        outer = Crc16(pair, 2, outer);
    }
    return outer;
}

}  // namespace kb::engine
