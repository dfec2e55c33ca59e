#include "engine/transfer_engine.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "engine/call_end.h"
#include "engine/comm_pass.h"
#include "engine/dialing.h"
#include "engine/pipelines.h"
#include "engine/recovery.h"
#include "engine/resume_record.h"
#include "engine/session_threads.h"
#include "engine/sessions.h"
#include "engine/teardown.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "platform/clock.h"
#include "platform/message_box.h"

TransferEngine TheEngine;

namespace {

// The receiving side's two limits on silence; both are strict. The sending
// side keeps them too, for a far end that neither speaks nor takes data.
constexpr uint32_t StallLimitMs = 5000;
constexpr uint32_t SilenceLimitMs = 10000;
// The longest a pass waits when no limit is due sooner: it bounds how long a
// change of state made by another thread without a wake goes unseen.
constexpr int LongestWaitMs = 1000;
// While blocks go out, the send progress is redrawn at this pace.
constexpr int SendDisplayWaitMs = 200;

// Milliseconds until more than limitMs have gone by since the stamp; 0 when
// they have.
int MsUntilPast(uint32_t since, uint32_t limitMs) {
    const uint32_t elapsed = NowMs() - since;
    if (elapsed > limitMs) {
        return 0;
    }
    const uint32_t left = limitMs - elapsed + 1;
    return left < static_cast<uint32_t>(LongestWaitMs) ? static_cast<int>(left) : LongestWaitMs;
}

// How long the sending side waits for a sign of its far end: while blocks go
// out, as long as the receiver waits for the next; for a token, as long as
// the receiver waits for one.
uint32_t SenderLimitMs(LinkState state) {
    return state == LinkState::Transfer ? StallLimitMs : SilenceLimitMs;
}

// Whether the sending side has seen nothing of its far end for longer than
// its limit, with no hang-up under way yet. A session that has moved on to
// another state since the last look has heard the far end's token.
bool SenderLostFarEnd(LinkState state) {
    if (state < LinkState::Connected || TheEngine.Call.Session.HangUpTried.load()) {
        return false;
    }
    if (TheEngine.Call.Session.FarEndSeenIn.exchange(state) != state) {
        TheEngine.Call.Session.FarEndSeenAt = NowMs();
        return false;
    }
    return NowMs() - TheEngine.Call.Session.FarEndSeenAt.load() > SenderLimitMs(state);
}

// How long a pass that found nothing to do may wait for input.
int WaitBound(LinkState state, bool sending) {
    if (sending) {
        int bound = state == LinkState::Transfer ? SendDisplayWaitMs : LongestWaitMs;
        if (state >= LinkState::Connected && !TheEngine.Call.Session.HangUpTried.load()) {
            bound = std::min(bound, MsUntilPast(TheEngine.Call.Session.FarEndSeenAt.load(),
                                                SenderLimitMs(state)));
        }
        const std::optional<int> retry = MsUntilHangUpRetry();
        return retry && *retry < bound ? *retry : bound;
    }
    switch (state) {
        case LinkState::Connected:
        case LinkState::Recovery:
            return MsUntilPast(TheEngine.Call.LastRxTime.load(), SilenceLimitMs);
        case LinkState::Transfer:
            return MsUntilPast(TheEngine.Call.LastRxTime.load(), StallLimitMs);
        default:
            return LongestWaitMs;
    }
}

// The work of one pass with the port in hand. Returns how long to wait for
// input afterwards, or nothing if the pass acted and the next one should
// follow at once.
std::optional<int> PassWork() {
    const uint32_t waiting = TheEngine.Line->PortQueueCount(PortQueue::Input);
    const LinkState state = TheEngine.Call.LinkState.load();
    const bool sending = TheEngine.Call.Role.load() == Role::Sender;

    if (sending && state >= LinkState::Connected &&
        TheEngine.Call.Session.SendFault.exchange(false)) {
        EndCall(CallEnd::Fault);
        return std::nullopt;
    }
    if (sending && waiting == 0 && RetryHangUpIfDue()) {
        return std::nullopt;
    }
    if (sending && SenderLostFarEnd(state)) {
        EndCall(CallEnd::FarEndNotResponding);
        return std::nullopt;
    }
    // A far end that brings no token within the limit is let go, also while
    // it keeps sending other bytes: a stream must not hold the line.
    if (!sending && (state == LinkState::Connected || state == LinkState::Recovery) &&
        NowMs() - TheEngine.Call.LastRxTime.load() > SilenceLimitMs) {
        EndCall(CallEnd::Silence);
        return std::nullopt;
    }
    if (waiting != 0) {
        if (state <= LinkState::Dialing) {
            HandleLineEvent();
            return std::nullopt;
        }
        if (sending) {
            OnSenderInput();
            return std::nullopt;
        }
        if (state == LinkState::Connected || state == LinkState::Recovery) {
            OnReceiverInput();
            return std::nullopt;
        }
        if (state == LinkState::Transfer) {
            if (waiting >= TheEngine.Call.ExpectedBlock.load()) {
                ReceiveBlock();
                return std::nullopt;
            }
            FileEntry& entry = TheEngine.ReceiveList[0];
            if (entry.StartTime == 0) {
                // The first bytes of the file have come.
                entry.StartTime = NowMs();
                return WaitBound(state, sending);
            }
        }
    }

    if (sending) {
        if (state == LinkState::Transfer && TheEngine.SendDisplayDirty.load()) {
            RefreshSendDisplay();
        }
        return WaitBound(state, sending);
    }
    if (state == LinkState::Transfer && NowMs() - TheEngine.Call.LastRxTime.load() > StallLimitMs) {
        if (waiting != 0 && waiting < TheEngine.Call.ExpectedBlock.load()) {
            EndStalledCall(waiting);
        } else {
            EndCall(CallEnd::TransferStalled, std::to_string(waiting));
            TheEngine.Call.LastRxTime = NowMs();
        }
        return std::nullopt;
    }
    if (state == LinkState::Transfer && TheEngine.ReceiveDisplayDirty.load()) {
        RefreshReceiveDisplay();
    }
    return WaitBound(state, sending);
}

void ShowHeldMessages() {
    std::vector<std::string> messages;
    messages.swap(TheEngine.Marks.HeldMessages);
    for (const std::string& text : messages) {
        ShowMessageBox(text);
    }
}

// One pass of the communications thread. It holds the port's read side for
// the whole pass, and gives it up whenever another thread asks for it: such
// a thread clears LinePollingEnabled and interrupts the wait first.
void CommPass() {
    std::unique_lock<std::recursive_mutex> portGuard(TheEngine.Line->PortReadLock);
    if (TheEngine.Line->AdapterFound.load() == 0 ||
        TheEngine.Line->LinePollingEnabled.load() == 0) {
        portGuard.unlock();
        TheEngine.Line->WaitForPortWake(LongestWaitMs);
        return;
    }
    TheEngine.Marks.InsidePass = std::this_thread::get_id();
    const std::optional<int> waitMs = PassWork();
    if (waitMs && TheEngine.CommThreadRun.load()) {
        TheEngine.Line->WaitForPortInput(*waitMs);
    }
    TheEngine.Marks.InsidePass = std::thread::id();
    portGuard.unlock();
    ShowHeldMessages();
}

}  // namespace

bool OnCommThread() {
    return TheEngine.Marks.CommThread.load() == std::this_thread::get_id();
}

void ShowMessageOutsidePass(const std::string& text) {
    if (TheEngine.Marks.InsidePass.load() == std::this_thread::get_id()) {
        TheEngine.Marks.HeldMessages.push_back(text);
    } else {
        ShowMessageBox(text);
    }
}

void SetEngineLine(::Line& line) {
    TheEngine.Line = &line;
}

void EngineStartup(Installation& stores) {
    TheEngine.Stores = &stores;
    if (TheEngine.WireList == nullptr) {
        TheEngine.WireList = new WireFileEntry[ListCapacity]();
    }
    TheEngine.SendList.Allocate();
    if (TheEngine.ReceiveList == nullptr) {
        TheEngine.ReceiveList = new FileEntry[ListCapacity]();
    }
    if (TheEngine.WorkingSection == nullptr) {
        TheEngine.WorkingSection = new uint8_t[SectionWireBytes]();
    }
    if (TheEngine.StagedSection == nullptr) {
        TheEngine.StagedSection = new uint8_t[SectionWireBytes]();
    }
    TheEngine.OutHeader = MakeSessionHeader(0, 0);
    TheEngine.RecoveryRecord = MakeRecoveryMessage(TokenFileRecovr, RecoveryBody{});
    LoadResumeCandidate();
}

void EngineShutdown() {
    // A file that was still on its way can no longer be finished once the
    // program has gone; the one kept for a resume stays for the next start.
    DiscardUnfinishedFiles();
    delete[] TheEngine.WireList;
    TheEngine.SendList.Free();
    delete[] TheEngine.ReceiveList;
    delete[] TheEngine.WorkingSection;
    delete[] TheEngine.StagedSection;
    TheEngine.WireList = nullptr;
    TheEngine.ReceiveList = nullptr;
    TheEngine.WorkingSection = nullptr;
    TheEngine.StagedSection = nullptr;
}

unsigned CommThread(void*) {
    TheEngine.Marks.CommThread = std::this_thread::get_id();
    while (TheEngine.CommThreadRun.load()) {
        CommPass();
    }
    // A thread made later may be given this id again.
    TheEngine.Marks.CommThread = std::thread::id();
    return 0;
}

ThreadHandle StartCommThread() {
    TheEngine.CommThreadRun = true;
    return StartThread(CommThread, nullptr, ThreadPriority::Normal, false);
}

void StopCommThread() {
    TheEngine.CommThreadRun = false;
}

std::time_t TakeTransferStart() {
    return TheEngine.Call.TransferStartTime.exchange(0);
}
