// The end of a call, however it comes.
#pragma once

#include <cstdint>

// The one way to ask for the end of a call or a transfer, from any thread.
void RequestDisconnect();
// Takes the adapter out of data mode and hangs up.
void HangUp();
// The common tidying at the end of a call.
void OnCallEnded();
// Takes a partial block out of the queue after a stall; 1 if the call is over.
int StallCheck(uint32_t waiting);
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
