// Conversion between bits per second and the termios speed codes.
#pragma once

#include <termios.h>

#include <cstdint>
#include <optional>

namespace kb::platform {

// The termios code of a speed the program uses; none if it is not one (B0,
// the code nearest to hand, would hang the line up).
[[nodiscard]] std::optional<speed_t> SpeedCode(uint32_t bitsPerSecond);
// Bits per second of a termios code, or 0 for one the program does not use.
uint32_t BitsPerSecond(speed_t code);

}  // namespace kb::platform
