// The sending side's file data: the feeder reads a section ahead while the
// one before it goes out, and hands the blocks one at a time to the writer.

#include <algorithm>
#include <cstring>
#include <string>

#include "engine/display.h"
#include "engine/pipelines.h"
#include "engine/session_threads.h"
#include "engine/transfer_engine.h"
#include "line/comm_port.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace {

// The longest nap while a real port's output queue drains; a stop or a new
// state is seen at least this often.
constexpr uint32_t LongestDrainNapMs = 100;

// Bytes of the file behind a data stream: the stream less 2 for each section.
int64_t FileSizeOf(uint32_t dataLength) {
    const int64_t sections = (int64_t{dataLength} + SectionWireBytes - 1) / SectionWireBytes;
    return int64_t{dataLength} - int64_t{SectionCrcBytes} * sections;
}

// Waits, without spinning, for the bytes still in the output queue to leave
// the port: a nap sized by what is left at the port's speed.
void NapWhileOutputDrains(uint32_t waiting) {
    const uint32_t baud =
        TheEngine.Line->Port() != nullptr ? TheEngine.Line->Port()->BaudRate.load() : 9600;
    // Ten bits on the line for each byte.
    const uint64_t ms = uint64_t{waiting} * 10 * 1000 / std::max<uint32_t>(baud, 1) + 1;
    SleepMs(static_cast<uint32_t>(std::min<uint64_t>(ms, LongestDrainNapMs)));
}

// The file cannot give what its entry announced: the call cannot go on.
void ReportUnreadable(const FileEntry& entry) {
    Stores().Log.Add("Cannot read file: " + std::string(entry.DisplayName.View()));
    TheEngine.Call.Session.SendFault = true;
    // The communications thread ends the call at its next pass.
    TheEngine.Line->InterruptPortWait();
}

void HandToWriter(const uint8_t* block, int16_t length) {
    TheEngine.WriterIdle = false;
    TheEngine.WriteBlockLength = length;
    TheEngine.WriteBlock = block;
    WakeThread(TheEngine.WriterThread.load());
}

void BookBlock(FileEntry& entry, uint32_t bytes) {
    TheEngine.SendList.Book(bytes);
    entry.BytesDone += bytes;
}

}  // namespace

void ReadNextSection() {
    FileEntry& entry = TheEngine.SendList[0];
    const int64_t offset = SectionFileOffset(entry.NextBlock);
    // What the list announced for this section.
    const int64_t rest = FileSizeOf(entry.DataLength) - offset;
    if (entry.DataDone == 0 && rest <= 0) {
        // The read ahead at the start of a file's last section finds nothing
        // behind it, and nothing from there is ever sent. The counter stays,
        // so that it never counts a section the file does not have.
        TheEngine.StagedLength = 0;
    } else if (entry.DataDone == 0) {
        const uint32_t announced = static_cast<uint32_t>(std::min<int64_t>(rest, SectionFileBytes));
        File file;
        if (offset < 0 || !file.Open(std::string(entry.FilePath.View()), File::Mode::Read) ||
            !file.Seek(offset, File::From::Begin)) {
            ReportUnreadable(entry);
            return;
        }
        const uint32_t got = file.Read(TheEngine.StagedSection + SectionCrcBytes, SectionFileBytes);
        file.Close();
        // A file that has shrunk since it was listed would be repaired without
        // end; one that has grown goes out as long as it was announced.
        if (got < announced) {
            ReportUnreadable(entry);
            return;
        }
        TheEngine.StagedLength = announced;
        entry.NextBlock = static_cast<int16_t>(entry.NextBlock + BlocksPerSection);
        SealSection(TheEngine.StagedSection, announced);
    }
    TheEngine.SectionWanted = false;
}

BlockOutcome SendNextBlock() {
    if (TheEngine.SendList.IsEmpty()) {
        return BlockOutcome::Nothing;
    }
    FileEntry& entry = TheEngine.SendList[0];
    if (entry.StartTime == 0) {
        entry.StartTime = NowMs();
    }
    uint8_t* working = TheEngine.WorkingSection;
    int16_t slot = TheEngine.Call.BlockIndex.load();
    if (slot == 0) {
        // A section begins: the next one is read while this one goes out.
        std::memcpy(working, TheEngine.StagedSection,
                    TheEngine.StagedLength.load() + SectionCrcBytes);
        TheEngine.SectionWanted = true;
    }
    if (entry.DataDone != 0) {
        // The last block has left the port: this step runs only with the
        // writer idle and the output queue empty.
        entry.LastBlockTime = NowMs();
        LinkState expected = LinkState::Transfer;
        if (!TheEngine.Call.LinkState.compare_exchange_strong(expected, LinkState::FileSent)) {
            return BlockOutcome::Nothing;  // a repair has begun meanwhile
        }
        return BlockOutcome::FileSent;
    }
    if (entry.BlocksDone < entry.DataBlocks) {
        HandToWriter(working + slot * BlockBytes, static_cast<int16_t>(BlockBytes));
        BookBlock(entry, BlockBytes);
        entry.BlocksDone = static_cast<int16_t>(entry.BlocksDone + 1);
        slot = static_cast<int16_t>(slot + 1);
        TheEngine.Call.BlockIndex =
            slot == static_cast<int16_t>(BlocksPerSection) ? int16_t{0} : slot;
        return BlockOutcome::Handed;
    }
    if (entry.LastBlockBytes > 0) {
        HandToWriter(working + slot * BlockBytes, entry.LastBlockBytes);
        BookBlock(entry, static_cast<uint32_t>(entry.LastBlockBytes));
    }
    entry.DataDone = 1;
    TheEngine.Call.BlockIndex = 0;
    return BlockOutcome::Handed;
}

void RefreshSendDisplay() {
    if (TheEngine.SendList.IsEmpty()) {
        return;
    }
    const FileEntry& entry = TheEngine.SendList[0];
    if (entry.BytesDone == 0) {
        return;
    }
    EngineWindow& display = Display();
    display.ShowThroughput(true, false);
    display.SetProgress(entry.BytesDone, entry.TotalLength);
    display.ShowBatchEstimate(TheEngine.SendList.Remaining());
    TheEngine.SendDisplayDirty = false;
}

unsigned SectionFeeder(void*) {
    const ThreadHandle self = CurrentFeederHandle();
    const ThreadHandle writer = TheEngine.WriterThread.load();
    // After the file's end the feeder parks; woken into the next file or a
    // repair, it first brings the display up to date.
    bool refreshDue = false;
    while (TheEngine.FeederRun.load()) {
        if (TheEngine.Call.LinkState.load() != LinkState::Transfer ||
            TheEngine.SendList.IsEmpty() || TheEngine.Call.Session.SendFault.load()) {
            ParkThread(self);
            continue;
        }
        const bool sectionWanted = TheEngine.SectionWanted.load();
        if (!sectionWanted && !refreshDue && !TheEngine.WriterIdle.load()) {
            ParkThread(self);  // the writer wakes us when its block has gone
            continue;
        }
        if (const uint32_t waiting = TheEngine.Line->PortQueueCount(PortQueue::Output);
            waiting != 0) {
            NapWhileOutputDrains(waiting);
            continue;
        }
        if (!FeederEnterStep()) {
            continue;
        }
        if (refreshDue) {
            RefreshSendDisplay();
            refreshDue = false;
        } else if (sectionWanted) {
            ReadNextSection();
        } else if (SendNextBlock() == BlockOutcome::FileSent) {
            refreshDue = true;
        }
        FeederLeaveStep();
    }
    TheEngine.WriterRun = false;
    WakeThread(writer);
    return 0;
}

unsigned BlockWriter(void*) {
    const ThreadHandle self = TheEngine.WriterThread.load();
    const ThreadHandle feeder = CurrentFeederHandle();
    while (TheEngine.WriterRun.load()) {
        TheEngine.Line->SendBytes(TheEngine.WriteBlock.load(), TheEngine.WriteBlockLength.load());
        // The line took the block: the far end is taking data.
        TheEngine.Call.Session.FarEndSeenAt = NowMs();
        TheEngine.SendDisplayDirty = true;
        if (!TheEngine.SendList.IsEmpty()) {
            TheEngine.SendList[0].LastBlockTime = NowMs();
        }
        TheEngine.WriterIdle = true;
        WakeThread(feeder);
        ParkThread(self);
    }
    return 0;
}
