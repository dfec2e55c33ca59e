// The call in progress: what belongs to one call, from the dial or the ring
// to its end, kept apart from what outlives it (the send list, the resume's
// candidate, the buffers). Every end of a call (engine/call_end.h) leaves
// it idle again, its flags cleared.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>

#include "engine/link_state.h"
#include "engine/session_threads.h"
#include "engine/token_lines.h"
#include "engine/wire.h"

namespace kb::engine {

struct ActiveCall {
    // The types are named from outside where a field bears their name.
    std::atomic<engine::LinkState> LinkState{engine::LinkState::Idle};
    // Held while the link moves to a state that the window's buttons show and
    // the buttons follow (ShowLinkState).
    std::mutex LinkShownLock;
    // Which side of the session this end is; picks the token handler.
    std::atomic<engine::Role> Role{engine::Role::Receiver};
    // This call was placed to fetch files, not to send them.
    std::atomic<bool> RetrievePending{false};
    // The flags of its session, cleared as it begins and ends.
    SessionFlags Session;
    // The end of a token line that the communications thread read before
    // the line's end had come.
    CarriedLine TokenCarry;

    // The last sign of life of the far end that the receiving side counts.
    std::atomic<uint32_t> LastRxTime{0};
    // Wall clock seconds at the start of a transfer; 0 when none runs.
    std::atomic<std::time_t> TransferStartTime{0};
    // Block slot 0..15 inside the current section, on both sides.
    std::atomic<int16_t> BlockIndex{0};

    // The receiving side's list: the header that announced it, how many of
    // its files are still to come, how many entries it has, and the wire
    // bytes still to come.
    SessionHeader InHeader;
    std::atomic<uint32_t> ReceiveCount{0};
    std::atomic<int16_t> ReceiveListSize{0};
    std::atomic<uint32_t> ReceiveRemaining{0};
    // Bytes that must wait in the input queue before a block is taken.
    std::atomic<uint16_t> ExpectedBlock{0};
};

}  // namespace kb::engine
