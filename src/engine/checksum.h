// The checksum that every section of file data carries.
//
// Crc16 is CRC-16/XMODEM: polynomial 0x1021, fed most significant bit first,
// no reflection and no final exclusive or. SectionCrc is the two-level value of
// a section: a Crc16 over each 1024-byte chunk but the last, then a Crc16 over
// those chunk values, each taken high byte first. The last 1 to 1024 bytes of
// a buffer never take part, so any buffer of 1024 bytes or fewer gives 0.
//
// Both are pure and may run on any thread. What they compute is part of the
// wire format: two builds must agree bit for bit.
#pragma once

#include <cstdint>

namespace kb::engine {

// CRC of length bytes, running on from start; start itself when length is 0.
uint16_t Crc16(const uint8_t* bytes, uint32_t length, uint16_t start);

// Checksum of a section's file bytes, in host byte order.
uint16_t SectionCrc(const uint8_t* bytes, uint32_t length);

}  // namespace kb::engine
