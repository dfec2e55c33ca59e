// Pseudo-terminal pairs, on which a program and a stand-in for the hardware
// behind a serial port meet.
#pragma once

#include <cstdint>
#include <string>

namespace kb::platform {

struct PseudoTerminal {
    int Master = -1;        // non-blocking; the hardware side
    int SlaveKeeper = -1;   // keeps the slave side open so the master never sees a hang-up
    std::string SlavePath;  // what the program opens
};

// Makes a new pair in raw mode. False if none could be made.
[[nodiscard]] bool OpenPseudoTerminal(PseudoTerminal& terminal);
void ClosePseudoTerminal(PseudoTerminal& terminal);

// The speed in bits per second that the program has set on the slave side,
// as the master side sees it (also while no slave is open); 0 if it cannot be
// read or is none of the serial speeds.
uint32_t PseudoTerminalSpeed(const PseudoTerminal& terminal);

}  // namespace kb::platform
