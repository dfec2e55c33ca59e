#include "platform/serial_speed.h"

namespace kb::platform {

namespace {

struct SpeedPair {
    uint32_t BitsPerSecond;
    speed_t Code;
};

constexpr SpeedPair Speeds[] = {
    {9600, B9600},   {19200, B19200},   {38400, B38400},
    {57600, B57600}, {115200, B115200}, {230400, B230400},
};

}  // namespace

std::optional<speed_t> SpeedCode(uint32_t bitsPerSecond) {
    for (const SpeedPair& pair : Speeds) {
        if (pair.BitsPerSecond == bitsPerSecond) {
            return pair.Code;
        }
    }
    return std::nullopt;
}

uint32_t BitsPerSecond(speed_t code) {
    for (const SpeedPair& pair : Speeds) {
        if (pair.Code == code) {
            return pair.BitsPerSecond;
        }
    }
    return 0;
}

}  // namespace kb::platform
