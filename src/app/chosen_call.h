// The call that the window has set up: the number and name in the directory
// panel, the carrier, and the outgoing settings. Only the window's own
// sources use it; the engine gets it as a record.
#pragma once

#include "engine/dialing.h"

namespace kb::app {

using engine::CallRequest;

// The protocol is the one the selected row names; no row selected is V.120.
CallRequest ChosenCall();

}  // namespace kb::app
