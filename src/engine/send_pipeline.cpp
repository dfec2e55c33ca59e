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

namespace kb::engine {

using namespace kb::line;
using namespace kb::platform;

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
void NapWhileOutputDrains(TransferEngine& engine, uint32_t waiting) {
    const uint32_t baud =
        engine.Line->Port() != nullptr ? engine.Line->Port()->BaudRate.load() : 9600;
    // Ten bits on the line for each byte.
    const uint64_t ms = uint64_t{waiting} * 10 * 1000 / std::max<uint32_t>(baud, 1) + 1;
    engine.Clock.SleepMs(static_cast<uint32_t>(std::min<uint64_t>(ms, LongestDrainNapMs)));
}

// The file cannot give what its entry announced: the call cannot go on.
void ReportUnreadable(TransferEngine& engine, const FileEntry& entry) {
    engine.Stores().Log.Add("Cannot read file: " + std::string(entry.DisplayName.View()));
    engine.Call.Session.SendFault = true;
    // The communications thread ends the call at its next pass.
    engine.Line->InterruptPortWait();
}

void HandToWriter(TransferEngine& engine, const uint8_t* block, int16_t length) {
    engine.WriterIdle = false;
    engine.WriteBlockLength = length;
    engine.WriteBlock = block;
    WakeThread(engine.WriterThread.load());
}

void BookBlock(TransferEngine& engine, FileEntry& entry, uint32_t bytes) {
    engine.SendList.Book(bytes);
    entry.BytesDone += bytes;
}

}  // namespace

void ReadNextSection(TransferEngine& engine) {
    FileEntry& entry = engine.SendList[0];
    const int64_t offset = SectionFileOffset(entry.NextBlock);
    // What the list announced for this section.
    const int64_t rest = FileSizeOf(entry.DataLength) - offset;
    if (entry.DataDone == 0 && rest <= 0) {
        // The read ahead at the start of a file's last section finds nothing
        // behind it, and nothing from there is ever sent. The counter stays,
        // so that it never counts a section the file does not have.
        engine.StagedLength = 0;
    } else if (entry.DataDone == 0) {
        const uint32_t announced = static_cast<uint32_t>(std::min<int64_t>(rest, SectionFileBytes));
        File file;
        if (offset < 0 || !file.Open(std::string(entry.FilePath.View()), File::Mode::Read) ||
            !file.Seek(offset, File::From::Begin)) {
            ReportUnreadable(engine, entry);
            return;
        }
        const uint32_t got =
            file.Read(engine.StagedSection.get() + SectionCrcBytes, SectionFileBytes);
        file.Close();
        // A file that has shrunk since it was listed would be repaired without
        // end; one that has grown goes out as long as it was announced.
        if (got < announced) {
            ReportUnreadable(engine, entry);
            return;
        }
        engine.StagedLength = announced;
        entry.NextBlock = static_cast<int16_t>(entry.NextBlock + BlocksPerSection);
        SealSection(engine.StagedSection.get(), announced);
    }
    engine.SectionWanted = false;
}

BlockOutcome SendNextBlock(TransferEngine& engine) {
    if (engine.SendList.IsEmpty()) {
        return BlockOutcome::Nothing;
    }
    FileEntry& entry = engine.SendList[0];
    if (entry.StartTime == 0) {
        entry.StartTime = engine.Clock.NowMs();
    }
    uint8_t* working = engine.WorkingSection.get();
    int16_t slot = engine.Call.BlockIndex.load();
    if (slot == 0) {
        // A section begins: the next one is read while this one goes out.
        std::memcpy(working, engine.StagedSection.get(),
                    engine.StagedLength.load() + SectionCrcBytes);
        engine.SectionWanted = true;
    }
    if (entry.DataDone != 0) {
        // The last block has left the port: this step runs only with the
        // writer idle and the output queue empty.
        entry.LastBlockTime = engine.Clock.NowMs();
        LinkState expected = LinkState::Transfer;
        if (!engine.Call.LinkState.compare_exchange_strong(expected, LinkState::FileSent)) {
            return BlockOutcome::Nothing;  // a repair has begun meanwhile
        }
        return BlockOutcome::FileSent;
    }
    if (entry.BlocksDone < entry.DataBlocks) {
        HandToWriter(engine, working + slot * BlockBytes, static_cast<int16_t>(BlockBytes));
        BookBlock(engine, entry, BlockBytes);
        entry.BlocksDone = static_cast<int16_t>(entry.BlocksDone + 1);
        slot = static_cast<int16_t>(slot + 1);
        engine.Call.BlockIndex = slot == static_cast<int16_t>(BlocksPerSection) ? int16_t{0} : slot;
        return BlockOutcome::Handed;
    }
    if (entry.LastBlockBytes > 0) {
        HandToWriter(engine, working + slot * BlockBytes, entry.LastBlockBytes);
        BookBlock(engine, entry, static_cast<uint32_t>(entry.LastBlockBytes));
    }
    entry.DataDone = 1;
    engine.Call.BlockIndex = 0;
    return BlockOutcome::Handed;
}

void RefreshSendDisplay(TransferEngine& engine) {
    if (engine.SendList.IsEmpty()) {
        return;
    }
    const FileEntry& entry = engine.SendList[0];
    if (entry.BytesDone == 0) {
        return;
    }
    EngineWindow& display = Display(engine);
    display.ShowThroughput(true, false);
    display.SetProgress(entry.BytesDone, entry.TotalLength);
    display.ShowBatchEstimate(engine.SendList.Remaining());
    engine.SendDisplayDirty = false;
}

unsigned SectionFeeder(void* parameter) {
    TransferEngine& engine = *static_cast<TransferEngine*>(parameter);
    const ThreadHandle self = CurrentFeederHandle(engine);
    const ThreadHandle writer = engine.WriterThread.load();
    // After the file's end the feeder parks; woken into the next file or a
    // repair, it first brings the display up to date.
    bool refreshDue = false;
    while (engine.FeederRun.load()) {
        if (engine.Call.LinkState.load() != LinkState::Transfer || engine.SendList.IsEmpty() ||
            engine.Call.Session.SendFault.load()) {
            ParkThread(self);
            continue;
        }
        const bool sectionWanted = engine.SectionWanted.load();
        if (!sectionWanted && !refreshDue && !engine.WriterIdle.load()) {
            ParkThread(self);  // the writer wakes us when its block has gone
            continue;
        }
        if (const uint32_t waiting = engine.Line->PortQueueCount(PortQueue::Output); waiting != 0) {
            NapWhileOutputDrains(engine, waiting);
            continue;
        }
        if (!FeederEnterStep(engine)) {
            continue;
        }
        if (refreshDue) {
            RefreshSendDisplay(engine);
            refreshDue = false;
        } else if (sectionWanted) {
            ReadNextSection(engine);
        } else if (SendNextBlock(engine) == BlockOutcome::FileSent) {
            refreshDue = true;
        }
        FeederLeaveStep(engine);
    }
    engine.WriterRun = false;
    WakeThread(writer);
    return 0;
}

unsigned BlockWriter(void* parameter) {
    TransferEngine& engine = *static_cast<TransferEngine*>(parameter);
    const ThreadHandle self = engine.WriterThread.load();
    const ThreadHandle feeder = CurrentFeederHandle(engine);
    while (engine.WriterRun.load()) {
        engine.Line->SendBytes(engine.WriteBlock.load(), engine.WriteBlockLength.load());
        // The line took the block: the far end is taking data.
        engine.Call.Session.FarEndSeenAt = engine.Clock.NowMs();
        engine.SendDisplayDirty = true;
        if (!engine.SendList.IsEmpty()) {
            engine.SendList[0].LastBlockTime = engine.Clock.NowMs();
        }
        engine.WriterIdle = true;
        WakeThread(feeder);
        ParkThread(self);
    }
    return 0;
}

void StartSectionFeeder(TransferEngine& engine) {
    // A feeder of an earlier session that has been told to stop may still be
    // on its way out; it must be gone before a new one takes the shared words.
    ThreadHandle oldFeeder;
    {
        std::lock_guard<std::mutex> guard(engine.Threads.HandlesLock);
        oldFeeder = engine.Threads.SessionFeeder;
    }
    JoinThread(oldFeeder);
    JoinThread(engine.WriterThread.load());
    engine.WriterThread.store(nullptr);

    // The writer is made here rather than by the feeder, held until its first
    // block, so that its handle is written by this thread alone and is in
    // place before either of the two runs. The two hand every block to each
    // other and never need the processor at the same moment, so they share
    // one: a wake that crosses processors costs far more than one that stays.
    const int processor = CurrentProcessor();
    engine.WriterRun = true;
    engine.WriterIdle = true;
    engine.WriterThread.store(
        StartThread(BlockWriter, &engine, ThreadPriority::Highest, true, processor));
    // Held too, so that its own handle is in place before it first parks.
    ThreadHandle feeder =
        StartThread(SectionFeeder, &engine, ThreadPriority::Highest, true, processor);
    {
        std::lock_guard<std::mutex> guard(engine.Threads.HandlesLock);
        engine.Threads.SessionFeeder = feeder;
    }
    if (!feeder || !engine.WriterThread.load()) {
        engine.FeederRun = false;
        engine.WriterRun = false;
        WakeThread(engine.WriterThread.load());
        WakeThread(feeder);
        engine.Call.Session.SendFault = true;
        engine.Line->InterruptPortWait();
        return;
    }
    engine.FeederThread.store(feeder);
    WakeThread(feeder);
}

}  // namespace kb::engine
