// Hanging up, and the tidying after a call that the ends share.
#pragma once

#include <cstdint>
#include <optional>

namespace kb::engine {

struct TransferEngine;

// HangUp where nothing more is to be done if the adapter does not answer.
void EndCallByHangUp(TransferEngine& engine);
// Takes the adapter out of data mode and hangs up; true once the call has
// ended. When the adapter gives no answer, logs "Hang-up failed." and returns
// false, the call still up; on the sending side, which has no watchdog to end
// the call, it is then tried again twice, 5 s apart, by the communications
// thread.
[[nodiscard]] bool HangUp(TransferEngine& engine);
// Milliseconds until the sending side's next hang-up is due; nothing if none
// is.
std::optional<int> MsUntilHangUpRetry(TransferEngine& engine);
// Tries the hang-up again if its time has come; true if it did.
[[nodiscard]] bool RetryHangUpIfDue(TransferEngine& engine);
// A stall in the middle of a block: nothing has come for five seconds and
// what waits is too short for a block, which is what a line that falls
// leaves behind. The call is over; this takes what waits out of the queue
// and ends the call, with a hang-up first unless the tail shows that the line
// has fallen.
void EndStalledCall(TransferEngine& engine, uint32_t waiting);
// Receiving side: removes files that did not arrive and imports received
// directory entries.
void EndOfCallCleanup(TransferEngine& engine);
// Deletes the files of the receive list that did not arrive, except one
// kept for a resume, and empties the list.
void DeleteUnfinishedReceives(TransferEngine& engine);
void ImportReceivedEntries(TransferEngine& engine);
// Logs the folder in which the call's latest file was filed, "Received files
// are in Incoming Files/NAME", if any was.
void TellWhereFilesWereFiled(TransferEngine& engine);
// At the program's exit: the files of a receive still under way are deleted,
// all but the one kept for a resume, which the record keeps for the next
// start to take up.
void DiscardUnfinishedFiles(TransferEngine& engine);

}  // namespace kb::engine
