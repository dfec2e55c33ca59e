// The port's speed: the ladder of tests in a full search, the move to the
// saved top speed at start, and the user's choice between 115200 and 230400
// bps. How an adapter follows its port is its family's (line/adapter_family.h).
#pragma once

#include <cstdint>

// Tests 57600, 115200 and 230400 bps in turn and records the highest that port
// and adapter reach together.
void QualifyPortSpeed();
// Brings port and adapter from 115200 to 230400 bps at start.
void ResumeTopSpeed();
// Tells an adapter found at 230400 bps, of a family moved by a command, to go
// back to 115200, and moves the port with it, so that the search goes on
// with the adapter where it looks for one. Such an adapter stays at 230400
// after a program that ended without its closing command.
void ReturnAdapterTo115200();
// The user's choice of speed, 115200 or 230400 bps: port and adapter move,
// the preferences keep it, and the log says so.
void ChangePortSpeed(uint32_t bitsPerSecond);

// What the Port Speed menu shows: nothing where the port does not reach
// 230400 bps, else the speed chosen.
enum class SpeedChoice { None, At115200, At230400 };
SpeedChoice PortSpeedChoice();
