// The adapter's set-ups: the incoming profile it holds while it waits for
// calls, the outgoing profile it gets before a dial, its own ISDN number, and
// its last command. The incoming set-up comes from the preferences; the
// outgoing one is the window's choice for the call, handed over as a record.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "line/adapter_family.h"

// Bytes per second that the present set-up is expected to carry: the ceiling
// of the throughput the window shows.
extern std::atomic<uint16_t> RateEstimate;
// This end's ISDN number: at most 31 characters, the rest zero, since a
// retrieve request sends all 32 bytes. Written once at start, before the
// communications thread takes up the port.
extern char LocalNumber[32];

// The outgoing set-up that the user chose for one call.
struct OutgoingSettings {
    LineProtocol Protocol = ProtocolV120;
    bool At56k = false;
    // The 2B and V.42bis options, on the families that have them.
    bool TwoChannels = false;
    bool Compression = false;
};

// The first incoming set-up, after the adapter has been found: the adapter's
// own number is read, an incoming protocol the adapter does not offer goes
// back to V.120, and the profile goes out. False, after its message, when the
// adapter did not take the profile.
[[nodiscard]] bool InitializeIncoming();
// Every later incoming set-up: after a call, and after the user has changed
// an incoming setting.
void ReinitializeIncoming();
// The outgoing set-up, before a dial. The adapter's answer is read with the
// dial's.
void InitializeOutgoing(const OutgoingSettings& settings);
// What the window shows of the adapter's own number: "Your ISDN Number: ",
// the number and the product's label. Empty while no adapter has told it.
std::string OwnNumberCaption();
// The adapter's last command, at exit.
void SendClosingCommand();
