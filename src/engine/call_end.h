// Every way a call ends, and one table of what each does.
//
// A call used to end along a handful of paths that each did part of the work
// and called into each other; a new kind of end meant finding them all. Now
// each kind is one value of CallEnd and one row of the table in
// call_end.cpp, and EndCall is the one way out: it says the row's line, does
// what the row asks before the end, brings the end about the row's way and
// tidies after it as the row says. Adding a kind of end is a value here, a
// row there and a test case.
#pragma once

#include <cstdint>
#include <string_view>

namespace kb::engine {

struct TransferEngine;

enum class CallEnd {
    // Asked for at this end: the user's Disconnect.
    Requested,
    // This end cannot go on with what came or with its own disk: a list or a
    // recovery body that cannot be believed, a file that cannot be written,
    // a file that cannot be read.
    Fault,
    // The sender read ABORT.
    FarEndAborted,
    // The sender heard nothing from the far end within the receiver's limits.
    FarEndNotResponding,
    // The receiver heard no token within its limit.
    Silence,
    // The receiver waited five seconds for a block and what waits is no part
    // of one; the line is told how much waited.
    TransferStalled,
    // A block stopped short, and behind it the adapter's NO CARRIER: the line
    // fell under the block.
    BlockCutOff,
    // A block stopped short with the line still up: the far end has gone
    // quiet.
    BlockStalled,
    // The sender's last file was acknowledged.
    AllSent,
    // The holder of the pick-up folders answered a retrieve: no folder for
    // this end, or nothing in it.
    NoRetrieveFolder,
    NoFilesToRetrieve,
    // The far end refused the list: no room, or a list it could not read.
    ListRefusedNoSpace,
    ListRefusedCorrupt,
    // The adapter confirmed the hang-up, or was in command mode already.
    HungUp,
    // The sender read the adapter's NO CARRIER among the far end's tokens:
    // the far end hung up, or the line fell.
    SenderLostLine,
    // The receiver read NO CARRIER between the files, where the sender hangs
    // up after the last of them: all that was offered has been received, or
    // the far end has gone.
    ReceiverLostLine,
    // The dial came to nothing: NO CARRIER, BUSY or NO DIALTONE.
    DialNoCarrier,
    DialBusy,
    DialNoDialtone,
};

// Ends the call, or the dial, as the table says for this kind of end. Any
// thread may call it; whoever is not the communications thread takes the
// port for it. `detail` follows the row's first line where the row says the
// line has one (how many bytes waited in a stall).
void EndCall(TransferEngine& engine, CallEnd reason, std::string_view detail = {});

}  // namespace kb::engine
