// The end of a call, however it comes.
#pragma once

#include <cstdint>

// The one way to ask for the end of a call or a transfer, from any thread.
void RequestDisconnect();
// Takes the adapter out of data mode and hangs up. When the adapter gives no
// answer, logs "Hang-up failed." and returns false; on the sending side,
// which has no watchdog to end the call, it is then tried again twice, 5 s
// apart, by the communications thread.
bool HangUp();
// Milliseconds until the sending side's next hang-up is due, or -1 if none
// is.
int MsUntilHangUpRetry();
// Tries the hang-up again if its time has come; true if it did.
bool RetryHangUpIfDue();
// The common tidying at the end of a call.
void OnCallEnded();
// Takes a partial block out of the queue after a stall; 1 if the call is over.
int StallCheck(uint32_t waiting);
// Ends the call that a stall has shown to be over: hung up first, unless the
// line has already fallen.
void EndStalledCall();
// Receiving side: removes files that did not arrive and imports received
// directory entries.
void EndOfCallCleanup();
// Deletes the files of the receive list that did not arrive, except one
// kept for a resume, and empties the list.
void DeleteUnfinishedReceives();
void ImportReceivedEntries();
// At the program's exit: the files of a receive still under way and a file
// kept for a resume are deleted, since they can no longer be finished.
void DiscardUnfinishedFiles();
