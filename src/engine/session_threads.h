// How the communications thread, the section feeder and the block writer hand
// SendList[0] and the buffers to one another.
//
// The feeder works in steps (reading a section, handing out a block). It
// enters a step only while LinkState is LinkState::Transfer, and the communications
// thread, which leaves LinkState::Transfer before it rewrites a position or shifts
// the list, then waits until the feeder is out of the step it may have begun.
// Both sides use sequentially consistent operations on LinkState and on the
// step flag, so at least one of them sees the other.
//
// Nothing here spins: the feeder parks until the writer has finished or the
// communications thread has changed the state, and the communications thread
// waits on a condition that the feeder signals as it leaves each step.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "engine/link_state.h"
#include "platform/thread.h"

namespace kb::engine {

using platform::ThreadHandle;

struct TransferEngine;

// Flags of the session in progress, cleared when a call begins and ends.
struct SessionFlags {
    // The list has gone out in this call (H100 was sent).
    std::atomic<bool> ListOffered{false};
    // The feeder could not go on (a file could not be read, or no writer
    // could be started); the communications thread ends the call.
    std::atomic<bool> SendFault{false};
    // The sending side's last sign of its far end: the call's start, a token
    // that moved the session on to another state, or a block that the line
    // took; and the state in which it last looked.
    std::atomic<uint32_t> FarEndSeenAt{0};
    std::atomic<LinkState> FarEndSeenIn{LinkState::Idle};
    // A hang-up has been tried in this call: its end is under way.
    std::atomic<bool> HangUpTried{false};
    // The sending side's hang-up got no answer: how often it has been tried
    // again, and whether and when the next try is due.
    std::atomic<int32_t> HangUpRetries{0};
    std::atomic<bool> HangUpRetryDue{false};
    std::atomic<uint32_t> HangUpRetryAt{0};
    // "ATA" has gone to a ringing adapter, at that moment, and its result
    // (CONNECT, NO CARRIER) has not come yet.
    std::atomic<bool> AnswerPending{false};
    // The caller's SYNCON has come in this call: it is a sign of life once.
    std::atomic<bool> SynconHeard{false};
    std::atomic<uint32_t> AnsweredAt{0};
};

// The step handshake, and the feeder of the latest session, kept until it
// has been waited for. Only the communications thread starts a session, and
// the threads of one session are waited for before those of the next start,
// so the handle is written while no thread of a session runs.
struct SessionThreads {
    std::atomic<int32_t> FeederInStep{0};
    std::mutex StepLock;
    std::condition_variable StepLeft;
    std::mutex HandlesLock;
    ThreadHandle SessionFeeder;
};

// Clears the flags of the session; its far end counts as seen now.
void ClearSessionFlags(TransferEngine& engine);

// The last step of the end of a call: the link is idle, and the window's
// buttons say so. It comes after the adapter has its incoming profile again
// and the lists are tidied, so that a new call or an edit of the file list,
// which the buttons allow from then on, never meets the tidying of the call
// before.
void ReturnToIdle(TransferEngine& engine);

// Moves the link to a state in which the window's buttons change (idle,
// dialing, connected) and has the buttons follow. A front end that asks
// for the state meanwhile (LinkStateAsShown) waits until they have, so that
// it never finds the link idle while the buttons still show the call.
void ShowLinkState(TransferEngine& engine, LinkState state);
// The link's state, never ahead of the window's buttons.
[[nodiscard]] LinkState LinkStateAsShown(TransferEngine& engine);

// True while a feeder runs for this session.
bool FeederRunning(TransferEngine& engine);
// Wakes the feeder, if one runs, so that it looks at the state again.
void WakeFeeder(TransferEngine& engine);

// The feeder's side of the step handshake. EnterStep is false when the state
// is no longer LinkState::Transfer or the feeder is to stop; the step is then not
// taken.
[[nodiscard]] bool FeederEnterStep(TransferEngine& engine);
void FeederLeaveStep(TransferEngine& engine);

// The communications thread's side: after it has taken LinkState out of
// LinkState::Transfer, waits until the feeder is out of its step.
void WaitFeederOutOfStep(TransferEngine& engine);
// After a token that only makes sense once the file's last block is out:
// waits at most limitMs for the feeder to reach LinkState::FileSent and leave its
// step. True if it has.
[[nodiscard]] bool WaitFeederFileSent(TransferEngine& engine, int limitMs);

// The feeder's own handle, for its parking; set before it runs.
ThreadHandle CurrentFeederHandle(TransferEngine& engine);

}  // namespace kb::engine
