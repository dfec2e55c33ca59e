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

namespace kb::engine {

using namespace kb::line;
using namespace kb::platform;
using namespace kb::stores;

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
int MsUntilPast(const TransferEngine& engine, uint32_t since, uint32_t limitMs) {
    const uint32_t elapsed = engine.Clock.NowMs() - since;
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
bool SenderLostFarEnd(TransferEngine& engine, LinkState state) {
    if (state < LinkState::Connected || engine.Call.Session.HangUpTried.load()) {
        return false;
    }
    if (engine.Call.Session.FarEndSeenIn.exchange(state) != state) {
        engine.Call.Session.FarEndSeenAt = engine.Clock.NowMs();
        return false;
    }
    return engine.Clock.NowMs() - engine.Call.Session.FarEndSeenAt.load() > SenderLimitMs(state);
}

// How long a pass that found nothing to do may wait for input.
int WaitBound(TransferEngine& engine, LinkState state, bool sending) {
    if (sending) {
        int bound = state == LinkState::Transfer ? SendDisplayWaitMs : LongestWaitMs;
        if (state >= LinkState::Connected && !engine.Call.Session.HangUpTried.load()) {
            bound = std::min(bound, MsUntilPast(engine, engine.Call.Session.FarEndSeenAt.load(),
                                                SenderLimitMs(state)));
        }
        const std::optional<int> retry = MsUntilHangUpRetry(engine);
        return retry && *retry < bound ? *retry : bound;
    }
    switch (state) {
        case LinkState::Connected:
        case LinkState::Recovery:
            return MsUntilPast(engine, engine.Call.LastRxTime.load(), SilenceLimitMs);
        case LinkState::Transfer:
            return MsUntilPast(engine, engine.Call.LastRxTime.load(), StallLimitMs);
        default:
            return LongestWaitMs;
    }
}

// The work of one pass with the port in hand. Returns how long to wait for
// input afterwards, or nothing if the pass acted and the next one should
// follow at once.
std::optional<int> PassWork(TransferEngine& engine) {
    const uint32_t waiting = engine.Line->PortQueueCount(PortQueue::Input);
    const LinkState state = engine.Call.LinkState.load();
    const bool sending = engine.Call.Role.load() == Role::Sender;

    if (sending && state >= LinkState::Connected && engine.Call.Session.SendFault.exchange(false)) {
        EndCall(engine, CallEnd::Fault);
        return std::nullopt;
    }
    if (sending && waiting == 0 && RetryHangUpIfDue(engine)) {
        return std::nullopt;
    }
    if (sending && SenderLostFarEnd(engine, state)) {
        EndCall(engine, CallEnd::FarEndNotResponding);
        return std::nullopt;
    }
    // A far end that brings no token within the limit is let go, also while
    // it keeps sending other bytes: a stream must not hold the line.
    if (!sending && (state == LinkState::Connected || state == LinkState::Recovery) &&
        engine.Clock.NowMs() - engine.Call.LastRxTime.load() > SilenceLimitMs) {
        EndCall(engine, CallEnd::Silence);
        return std::nullopt;
    }
    if (waiting != 0) {
        if (state <= LinkState::Dialing) {
            HandleLineEvent(engine);
            return std::nullopt;
        }
        if (sending) {
            OnSenderInput(engine);
            return std::nullopt;
        }
        if (state == LinkState::Connected || state == LinkState::Recovery) {
            OnReceiverInput(engine);
            return std::nullopt;
        }
        if (state == LinkState::Transfer) {
            if (waiting >= engine.Call.ExpectedBlock.load()) {
                ReceiveBlock(engine);
                return std::nullopt;
            }
            FileEntry& entry = engine.ReceiveList[0];
            if (entry.StartTime == 0) {
                // The first bytes of the file have come.
                entry.StartTime = engine.Clock.NowMs();
                return WaitBound(engine, state, sending);
            }
        }
    }

    if (sending) {
        if (state == LinkState::Transfer && engine.SendDisplayDirty.load()) {
            RefreshSendDisplay(engine);
        }
        return WaitBound(engine, state, sending);
    }
    if (state == LinkState::Transfer &&
        engine.Clock.NowMs() - engine.Call.LastRxTime.load() > StallLimitMs) {
        if (waiting != 0 && waiting < engine.Call.ExpectedBlock.load()) {
            EndStalledCall(engine, waiting);
        } else {
            EndCall(engine, CallEnd::TransferStalled, std::to_string(waiting));
            engine.Call.LastRxTime = engine.Clock.NowMs();
        }
        return std::nullopt;
    }
    if (state == LinkState::Transfer && engine.ReceiveDisplayDirty.load()) {
        RefreshReceiveDisplay(engine);
    }
    return WaitBound(engine, state, sending);
}

void ShowHeldMessages(TransferEngine& engine) {
    std::vector<std::string> messages;
    messages.swap(engine.Marks.HeldMessages);
    for (const std::string& text : messages) {
        ShowMessageBox(text);
    }
}

// One pass of the communications thread. It holds the port's read side for
// the whole pass, and gives it up whenever another thread asks for it: such
// a thread clears LinePollingEnabled and interrupts the wait first.
void CommPass(TransferEngine& engine) {
    std::unique_lock<std::recursive_mutex> portGuard(engine.Line->PortReadLock);
    if (engine.Line->AdapterFound.load() == 0 || engine.Line->LinePollingEnabled.load() == 0) {
        portGuard.unlock();
        engine.Line->WaitForPortWake(LongestWaitMs);
        return;
    }
    engine.Marks.InsidePass = std::this_thread::get_id();
    const std::optional<int> waitMs = PassWork(engine);
    if (waitMs && engine.CommThreadRun.load()) {
        engine.Line->WaitForPortInput(*waitMs);
    }
    engine.Marks.InsidePass = std::thread::id();
    portGuard.unlock();
    ShowHeldMessages(engine);
}

}  // namespace

void ShowMessageOutsidePass(TransferEngine& engine, const std::string& text) {
    if (engine.Marks.InsidePass.load() == std::this_thread::get_id()) {
        engine.Marks.HeldMessages.push_back(text);
    } else {
        ShowMessageBox(text);
    }
}

void SetEngineLine(TransferEngine& engine, line::Line& line) {
    engine.Line = &line;
}

void EngineStartup(TransferEngine& engine, Installation& stores) {
    engine.Installed = &stores;
    if (engine.WireList == nullptr) {
        engine.WireList = std::make_unique<WireFileEntry[]>(ListCapacity);
    }
    engine.SendList.Allocate();
    if (engine.ReceiveList == nullptr) {
        engine.ReceiveList = std::make_unique<FileEntry[]>(ListCapacity);
    }
    if (engine.WorkingSection == nullptr) {
        engine.WorkingSection = std::make_unique<uint8_t[]>(SectionWireBytes);
    }
    if (engine.StagedSection == nullptr) {
        engine.StagedSection = std::make_unique<uint8_t[]>(SectionWireBytes);
    }
    engine.OutHeader = MakeSessionHeader(0, 0);
    engine.RecoveryRecord = MakeRecoveryMessage(TokenFileRecovr, RecoveryBody{});
    LoadResumeCandidate(engine);
}

void EngineShutdown(TransferEngine& engine) {
    // A file that was still on its way can no longer be finished once the
    // program has gone; the one kept for a resume stays for the next start.
    DiscardUnfinishedFiles(engine);
    engine.WireList.reset();
    engine.SendList.Free();
    engine.ReceiveList.reset();
    engine.WorkingSection.reset();
    engine.StagedSection.reset();
}

unsigned CommThread(void* parameter) {
    TransferEngine& engine = *static_cast<TransferEngine*>(parameter);
    engine.Marks.CommThread = std::this_thread::get_id();
    while (engine.CommThreadRun.load()) {
        CommPass(engine);
    }
    // A thread made later may be given this id again.
    engine.Marks.CommThread = std::thread::id();
    return 0;
}

ThreadHandle StartCommThread(TransferEngine& engine) {
    engine.CommThreadRun = true;
    return StartThread(CommThread, &engine, ThreadPriority::Normal, false);
}

void StopCommThread(TransferEngine& engine) {
    engine.CommThreadRun = false;
}

std::time_t TakeTransferStart(TransferEngine& engine) {
    return engine.Call.TransferStartTime.exchange(0);
}

}  // namespace kb::engine
