// The file data: a file on disk turned into blocks on the sending side, and
// blocks put together into checked sections and appended on the receiving
// side.
#pragma once

#include <cstdint>

namespace kb::engine {

struct TransferEngine;

// ---- Sending side, on the feeder ----

// Reads the next section of SendList[0] into StagedSection and seals it.
void ReadNextSection(TransferEngine& engine);

enum class BlockOutcome {
    Nothing,   // nothing to hand out
    Handed,    // a block went to the writer, or the file's end was booked
    FileSent,  // the file is through: LinkState::FileSent, and the feeder is to park
};
// Hands the next block of SendList[0] to the writer.
BlockOutcome SendNextBlock(TransferEngine& engine);
// Redraws the send progress.
void RefreshSendDisplay(TransferEngine& engine);

// ---- Receiving side, on the communications thread ----

// Takes one block off the port.
void ReceiveBlock(TransferEngine& engine);
// Redraws the receive progress.
void RefreshReceiveDisplay(TransferEngine& engine);
// Moves the finished ReceiveList[0] behind the files still to come.
void RetireFinishedEntry(TransferEngine& engine);

// Starts a new feeder for the transfer that begins now, after the threads of
// an earlier session have been waited for. FeederRun and SectionWanted must
// be set first.
void StartSectionFeeder(TransferEngine& engine);

}  // namespace kb::engine
