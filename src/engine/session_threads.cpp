#include "engine/session_threads.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "engine/display.h"
#include "engine/transfer_engine.h"
#include "line/comm_port.h"
#include "platform/clock.h"

namespace {

SessionThreads& Threads() {
    return TheEngine.Threads;
}

}  // namespace

void ReturnToIdle() {
    ShowLinkState(LinkState::Idle);
}

void ShowLinkState(LinkState state) {
    std::lock_guard<std::mutex> guard(TheEngine.Call.LinkShownLock);
    TheEngine.Call.LinkState = state;
    Display().UpdateActionButtons();
}

LinkState LinkStateAsShown() {
    std::lock_guard<std::mutex> guard(TheEngine.Call.LinkShownLock);
    return TheEngine.Call.LinkState.load();
}

void ClearSessionFlags() {
    TheEngine.Call.Session.ListOffered = false;
    TheEngine.Call.Session.SendFault = false;
    TheEngine.Call.Session.FarEndSeenAt = NowMs();
    TheEngine.Call.Session.FarEndSeenIn = LinkState::Idle;
    TheEngine.Call.Session.HangUpTried = false;
    TheEngine.Line->ResetSerialLimitLine();
    TheEngine.Call.Session.HangUpRetries = 0;
    TheEngine.Call.Session.HangUpRetryDue = false;
    TheEngine.Call.Session.AnswerPending = false;
    TheEngine.Call.Session.SynconHeard = false;
}

ThreadHandle CurrentFeederHandle() {
    std::lock_guard<std::mutex> guard(Threads().HandlesLock);
    return Threads().SessionFeeder;
}

void StartSectionFeeder() {
    // A feeder of an earlier session that has been told to stop may still be
    // on its way out; it must be gone before a new one takes the shared words.
    ThreadHandle oldFeeder;
    {
        std::lock_guard<std::mutex> guard(Threads().HandlesLock);
        oldFeeder = Threads().SessionFeeder;
    }
    JoinThread(oldFeeder);
    JoinThread(TheEngine.WriterThread.load());
    TheEngine.WriterThread.store(nullptr);

    // The writer is made here rather than by the feeder, held until its first
    // block, so that its handle is written by this thread alone and is in
    // place before either of the two runs. The two hand every block to each
    // other and never need the processor at the same moment, so they share
    // one: a wake that crosses processors costs far more than one that stays.
    const int processor = CurrentProcessor();
    TheEngine.WriterRun = true;
    TheEngine.WriterIdle = true;
    TheEngine.WriterThread.store(
        StartThread(BlockWriter, nullptr, ThreadPriority::Highest, true, processor));
    // Held too, so that its own handle is in place before it first parks.
    ThreadHandle feeder =
        StartThread(SectionFeeder, nullptr, ThreadPriority::Highest, true, processor);
    {
        std::lock_guard<std::mutex> guard(Threads().HandlesLock);
        Threads().SessionFeeder = feeder;
    }
    if (!feeder || !TheEngine.WriterThread.load()) {
        TheEngine.FeederRun = false;
        TheEngine.WriterRun = false;
        WakeThread(TheEngine.WriterThread.load());
        WakeThread(feeder);
        TheEngine.Call.Session.SendFault = true;
        TheEngine.Line->InterruptPortWait();
        return;
    }
    TheEngine.FeederThread.store(feeder);
    WakeThread(feeder);
}

bool FeederRunning() {
    return TheEngine.FeederRun.load() && TheEngine.FeederThread.load() != nullptr;
}

void WakeFeeder() {
    WakeThread(TheEngine.FeederThread.load());
}

void StopFeeder() {
    TheEngine.FeederRun = false;
    const ThreadHandle parked = TheEngine.FeederThread.exchange(nullptr);
    WakeThread(parked);

    ThreadHandle feeder;
    {
        std::lock_guard<std::mutex> guard(Threads().HandlesLock);
        feeder = Threads().SessionFeeder;
    }
    if (!feeder) {
        return;
    }
    const ThreadHandle writer = TheEngine.WriterThread.load();
    // A block that the far end holds back would keep the writer, and so this
    // wait, for as long as it pleases; the session is over, so cut it off.
    if (writer && !ThreadFinished(writer) && !TheEngine.WriterIdle.load()) {
        TheEngine.Line->PurgePort();
    }
    JoinThread(feeder);
    JoinThread(TheEngine.WriterThread.load());
    {
        std::lock_guard<std::mutex> guard(Threads().HandlesLock);
        if (Threads().SessionFeeder == feeder) {
            Threads().SessionFeeder = nullptr;
        }
    }
    TheEngine.WriterThread.store(nullptr);
    Threads().FeederInStep = 0;
}

bool FeederEnterStep() {
    Threads().FeederInStep.store(1);
    if (TheEngine.Call.LinkState.load() != LinkState::Transfer || !TheEngine.FeederRun.load()) {
        FeederLeaveStep();
        return false;
    }
    return true;
}

void FeederLeaveStep() {
    {
        std::lock_guard<std::mutex> guard(Threads().StepLock);
        Threads().FeederInStep.store(0);
    }
    Threads().StepLeft.notify_all();
}

void WaitFeederOutOfStep() {
    std::unique_lock<std::mutex> guard(Threads().StepLock);
    Threads().StepLeft.wait(guard, [] { return Threads().FeederInStep.load() == 0; });
}

bool WaitFeederFileSent(int limitMs) {
    std::unique_lock<std::mutex> guard(Threads().StepLock);
    Threads().StepLeft.wait_for(guard, std::chrono::milliseconds(limitMs), [] {
        return TheEngine.Call.LinkState.load() != LinkState::Transfer &&
               Threads().FeederInStep.load() == 0;
    });
    return TheEngine.Call.LinkState.load() == LinkState::FileSent &&
           Threads().FeederInStep.load() == 0;
}
