// Placing a call, from the three ways the window asks for one (Send,
// Retrieve, a hot folder), and following the adapter's result codes until
// the data channel is up, on the calling and the answering side.
#pragma once

#include <string>

#include "line/profiles.h"

namespace kb::engine {

using line::OutgoingSettings;

struct TransferEngine;

// A call as the user set it up in the window.
struct CallRequest {
    // As typed: its digits count, and a "+" or "&" joins a second number.
    std::string Number;
    // Who is called, for the log.
    std::string Name;
    // The row of the carrier list, whose code goes in front of each number.
    int CarrierRow = 0;
    OutgoingSettings Line;
};

// Gives the adapter the outgoing profile and dials the number. Runs on the
// main thread, with no link up.
void PlaceCall(TransferEngine& engine, const CallRequest& call);
// Reads one line from the idle or dialling adapter and acts on it: RING is
// answered, CONNECT takes the link up, NO CARRIER, BUSY and NO DIALTONE end it.
void HandleLineEvent(TransferEngine& engine);
// Every hot folder must be seen unchanged twice again before it goes out.
// From the communications thread (on RING) the counters are cleared when the
// main thread next looks at them, since only the main thread touches the
// directory.
void ClearHotFolderCounters(TransferEngine& engine);
// The dial command for a number as the user typed it, with the carrier code
// of that row of the carrier list in front of each of its numbers.
std::string DialString(const std::string& number, int carrierRow);

// The buttons Send and Retrieve, with the call the window has set up.
void OnSendClicked(TransferEngine& engine, const CallRequest& call);
void OnRetrieveClicked(TransferEngine& engine, const CallRequest& call);

// Sends a hot folder that LoadPickUpFolder has put in the list, with the
// call the window has set up for its record.
void SendHotFolder(TransferEngine& engine, const CallRequest& call);

}  // namespace kb::engine
