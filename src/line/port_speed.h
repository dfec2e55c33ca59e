// The port's speed: the ladder of tests in a full search, the move to the
// saved top speed at start, and the Port Speed menu.
#pragma once

// Tests 57600, 115200 and 230400 bps in turn and records the highest that port
// and adapter reach together.
void QualifyPortSpeed();
// Brings port and adapter from 115200 to 230400 bps at start.
void ResumeTopSpeed();
// The moves of the Port Speed menu.
void SwitchUpTo230400();
void SwitchDownTo115200();
// The menu's two commands.
void OnPortSpeed115200();
void OnPortSpeed230400();
