// The tool's one loop: poll(2) over every adapter's port and a descriptor
// that may tell it to stop, with the exchange's next timer as the time
// limit. Nothing is done between events, so an idle tool costs no processor
// time. It is not the platform's EventLoop, which runs posted work and
// millisecond timers and watches no descriptor.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "virtual-ta/exchange.h"

namespace kb::virtual_ta {

// What ends the loop: a descriptor, and what to ask when it is readable,
// which is a number to end with or none to go on. The tool's are the stop
// signals and the signal's number; a test's its own.
struct LoopEnd {
    int Descriptor = -1;
    std::function<std::optional<int>()> Take;
};

// Runs until the end comes; returns its number. The time is read from clock,
// the platform's monotonic clock in the tool.
int RunEventLoop(Exchange& exchange, const LoopEnd& end, const std::function<uint64_t()>& clock);

}  // namespace kb::virtual_ta
