// The candidate for a resume, kept on the disk as well as in memory, so that a
// file cut off by a crash, a kill or an exit is taken up by the next call
// after a restart too, and not sent whole again.
//
// The record, "kestrelbound_resume" in the installation's folder, holds what
// SavedEntry and RecoveryRecord hold: the position body as it goes on the
// wire, and the entry's announced name, name in use and part's path. It is
// written over in place, as the stores are, whenever the candidate is taken
// or moves, and cleared when the candidacy ends. A magic and a Crc16 over the
// rest tell a whole record of this program's from a torn or foreign file,
// which is ignored.
#pragma once

#include <cstdint>

namespace kb::engine {

struct TransferEngine;

// Writes SavedEntry and the body of RecoveryRecord to the record. A write
// that fails is silent, as for the stores; the next start then finds the
// previous record, or none, and no part it cannot vouch for is taken up.
void SaveResumeCandidate(TransferEngine& engine);
// The candidacy has ended: SavedEntry is emptied, and so is the record. The
// part itself is the caller's business.
void ForgetResumeCandidate(TransferEngine& engine);
// At start, before a call can be answered: SavedEntry and RecoveryRecord
// take what the record holds, if it is whole and its part is still there as
// it was left. A part one section longer (the program ended between a
// section's append and the record's write) is cut back to the recorded
// position. A part that fits in no such way is not this program's to resume:
// it is left alone, and the record is cleared.
void LoadResumeCandidate(TransferEngine& engine);

// Length that the partial file of a receive entry has on disk: every section
// before NextBlock, complete.
int64_t PartialFileLength(int16_t nextBlock);

// True if the file that SavedEntry names is there with exactly the bytes of
// its completed sections.
[[nodiscard]] bool SavedPartialIntact(TransferEngine& engine);

}  // namespace kb::engine
