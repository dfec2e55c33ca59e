// The sending side of a session: from RCVCON to the last ACK, and the loss of
// the line on the way.

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "engine/call_end.h"
#include "engine/display.h"
#include "engine/pickup.h"
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

namespace {

constexpr int16_t TokenLineLimitMs = 2000;
constexpr int16_t BodyLimitMs = 1000;
// How long an ACK that came before the feeder has parked may wait for it.
constexpr int FileSentWaitMs = 2000;

// An empty file carries no data and the far end, which has made it already,
// sends no ACK for it: it leaves the list as soon as it comes to the top.
void DropLeadingEmptyEntries() {
    while (!TheEngine.SendList.IsEmpty() &&
           TheEngine.SendList[0].EntryKind != FileKind::FolderMarker &&
           TheEngine.SendList[0].DataLength == 0) {
        DropFirstSendEntry();
    }
}

void LogSendingFile(const char* what) {
    Stores().Log.Add(std::string(what) + std::string(TheEngine.SendList[0].DisplayName.View()));
}

void StartTransfer() {
    TheEngine.SectionWanted = true;
    TheEngine.FeederRun = true;
    StartSectionFeeder();
    Display().ShowThroughput(true, false);
    TheEngine.Call.LinkState = LinkState::Transfer;
    TheEngine.Call.TransferStartTime = WallSeconds();
    WakeFeeder();
}

// Whether a list-accepting token may start a transfer now.
bool ReadyToStart() {
    return TheEngine.Call.LinkState.load() == LinkState::Connected &&
           TheEngine.Call.Session.ListOffered.load() && !FeederRunning();
}

// The receiver's body behind FILERECOVR or FILERESTA; false after the call
// has been ended because it came short.
bool ReadRecoveryBody() {
    if (TheEngine.Line->ReadBlock(TheEngine.Line->TokenBuffer, sizeof(RecoveryBody), BodyLimitMs) <
        sizeof(RecoveryBody)) {
        EndCall(CallEnd::Fault);
        return false;
    }
    return true;
}

// Whether the body just read may move the file on top of the list: sound in
// itself, and about a stream of that file's length. A body of another length
// would have the feeder read past the file's end, or send the wrong blocks.
bool BodyFitsTopFile() {
    const RecoveryBody body = RecordFromBytes<RecoveryBody>(TheEngine.Line->TokenBuffer);
    if (!RecoveryBodySound(body)) {
        return false;
    }
    FileEntry position;
    ApplyRecoveryBody(body, position);
    const FileEntry& top = TheEngine.SendList[0];
    return position.DataLength == top.DataLength && position.AuxLength == top.AuxLength;
}

Dispatch OnFileRecovr() {
    if (!ReadRecoveryBody()) {
        return Dispatch::Stop;
    }
    const LinkState state = TheEngine.Call.LinkState.load();
    // With the list empty the file of that data has been acknowledged
    // already; a repair would put a stale entry back on the way.
    if (!FeederRunning() || (state != LinkState::Transfer && state != LinkState::FileSent) ||
        TheEngine.SendList.IsEmpty()) {
        return Dispatch::Stop;  // no data of ours is on its way: nothing to repair
    }
    if (!BodyFitsTopFile()) {
        EndCall(CallEnd::Fault);
        return Dispatch::Stop;
    }
    // The feeder stops at its next step; the position is rewritten only once
    // it has left the step it is in.
    TheEngine.Call.LinkState = LinkState::Recovery;
    WaitFeederOutOfStep();
    ApplyRecoveryAtSender();
    return Dispatch::Stop;
}

Dispatch OnContSend() {
    if (TheEngine.Call.LinkState.load() != LinkState::Recovery) {
        return Dispatch::Stop;
    }
    ConfirmRecovery();
    // The feeder has parked if the failed section was the file's last.
    WakeFeeder();
    return Dispatch::Stop;
}

Dispatch OnListAccepted() {
    if (!ReadyToStart()) {
        return Dispatch::Next;
    }
    DropLeadingEmptyEntries();
    if (TheEngine.SendList.IsEmpty()) {
        return Dispatch::Next;
    }
    LogSendingFile("Sending File: ");
    StartTransfer();
    return Dispatch::Next;
}

Dispatch OnListResumed() {
    if (!ReadRecoveryBody()) {
        return Dispatch::Stop;
    }
    if (!ReadyToStart()) {
        return Dispatch::Next;
    }
    DropLeadingEmptyEntries();
    if (TheEngine.SendList.IsEmpty()) {
        return Dispatch::Next;
    }
    if (!BodyFitsTopFile()) {
        EndCall(CallEnd::Fault);
        return Dispatch::Stop;
    }
    ApplyRecoveryAtSender();
    LogSendingFile("Sending Recovered File: ");
    StartTransfer();
    return Dispatch::Next;
}

// ACK4 and ACK2 speak of a file whose last block has gone. If the token came
// before the feeder has parked, it waits for it; a token that belongs to no
// file on its way does nothing.
bool FileIsThrough() {
    if (!FeederRunning()) {
        return false;
    }
    const LinkState state = TheEngine.Call.LinkState.load();
    if (state == LinkState::FileSent) {
        WaitFeederOutOfStep();
        return true;
    }
    return state == LinkState::Transfer && WaitFeederFileSent(FileSentWaitMs);
}

Dispatch OnAllFilesSent() {
    const LinkState state = TheEngine.Call.LinkState.load();
    // With no feeder the list held no data at all, and the far end, having
    // made the empty files, answers the offer with ACK2 at once.
    const bool emptyList = !FeederRunning() && TheEngine.Call.Session.ListOffered.load() &&
                           (state == LinkState::Connected || state == LinkState::FileSent);
    if (!emptyList && !FileIsThrough()) {
        return Dispatch::Next;
    }
    DropFirstSendEntry();
    // Empty files behind the last one were made by the far end from the list
    // alone; they are through too, and leave the list with their rows.
    DropLeadingEmptyEntries();
    EndCall(CallEnd::AllSent);
    return Dispatch::Stop;
}

Dispatch OnReceiverReady() {
    if (TheEngine.Call.LinkState.load() != LinkState::Connected ||
        TheEngine.Call.Session.ListOffered.load()) {
        return Dispatch::Next;
    }
    if (!TheEngine.Call.RetrievePending.load()) {
        StartSendSession();
        return Dispatch::Next;
    }
    TheEngine.Call.Session.ListOffered = true;
    SendToken(TokenRetrieve);
    const RetrieveRequest request = MakeRetrieveRequest(
        std::string_view(TheEngine.Line->LocalNumber,
                         strnlen(TheEngine.Line->LocalNumber, sizeof TheEngine.Line->LocalNumber)));
    TheEngine.Line->SendBytes(&request, sizeof request);
    TheEngine.Call.Role = Role::Receiver;
    TheEngine.Call.LastRxTime = NowMs();
    return Dispatch::Next;
}

// The far end refused the list. It would only wait for its own watchdog to
// end the call, so this end says why and hangs up at once; the list stays
// for another try.
Dispatch OnListRefused(CallEnd why) {
    if (TheEngine.Call.LinkState.load() != LinkState::Connected ||
        !TheEngine.Call.Session.ListOffered.load() || FeederRunning()) {
        return Dispatch::Next;  // no list of ours awaits an answer
    }
    EndCall(why);
    return Dispatch::Stop;
}

Dispatch OnNextFileWanted() {
    if (!FileIsThrough()) {
        return Dispatch::Next;
    }
    DropFirstSendEntry();
    BeginNextFile();
    WakeFeeder();
    return Dispatch::Next;
}

// What the sending side hears, in the order a line is looked at. A repair's
// tokens come alone on their line, with a body behind the first.
constexpr std::array<TokenRow, 11> SenderTokens{{
    {TokenFileRecovr.Text(), {}, OnFileRecovr},
    {TokenContSend.Text(), {}, OnContSend},
    {TextNoC,
     {},
     [] {
         EndCall(CallEnd::SenderLostLine);
         return Dispatch::Stop;
     }},
    {TextAck1, TokenAck3.Text(), OnListAccepted},
    {TextFileResta1, TokenFileResta3.Text(), OnListResumed},
    {TokenAck2.Text(), {}, OnAllFilesSent},
    {TokenAbort.Text(),
     {},
     [] {
         EndCall(CallEnd::FarEndAborted);
         return Dispatch::Stop;
     }},
    {TokenRcvcon.Text(), {}, OnReceiverReady},
    {TokenAck4.Text(), {}, OnNextFileWanted},
    {TokenNak3.Text(), {}, [] { return OnListRefused(CallEnd::ListRefusedNoSpace); }},
    {TokenNak4.Text(), {}, [] { return OnListRefused(CallEnd::ListRefusedCorrupt); }},
}};

}  // namespace

void OnSenderInput() {
    std::string line;
    if (!ReadTokenLine(TokenLineLimitMs, line)) {
        return;
    }
    DispatchLine(line, SenderTokens);
}

void StartSendSession() {
    SleepMs(100);
    BuildSessionRecords();
    const int16_t count = TheEngine.SendList.Count();
    SendToken(TokenH100);
    TheEngine.Line->SendBytes(&TheEngine.OutHeader, sizeof(SessionHeader));
    TheEngine.Line->SendBytes(TheEngine.WireList,
                              static_cast<int16_t>(count * sizeof(WireFileEntry)));
    TheEngine.Call.BlockIndex = 0;
    TheEngine.Call.Session.ListOffered = true;
    if (count > 0 && TheEngine.SendList[0].EntryKind == FileKind::FolderMarker) {
        // The marker has told the far end where the files go; it carries
        // nothing itself.
        DropFirstSendEntry();
    }
    Display().ShowTransferDisplay(true);
}

void BuildSessionRecords() {
    const int16_t count = TheEngine.SendList.Count();
    TheEngine.OutHeader =
        MakeSessionHeader(static_cast<uint32_t>(count), TheEngine.SendList.Remaining());
    for (int16_t i = 0; i < count; ++i) {
        TheEngine.WireList[i] = MakeWireFileEntry(TheEngine.SendList[i]);
    }
}

void DropFirstSendEntry() {
    const int16_t count = TheEngine.SendList.Count();
    if (count <= 0) {
        return;
    }
    EngineWindow& display = Display();
    if (TheEngine.Call.LinkState.load() >= LinkState::Transfer) {
        display.SetProgress(100, 100);
        display.ShowThroughput(true, true);
    }
    SendList& list = TheEngine.SendList;
    if (TheEngine.PickupSend.load() && list[0].EntryKind != FileKind::FolderMarker) {
        MoveToSentFiles(std::string(list[0].FilePath.View()));
    }
    // The wire list is kept in step with the send list.
    for (int16_t i = 0; i + 1 < count; ++i) {
        TheEngine.WireList[i] = TheEngine.WireList[i + 1];
    }
    list.DropFirst();
    display.RemoveTopFileRow();
    display.ShowBatchEstimate(list.Remaining());
    if (list.IsEmpty()) {
        TheEngine.Call.LinkState = LinkState::FileSent;
        if (TheEngine.PickupSend.load()) {
            // The pick-up folder has emptied: its button shows it.
            display.ShowSelectedCorrespondent();
        }
    }
    TheEngine.Line->SetLinePolling(1);
}

void BeginNextFile() {
    DropLeadingEmptyEntries();
    if (TheEngine.SendList.IsEmpty()) {
        return;
    }
    LogSendingFile("Sending File: ");
    TheEngine.SectionWanted = true;
    TheEngine.Call.LinkState = LinkState::Transfer;
}

void ResetSendPosition() {
    if (!TheEngine.SendList.IsEmpty()) {
        FileEntry& entry = TheEngine.SendList[0];
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
    Display().ShowBatchEstimate(TheEngine.SendList.RecomputeTotal());
}
