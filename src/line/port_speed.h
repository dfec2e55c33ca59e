// The port's speed: the ladder of tests in a full search, the move to the
// saved top speed at start, and the user's choice between 115200 and 230400
// bps, all the Line's (line/line.h); here, what the menu offers of them. How
// an adapter follows its port is its family's (line/adapter_family.h).
#pragma once

#include "stores/preferences.h"

namespace kb::line {

using stores::Preferences;

// What the Port Speed menu shows: nothing where the port does not reach
// 230400 bps, else the speed chosen.
enum class SpeedChoice { None, At115200, At230400 };
SpeedChoice PortSpeedChoice(const Preferences& prefs);

}  // namespace kb::line
