// Repair of a section that failed its check, and the receiver's snapshot of
// its position that makes both the repair and a resumed transfer possible.
#pragma once

#include <cstdint>

#include "engine/wire.h"

namespace kb::engine {

struct TransferEngine;

// Copies ReceiveList[0] to SavedEntry and writes RecoveryRecord for the same
// moment; the two never speak of different files. The record on the disk
// follows, so that the position outlives the program.
void SnapshotSection(TransferEngine& engine);
// Receiving side: asks for the failed section again.
void RequestSectionResend(TransferEngine& engine);
// Receiving side: back to the start of the failed section, on SENDRECOVR.
void ApplyRecoveryAtReceiver(TransferEngine& engine);
// Sending side: takes over the position in the 80 bytes at the start of
// TokenBuffer.
void ApplyRecoveryAtSender(TransferEngine& engine);
// Sending side: SENDRECOVR, and the transfer goes on.
void ConfirmRecovery(TransferEngine& engine);

}  // namespace kb::engine
