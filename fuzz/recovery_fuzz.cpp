// Fuzz target: a RecoveryBody that a receiver sends, as the sending side
// judges and applies it. A body it accepts must leave a position from which
// its feeder reads and sends only inside the file and its buffers.

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "engine/file_entry.h"
#include "engine/recovery.h"
#include "engine/wire.h"

namespace kb::fuzz {

namespace {

void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "accepted body breaks: %s\n", what);
        std::abort();
    }
}

}  // namespace

}  // namespace kb::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kb::engine;
    using namespace kb::fuzz;

    if (size < sizeof(RecoveryBody)) {
        return 0;
    }
    const RecoveryBody body = RecordFromBytes<RecoveryBody>(data);
    FileEntry entry;
    ApplyRecoveryBody(body, entry);
    if (!RecoveryBodySound(body)) {
        return 0;
    }
    const uint32_t length = entry.DataLength;
    Require(DataLengthFits(length), "a stream longer than the block counters hold");
    Require(int64_t{entry.DataBlocks} * BlockBytes + entry.LastBlockBytes == int64_t{length},
            "blocks that do not add up to the stream");
    Require(entry.LastBlockBytes >= 0 && entry.LastBlockBytes < static_cast<int16_t>(BlockBytes),
            "a last block outside its buffer");
    Require(entry.NextBlock >= 0 && entry.NextBlock <= entry.DataBlocks,
            "a position past the stream");
    Require(entry.NextBlock % static_cast<int16_t>(BlocksPerSection) == 0,
            "a position inside a section");
    Require(entry.BlocksDone == entry.NextBlock, "blocks done that are not the position");
    // The section the feeder reads next starts inside the file, or at its end.
    const int64_t sections = (int64_t{length} + SectionWireBytes - 1) / SectionWireBytes;
    const int64_t fileSize = int64_t{length} - int64_t{SectionCrcBytes} * sections;
    Require(SectionFileOffset(entry.NextBlock) <= fileSize, "a section offset past the file");
    return 0;
}
