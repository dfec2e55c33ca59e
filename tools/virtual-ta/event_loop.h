// The tool's one loop: poll(2) over every adapter's port and the stop
// signals, with the exchange's next timer as the time limit. Nothing is done
// between events, so an idle tool costs no processor time. It is not the
// platform's EventLoop, which runs posted work and millisecond timers and
// watches no descriptor.
#pragma once

#include "platform/stop_signals.h"
#include "virtual-ta/exchange.h"

namespace kb::virtual_ta {

using platform::StopSignals;

// Runs until a stop signal arrives; returns its number.
int RunEventLoop(Exchange& exchange, StopSignals& stopSignals);

}  // namespace kb::virtual_ta
