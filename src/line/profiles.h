// The adapter's set-ups: the incoming profile it holds while it waits for
// calls, the outgoing profile it gets before a dial, its own ISDN number, and
// its last command, all the Line's (line/line.h). The incoming set-up comes
// from the preferences; the outgoing one is the window's choice for the
// call, handed over as the record below.
#pragma once

#include "line/adapter_family.h"

namespace kb::line {

// The outgoing set-up that the user chose for one call.
struct OutgoingSettings {
    LineProtocol Protocol = ProtocolV120;
    bool At56k = false;
    // The 2B and V.42bis options, on the families that have them.
    bool TwoChannels = false;
    bool Compression = false;
};

}  // namespace kb::line
