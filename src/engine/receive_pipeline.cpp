// The receiving side's file data: blocks are taken off the port as soon as
// each lies whole in the input queue, put together into sections, checked,
// and appended to the file. Only good sections reach the disk, so the file
// is always a whole number of them long until its last one is written.

#include <optional>
#include <string>

#include "engine/call_end.h"
#include "engine/display.h"
#include "engine/pipelines.h"
#include "engine/recovery.h"
#include "engine/resume_record.h"
#include "engine/sessions.h"
#include "engine/teardown.h"
#include "engine/token_lines.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace kb::engine {

using namespace kb::platform;

namespace {

constexpr int16_t BlockLimitMs = 250;

void BookBytes(TransferEngine& engine, FileEntry& entry, uint32_t got) {
    const uint32_t remaining = engine.Call.ReceiveRemaining.load();
    engine.Call.ReceiveRemaining = remaining > got ? remaining - got : 0;
    entry.BytesDone += got;
}

// Where a section ends, as "Packet byte error N." numbers it when the section
// fails its check.
enum class SectionEnd {
    OnABlockBoundary = 1,  // the file's last section, ending with a whole block
    Whole = 2,             // a full section inside the file
    InAShortBlock = 3,     // the file's last section, ending in a short block
};

// Checks the section in WorkingSection over its fileBytes. A section that
// fails is asked for again, and nothing of it reaches the disk.
[[nodiscard]] bool SectionPasses(TransferEngine& engine, uint32_t fileBytes, SectionEnd end) {
    if (SectionIntact(engine.WorkingSection.get(), fileBytes)) {
        return true;
    }
    engine.Stores().Log.Add("Packet byte error " + std::to_string(static_cast<int>(end)) + ".");
    RequestSectionResend(engine);
    engine.Call.LinkState = LinkState::Recovery;
    return false;
}

// Appends the section's file bytes where the file stops. A file that cannot
// take them ends the session; it is then handled as any file that did not
// arrive. What a failed write left of the section is cut off again, so that
// the file still holds whole sections only and can be resumed once there is
// room.
[[nodiscard]] bool AppendSection(TransferEngine& engine, const FileEntry& entry,
                                 uint32_t fileBytes) {
    File file;
    if (file.Open(std::string(entry.FilePath.View()), File::Mode::Write) &&
        file.Seek(0, File::From::End)) {
        const std::optional<int64_t> before = file.Length();
        if (file.Write(engine.WorkingSection.get() + SectionCrcBytes, fileBytes)) {
            return true;
        }
        // The write has failed already, and the log line below tells it.
        // Without the length it had, nothing is cut.
        if (before) {
            static_cast<void>(file.Truncate(*before));
        }
    }
    LogCannotWrite(engine, std::string(entry.DisplayName.View()), file.OutOfSpace());
    EndCall(engine, CallEnd::Fault);
    return false;
}

void FileFinished(TransferEngine& engine) {
    FileEntry& entry = engine.ReceiveList[0];
    EngineWindow& display = Display(engine);
    if (!PublishReceivedFile(engine, entry)) {
        EndCall(engine, CallEnd::Fault);
        return;
    }
    engine.Stores().Log.Add("File received.");
    entry.EntryComplete = 1;
    display.ShowThroughput(false, true);
    RetireFinishedEntry(engine);
    if (engine.Call.ReceiveCount.load() > 0) {
        FileEntry& next = engine.ReceiveList[0];
        if (!BeginReceivedFile(engine, next)) {
            EndCall(engine, CallEnd::Fault);
            return;
        }
        engine.Call.ExpectedBlock = ExpectedBlockOf(next);
        SnapshotSection(engine);
        display.ShowBatchEstimate(engine.Call.ReceiveRemaining.load());
        display.SetProgress(next.BytesDone, next.TotalLength);
        display.ShowThroughput(false, false);
        engine.Stores().Log.Add("Receiving File: " + std::string(next.DisplayName.View()));
        SendToken(engine, TokenAck4);
        return;
    }
    SendToken(engine, TokenAck2);
    engine.Call.LinkState = LinkState::Connected;
    engine.Stores().Log.Add("All files received.");
    display.ShowBatchEstimate(engine.Call.ReceiveRemaining.load());
    display.ShowThroughput(false, false);
    // A finished list leaves nothing to resume.
    ForgetResumeCandidate(engine);
}

}  // namespace

void ReceiveBlock(TransferEngine& engine) {
    engine.Call.LastRxTime = engine.Clock.NowMs();
    FileEntry& entry = engine.ReceiveList[0];
    if (entry.DataDone != 0) {
        FileFinished(engine);
        return;
    }
    const int16_t slot = engine.Call.BlockIndex.load();
    if (slot == 0) {
        SnapshotSection(engine);
    }
    uint8_t* at = engine.WorkingSection.get() + slot * BlockBytes;
    if (entry.DataBlocks > entry.BlocksDone) {
        BookBytes(engine, entry, engine.Line->ReadBlock(at, BlockBytes, BlockLimitMs));
        entry.BlocksDone = static_cast<int16_t>(entry.BlocksDone + 1);
        const int16_t filled = static_cast<int16_t>(slot + 1);
        engine.Call.BlockIndex = filled;
        if (entry.BlocksDone == entry.DataBlocks && entry.LastBlockBytes == 0) {
            // The file's last section ends on a block boundary.
            const uint32_t fileBytes = filled * BlockBytes - SectionCrcBytes;
            if (!SectionPasses(engine, fileBytes, SectionEnd::OnABlockBoundary) ||
                !AppendSection(engine, entry, fileBytes)) {
                return;
            }
            engine.Call.BlockIndex = 0;
            entry.DataDone = 1;
            FileFinished(engine);
            return;
        }
        bool sectionWritten = false;
        if (filled == static_cast<int16_t>(BlocksPerSection)) {
            if (!SectionPasses(engine, SectionFileBytes, SectionEnd::Whole) ||
                !AppendSection(engine, entry, SectionFileBytes)) {
                return;
            }
            engine.Call.BlockIndex = 0;
            entry.NextBlock = static_cast<int16_t>(entry.NextBlock + BlocksPerSection);
            sectionWritten = true;
        }
        engine.Call.ExpectedBlock = entry.BlocksDone == entry.DataBlocks
                                        ? static_cast<uint16_t>(entry.LastBlockBytes)
                                        : static_cast<uint16_t>(BlockBytes);
        entry.LastBlockTime = engine.Clock.NowMs();
        engine.ReceiveDisplayDirty = true;
        if (sectionWritten) {
            // The position now stands at the next section's start, which is
            // what the file on disk holds: a call lost before the next block
            // can still be resumed from exactly there.
            SnapshotSection(engine);
        }
        return;
    }
    const uint32_t lastBytes = static_cast<uint32_t>(entry.LastBlockBytes);
    BookBytes(engine, entry, engine.Line->ReadBlock(at, lastBytes, BlockLimitMs));
    const int64_t fileBytes = int64_t{slot} * BlockBytes + lastBytes - SectionCrcBytes;
    if (fileBytes <= 0) {
        // Only a damaged position could bring this; the section cannot be
        // checked, so it is asked for again.
        RequestSectionResend(engine);
        engine.Call.LinkState = LinkState::Recovery;
        return;
    }
    if (!SectionPasses(engine, static_cast<uint32_t>(fileBytes), SectionEnd::InAShortBlock) ||
        !AppendSection(engine, entry, static_cast<uint32_t>(fileBytes))) {
        return;
    }
    engine.Call.BlockIndex = 0;
    entry.DataDone = 1;
    FileFinished(engine);
}

void RefreshReceiveDisplay(TransferEngine& engine) {
    const FileEntry& entry = engine.ReceiveList[0];
    EngineWindow& display = Display(engine);
    display.ShowBatchEstimate(engine.Call.ReceiveRemaining.load());
    display.SetProgress(entry.BytesDone, entry.TotalLength);
    display.ShowThroughput(false, false);
    engine.ReceiveDisplayDirty = false;
}

void RetireFinishedEntry(TransferEngine& engine) {
    FileEntry* list = engine.ReceiveList.get();
    WireFileEntry* wire = engine.WireList.get();
    const FileEntry finished = list[0];
    const WireFileEntry finishedWire = wire[0];
    EngineWindow& display = Display(engine);
    display.SetProgress(100, 100);
    const uint32_t count = engine.Call.ReceiveCount.load();
    const uint32_t left = count > 0 ? count - 1 : 0;
    engine.Call.ReceiveCount = left;
    const int16_t size = engine.Call.ReceiveListSize.load();
    if (size >= 1) {
        for (int16_t i = 1; i < size; ++i) {
            list[i - 1] = list[i];
            wire[i - 1] = wire[i];
        }
        list[size - 1] = finished;
        wire[size - 1] = finishedWire;
    }
    uint32_t remaining = 0;
    for (uint32_t i = 0; i < left; ++i) {
        remaining += list[i].TotalLength;
    }
    engine.Call.ReceiveRemaining = remaining;
    display.RemoveTopFileRow();
    display.ShowBatchEstimate(remaining);
}

}  // namespace kb::engine
