// The sending side of a session: from RCVCON to the last ACK, and the loss of
// the line on the way.

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "engine/call_end.h"
#include "engine/display.h"
#include "engine/pickup.h"
#include "engine/pipelines.h"
#include "engine/recovery.h"
#include "engine/session_threads.h"
#include "engine/sessions.h"
#include "engine/teardown.h"
#include "engine/token_lines.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "line/profiles.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace kb::engine {

using namespace kb::platform;

namespace {

constexpr int16_t TokenLineLimitMs = 2000;
constexpr int16_t BodyLimitMs = 1000;
// How long an ACK that came before the feeder has parked may wait for it.
constexpr int FileSentWaitMs = 2000;

// An empty file carries no data and the far end, which has made it already,
// sends no ACK for it: it leaves the list as soon as it comes to the top.
void DropLeadingEmptyEntries(TransferEngine& engine) {
    while (!engine.SendList.IsEmpty() && engine.SendList[0].EntryKind != FileKind::FolderMarker &&
           engine.SendList[0].DataLength == 0) {
        DropFirstSendEntry(engine);
    }
}

void LogSendingFile(TransferEngine& engine, const char* what) {
    engine.Stores().Log.Add(std::string(what) + std::string(engine.SendList[0].DisplayName.View()));
}

void StartTransfer(TransferEngine& engine) {
    engine.SectionWanted = true;
    engine.FeederRun = true;
    StartSectionFeeder(engine);
    Display(engine).ShowThroughput(true, false);
    engine.Call.LinkState = LinkState::Transfer;
    engine.Call.TransferStartTime = WallSeconds();
    WakeFeeder(engine);
}

// Whether a list-accepting token may start a transfer now.
bool ReadyToStart(TransferEngine& engine) {
    return engine.Call.LinkState.load() == LinkState::Connected &&
           engine.Call.Session.ListOffered.load() && !FeederRunning(engine);
}

// The receiver's body behind FILERECOVR or FILERESTA; false after the call
// has been ended because it came short.
bool ReadRecoveryBody(TransferEngine& engine) {
    if (engine.Line->ReadBlock(engine.Line->TokenBuffer, sizeof(RecoveryBody), BodyLimitMs) <
        sizeof(RecoveryBody)) {
        EndCall(engine, CallEnd::Fault);
        return false;
    }
    return true;
}

// Whether the body just read may move the file on top of the list: sound in
// itself, and about a stream of that file's length. A body of another length
// would have the feeder read past the file's end, or send the wrong blocks.
bool BodyFitsTopFile(TransferEngine& engine) {
    const RecoveryBody body = RecordFromBytes<RecoveryBody>(engine.Line->TokenBuffer);
    if (!RecoveryBodySound(body)) {
        return false;
    }
    FileEntry position;
    ApplyRecoveryBody(body, position);
    const FileEntry& top = engine.SendList[0];
    return position.DataLength == top.DataLength && position.AuxLength == top.AuxLength;
}

Dispatch OnFileRecovr(TransferEngine& engine) {
    if (!ReadRecoveryBody(engine)) {
        return Dispatch::Stop;
    }
    const LinkState state = engine.Call.LinkState.load();
    // With the list empty the file of that data has been acknowledged
    // already; a repair would put a stale entry back on the way.
    if (!FeederRunning(engine) || (state != LinkState::Transfer && state != LinkState::FileSent) ||
        engine.SendList.IsEmpty()) {
        return Dispatch::Stop;  // no data of ours is on its way: nothing to repair
    }
    if (!BodyFitsTopFile(engine)) {
        EndCall(engine, CallEnd::Fault);
        return Dispatch::Stop;
    }
    // The feeder stops at its next step; the position is rewritten only once
    // it has left the step it is in.
    engine.Call.LinkState = LinkState::Recovery;
    WaitFeederOutOfStep(engine);
    ApplyRecoveryAtSender(engine);
    return Dispatch::Stop;
}

Dispatch OnContSend(TransferEngine& engine) {
    if (engine.Call.LinkState.load() != LinkState::Recovery) {
        return Dispatch::Stop;
    }
    ConfirmRecovery(engine);
    // The feeder has parked if the failed section was the file's last.
    WakeFeeder(engine);
    return Dispatch::Stop;
}

Dispatch OnListAccepted(TransferEngine& engine) {
    if (!ReadyToStart(engine)) {
        return Dispatch::Next;
    }
    DropLeadingEmptyEntries(engine);
    if (engine.SendList.IsEmpty()) {
        return Dispatch::Next;
    }
    LogSendingFile(engine, "Sending File: ");
    StartTransfer(engine);
    return Dispatch::Next;
}

Dispatch OnListResumed(TransferEngine& engine) {
    if (!ReadRecoveryBody(engine)) {
        return Dispatch::Stop;
    }
    if (!ReadyToStart(engine)) {
        return Dispatch::Next;
    }
    DropLeadingEmptyEntries(engine);
    if (engine.SendList.IsEmpty()) {
        return Dispatch::Next;
    }
    if (!BodyFitsTopFile(engine)) {
        EndCall(engine, CallEnd::Fault);
        return Dispatch::Stop;
    }
    ApplyRecoveryAtSender(engine);
    LogSendingFile(engine, "Sending Recovered File: ");
    StartTransfer(engine);
    return Dispatch::Next;
}

// ACK4 and ACK2 speak of a file whose last block has gone. If the token came
// before the feeder has parked, it waits for it; a token that belongs to no
// file on its way does nothing.
bool FileIsThrough(TransferEngine& engine) {
    if (!FeederRunning(engine)) {
        return false;
    }
    const LinkState state = engine.Call.LinkState.load();
    if (state == LinkState::FileSent) {
        WaitFeederOutOfStep(engine);
        return true;
    }
    return state == LinkState::Transfer && WaitFeederFileSent(engine, FileSentWaitMs);
}

Dispatch OnAllFilesSent(TransferEngine& engine) {
    const LinkState state = engine.Call.LinkState.load();
    // With no feeder the list held no data at all, and the far end, having
    // made the empty files, answers the offer with ACK2 at once.
    const bool emptyList = !FeederRunning(engine) && engine.Call.Session.ListOffered.load() &&
                           (state == LinkState::Connected || state == LinkState::FileSent);
    if (!emptyList && !FileIsThrough(engine)) {
        return Dispatch::Next;
    }
    DropFirstSendEntry(engine);
    // Empty files behind the last one were made by the far end from the list
    // alone; they are through too, and leave the list with their rows.
    DropLeadingEmptyEntries(engine);
    EndCall(engine, CallEnd::AllSent);
    return Dispatch::Stop;
}

Dispatch OnReceiverReady(TransferEngine& engine) {
    if (engine.Call.LinkState.load() != LinkState::Connected ||
        engine.Call.Session.ListOffered.load()) {
        return Dispatch::Next;
    }
    if (!engine.Call.RetrievePending.load()) {
        StartSendSession(engine);
        return Dispatch::Next;
    }
    engine.Call.Session.ListOffered = true;
    SendToken(engine, TokenRetrieve);
    const RetrieveRequest request = MakeRetrieveRequest(
        std::string_view(engine.Line->LocalNumber,
                         strnlen(engine.Line->LocalNumber, sizeof engine.Line->LocalNumber)));
    engine.Line->SendBytes(&request, sizeof request);
    engine.Call.Role = Role::Receiver;
    engine.Call.LastRxTime = engine.Clock.NowMs();
    return Dispatch::Next;
}

// The far end refused the list. It would only wait for its own watchdog to
// end the call, so this end says why and hangs up at once; the list stays
// for another try.
Dispatch OnListRefused(TransferEngine& engine, CallEnd why) {
    if (engine.Call.LinkState.load() != LinkState::Connected ||
        !engine.Call.Session.ListOffered.load() || FeederRunning(engine)) {
        return Dispatch::Next;  // no list of ours awaits an answer
    }
    EndCall(engine, why);
    return Dispatch::Stop;
}

Dispatch OnNextFileWanted(TransferEngine& engine) {
    if (!FileIsThrough(engine)) {
        return Dispatch::Next;
    }
    DropFirstSendEntry(engine);
    BeginNextFile(engine);
    WakeFeeder(engine);
    return Dispatch::Next;
}

// What the sending side hears, in the order a line is looked at. A repair's
// tokens come alone on their line, with a body behind the first.
constexpr std::array<TokenRow, 11> SenderTokens{{
    {TokenFileRecovr.Text(), {}, OnFileRecovr},
    {TokenContSend.Text(), {}, OnContSend},
    {TextNoC,
     {},
     [](TransferEngine& engine) {
         EndCall(engine, CallEnd::SenderLostLine);
         return Dispatch::Stop;
     }},
    {TextAck1, TokenAck3.Text(), OnListAccepted},
    {TextFileResta1, TokenFileResta3.Text(), OnListResumed},
    {TokenAck2.Text(), {}, OnAllFilesSent},
    {TokenAbort.Text(),
     {},
     [](TransferEngine& engine) {
         EndCall(engine, CallEnd::FarEndAborted);
         return Dispatch::Stop;
     }},
    {TokenRcvcon.Text(), {}, OnReceiverReady},
    {TokenAck4.Text(), {}, OnNextFileWanted},
    {TokenNak3.Text(),
     {},
     [](TransferEngine& engine) { return OnListRefused(engine, CallEnd::ListRefusedNoSpace); }},
    {TokenNak4.Text(),
     {},
     [](TransferEngine& engine) { return OnListRefused(engine, CallEnd::ListRefusedCorrupt); }},
}};

}  // namespace

void OnSenderInput(TransferEngine& engine) {
    std::string line;
    if (!ReadTokenLine(engine, TokenLineLimitMs, line)) {
        return;
    }
    DispatchLine(engine, line, SenderTokens);
}

void StartSendSession(TransferEngine& engine) {
    engine.Clock.SleepMs(100);
    BuildSessionRecords(engine);
    const int16_t count = engine.SendList.Count();
    SendToken(engine, TokenH100);
    engine.Line->SendBytes(&engine.OutHeader, sizeof(SessionHeader));
    engine.Line->SendBytes(engine.WireList.get(),
                           static_cast<int16_t>(count * sizeof(WireFileEntry)));
    engine.Call.BlockIndex = 0;
    engine.Call.Session.ListOffered = true;
    if (count > 0 && engine.SendList[0].EntryKind == FileKind::FolderMarker) {
        // The marker has told the far end where the files go; it carries
        // nothing itself.
        DropFirstSendEntry(engine);
    }
    Display(engine).ShowTransferDisplay(true);
}

void BuildSessionRecords(TransferEngine& engine) {
    const int16_t count = engine.SendList.Count();
    engine.OutHeader = MakeSessionHeader(static_cast<uint32_t>(count), engine.SendList.Remaining());
    for (int16_t i = 0; i < count; ++i) {
        engine.WireList[i] = MakeWireFileEntry(engine.SendList[i]);
    }
}

void DropFirstSendEntry(TransferEngine& engine) {
    const int16_t count = engine.SendList.Count();
    if (count <= 0) {
        return;
    }
    EngineWindow& display = Display(engine);
    if (engine.Call.LinkState.load() >= LinkState::Transfer) {
        display.SetProgress(100, 100);
        display.ShowThroughput(true, true);
    }
    SendList& list = engine.SendList;
    if (engine.PickupSend.load() && list[0].EntryKind != FileKind::FolderMarker) {
        MoveToSentFiles(std::string(list[0].FilePath.View()));
    }
    // The wire list is kept in step with the send list.
    for (int16_t i = 0; i + 1 < count; ++i) {
        engine.WireList[i] = engine.WireList[i + 1];
    }
    list.DropFirst();
    display.RemoveTopFileRow();
    display.ShowBatchEstimate(list.Remaining());
    if (list.IsEmpty()) {
        engine.Call.LinkState = LinkState::FileSent;
        if (engine.PickupSend.load()) {
            // The pick-up folder has emptied: its button shows it.
            display.ShowSelectedCorrespondent();
        }
    }
    engine.Line->SetLinePolling(1);
}

void BeginNextFile(TransferEngine& engine) {
    DropLeadingEmptyEntries(engine);
    if (engine.SendList.IsEmpty()) {
        return;
    }
    LogSendingFile(engine, "Sending File: ");
    engine.SectionWanted = true;
    engine.Call.LinkState = LinkState::Transfer;
}

void ResetSendPosition(TransferEngine& engine) {
    if (!engine.SendList.IsEmpty()) {
        FileEntry& entry = engine.SendList[0];
        entry.NextBlock = 0;
        entry.BlocksDone = 0;
        entry.AuxNextBlock = 0;
        entry.AuxBlocksDone = 0;
        entry.BytesDone = 0;
        entry.StartTime = 0;
        entry.LastBlockTime = 0;
        entry.DataDone = entry.DataLength == 0 ? 1 : 0;
        entry.AuxDone = entry.AuxLength == 0 ? 1 : 0;
    }
    Display(engine).ShowBatchEstimate(engine.SendList.RecomputeTotal());
}

void MoveToSentFiles(const std::string& path) {
    // The file keeps its own name: the name it was announced under may be
    // shortened, and two long names can shorten alike.
    const std::string name = NameOfPath(path);
    const std::string target = path.substr(0, path.size() - name.size()) + "Sent Files/" + name;
    if (MoveFileNoReplace(path, target)) {
        return;
    }
    // An older file of that name is in the way.
    static_cast<void>(DeleteFileAt(target));
    if (MoveFileNoReplace(path, target)) {
        return;
    }
    // A file that will go neither way stays in the folder, as the user sees it.
    static_cast<void>(DeleteFileAt(path));
}

}  // namespace kb::engine
