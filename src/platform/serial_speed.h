// Conversion between bits per second and the termios speed codes.
#pragma once

#include <termios.h>

#include <cstdint>

// The termios code of a speed the program uses, or B0 if it is not one.
speed_t SpeedCode(uint32_t bitsPerSecond);
// Bits per second of a termios code, or 0 for one the program does not use.
uint32_t BitsPerSecond(speed_t code);
