// The adapter's set-ups: the incoming profile it holds while it waits for
// calls, the outgoing profile it gets before a dial, its own ISDN number, and
// the fitting of the window's protocol lists to what the adapter can do.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

// Bytes per second that the present set-up is expected to carry: the ceiling
// of the throughput the window shows.
extern std::atomic<uint16_t> RateEstimate;
// This end's ISDN number: at most 31 characters, the rest zero, since a
// retrieve request sends all 32 bytes. Written once at start, before the
// communications thread takes up the port.
extern char LocalNumber[32];

// Reads the adapter's own number and shows it in IDC_OWN_NUMBER.
void ShowLocalNumber();
// Trims the protocol lists to what the adapter offers and sets the incoming
// controls from the preferences.
void ApplyAdapterToWindow();
// The first incoming set-up, after the adapter has been found.
void InitializeIncoming();
// Every later incoming set-up: after a call, and after the user has changed
// an incoming setting.
void ReinitializeIncoming();
// The outgoing set-up, from the window's outgoing controls, before a dial.
void InitializeOutgoing();
// Appends the 2B and V.42bis options of one side (1 incoming, 0 outgoing) to
// a ZyXEL command, logging each.
void AppendChannelOptions(std::string& command, int side);
// The adapter's last command, at exit.
void SendClosingCommand();
