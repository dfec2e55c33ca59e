#include "engine/session_threads.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "engine/display.h"
#include "engine/transfer_engine.h"
#include "line/comm_port.h"
#include "platform/clock.h"

namespace kb::engine {

using namespace kb::platform;

void ReturnToIdle(TransferEngine& engine) {
    ShowLinkState(engine, LinkState::Idle);
}

void ShowLinkState(TransferEngine& engine, LinkState state) {
    std::lock_guard<std::mutex> guard(engine.Call.LinkShownLock);
    engine.Call.LinkState = state;
    Display(engine).UpdateActionButtons();
}

LinkState LinkStateAsShown(TransferEngine& engine) {
    std::lock_guard<std::mutex> guard(engine.Call.LinkShownLock);
    return engine.Call.LinkState.load();
}

void ClearSessionFlags(TransferEngine& engine) {
    engine.Call.Session.ListOffered = false;
    engine.Call.Session.SendFault = false;
    engine.Call.Session.FarEndSeenAt = engine.Clock.NowMs();
    engine.Call.Session.FarEndSeenIn = LinkState::Idle;
    engine.Call.Session.HangUpTried = false;
    engine.Line->ResetSerialLimitLine();
    engine.Call.Session.HangUpRetries = 0;
    engine.Call.Session.HangUpRetryDue = false;
    engine.Call.Session.AnswerPending = false;
    engine.Call.Session.SynconHeard = false;
}

ThreadHandle CurrentFeederHandle(TransferEngine& engine) {
    std::lock_guard<std::mutex> guard(engine.Threads.HandlesLock);
    return engine.Threads.SessionFeeder;
}

bool FeederRunning(TransferEngine& engine) {
    return engine.FeederRun.load() && engine.FeederThread.load() != nullptr;
}

void WakeFeeder(TransferEngine& engine) {
    WakeThread(engine.FeederThread.load());
}

void StopFeeder(TransferEngine& engine) {
    engine.FeederRun = false;
    const ThreadHandle parked = engine.FeederThread.exchange(nullptr);
    WakeThread(parked);

    ThreadHandle feeder;
    {
        std::lock_guard<std::mutex> guard(engine.Threads.HandlesLock);
        feeder = engine.Threads.SessionFeeder;
    }
    if (!feeder) {
        return;
    }
    const ThreadHandle writer = engine.WriterThread.load();
    // A block that the far end holds back would keep the writer, and so this
    // wait, for as long as it pleases; the session is over, so cut it off.
    if (writer && !ThreadFinished(writer) && !engine.WriterIdle.load()) {
        engine.Line->PurgePort();
    }
    JoinThread(feeder);
    JoinThread(engine.WriterThread.load());
    {
        std::lock_guard<std::mutex> guard(engine.Threads.HandlesLock);
        if (engine.Threads.SessionFeeder == feeder) {
            engine.Threads.SessionFeeder = nullptr;
        }
    }
    engine.WriterThread.store(nullptr);
    engine.Threads.FeederInStep = 0;
}

bool FeederEnterStep(TransferEngine& engine) {
    engine.Threads.FeederInStep.store(1);
    if (engine.Call.LinkState.load() != LinkState::Transfer || !engine.FeederRun.load()) {
        FeederLeaveStep(engine);
        return false;
    }
    return true;
}

void FeederLeaveStep(TransferEngine& engine) {
    {
        std::lock_guard<std::mutex> guard(engine.Threads.StepLock);
        engine.Threads.FeederInStep.store(0);
    }
    engine.Threads.StepLeft.notify_all();
}

void WaitFeederOutOfStep(TransferEngine& engine) {
    std::unique_lock<std::mutex> guard(engine.Threads.StepLock);
    engine.Threads.StepLeft.wait(guard, [&] { return engine.Threads.FeederInStep.load() == 0; });
}

bool WaitFeederFileSent(TransferEngine& engine, int limitMs) {
    std::unique_lock<std::mutex> guard(engine.Threads.StepLock);
    engine.Threads.StepLeft.wait_for(guard, std::chrono::milliseconds(limitMs), [&] {
        return engine.Call.LinkState.load() != LinkState::Transfer &&
               engine.Threads.FeederInStep.load() == 0;
    });
    return engine.Call.LinkState.load() == LinkState::FileSent &&
           engine.Threads.FeederInStep.load() == 0;
}

}  // namespace kb::engine
