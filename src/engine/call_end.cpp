// The table of the ends of a call, and the one way out that follows it.
//
// Whoever ends a call from outside the communications thread takes the port
// for the whole of it (a PortConversation), so the handlers of that thread
// are never under way meanwhile and the receive list, the token buffer and
// the send list are this thread's alone until it is done.

#include "engine/call_end.h"

#include <array>
#include <string>

#include "engine/comm_pass.h"
#include "engine/display.h"
#include "engine/session_threads.h"
#include "engine/sessions.h"
#include "engine/teardown.h"
#include "engine/token_lines.h"
#include "engine/transfer_engine.h"
#include "line/comm_port.h"
#include "platform/clock.h"

namespace kb::engine {

using namespace kb::line;
using namespace kb::platform;

namespace {

// How an end is brought about.
enum class Way {
    // By the state the link is in: a dial is broken off, a call without data
    // ends with "AT" or a hang-up, a receiver in the middle of the data asks
    // the sender to stop with ABORT (the sender's hang-up or the silence
    // limit then ends the call), and a sender stops its data and hangs up.
    Ask,
    // The escape and ATH. An adapter that does not answer leaves the call up,
    // for the sending side's retries or the receiving side's limits to end.
    HangUp,
    // As HangUp, but the call is over for this end even when the adapter
    // does not answer.
    HangUpAnyway,
    // The line has gone already: only the tidying is left.
    Tidy,
    // No call came about: the adapter takes the incoming profile again.
    DialFailed,
};

// What the sending side's part is before the end is brought about.
enum class Before {
    Nothing,
    // Its list is through: the link stands with no data, the list goes and
    // so do its threads.
    ListThrough,
    // The asker of a retrieve, which is the receiving side for the holder's
    // answer, ends the call as a sender does: it hangs up, and tries again
    // when the adapter does not answer.
    TakeSendersPart,
};

struct EndRow {
    CallEnd Reason;
    // The first line in the log, before anything is done, or none; a row
    // whose line has a detail is followed by EndCall's.
    const char* Says;
    Before First;
    Way By;
    // The adapter has just reported NO CARRIER: the time of a transfer is
    // told always, and the incoming profile waits until the adapter is back
    // in command mode.
    bool LineLost;
    // Said by a sender whose line fell under a block, which it cuts off
    // rather than wait for a far end that is gone.
    const char* UnderBlock;
    // A rule of dashes below "Disconnected".
    bool Rule;
    // The file in hand goes back to its start whatever the link's state.
    bool Rewind;
    // A message for the user, once the adapter has its profile again.
    const char* Message;
};

constexpr const char* Rule = "------------------------------";

// In the order of the enum; RowOf checks it.
constexpr std::array<EndRow, 19> Ends{{
    // clang-format off
    //  reason                          says                            before                  by                 lost   under block                     rule   rewind message
    {CallEnd::Requested,           nullptr,                        Before::Nothing,        Way::Ask,          false, nullptr,                        false, false, nullptr},
    {CallEnd::Fault,               nullptr,                        Before::Nothing,        Way::Ask,          false, nullptr,                        false, false, nullptr},
    {CallEnd::FarEndAborted,       "Received abort request.",      Before::Nothing,        Way::Ask,          false, nullptr,                        false, false, nullptr},
    {CallEnd::FarEndNotResponding, "Remote end not responding.",   Before::Nothing,        Way::Ask,          false, nullptr,                        false, false, nullptr},
    {CallEnd::Silence,             nullptr,                        Before::Nothing,        Way::Ask,          false, nullptr,                        false, false, nullptr},
    {CallEnd::TransferStalled,     "Bytes Read: ",                 Before::Nothing,        Way::Ask,          false, nullptr,                        false, false, nullptr},
    {CallEnd::BlockCutOff,         nullptr,                        Before::Nothing,        Way::Tidy,         false, nullptr,                        false, false, nullptr},
    {CallEnd::BlockStalled,        nullptr,                        Before::Nothing,        Way::HangUpAnyway, false, nullptr,                        false, false, nullptr},
    {CallEnd::AllSent,             "All files sent.",              Before::ListThrough,    Way::HangUp,       false, nullptr,                        false, false, nullptr},
    {CallEnd::NoRetrieveFolder,    "No retrieve folder found.",    Before::TakeSendersPart, Way::HangUp,      false, nullptr,                        false, false, nullptr},
    {CallEnd::NoFilesToRetrieve,   "No files to be retrieved.",    Before::TakeSendersPart, Way::HangUp,      false, nullptr,                        false, false, nullptr},
    {CallEnd::ListRefusedNoSpace,  "The far end refused the list: not enough free space.", Before::Nothing, Way::HangUp, false, nullptr,          false, false, nullptr},
    {CallEnd::ListRefusedCorrupt,  "The far end refused the list as corrupted.",           Before::Nothing, Way::HangUp, false, nullptr,          false, false, nullptr},
    {CallEnd::HungUp,              nullptr,                        Before::Nothing,        Way::Tidy,         false, nullptr,                        false, false, nullptr},
    {CallEnd::SenderLostLine,      nullptr,                        Before::Nothing,        Way::Tidy,         true,  "Remote end aborted transfer.", true,  true,  nullptr},
    {CallEnd::ReceiverLostLine,    nullptr,                        Before::Nothing,        Way::Tidy,         true,  nullptr,                        false, false, nullptr},
    {CallEnd::DialNoCarrier,       "Disconnected",                 Before::Nothing,        Way::DialFailed,   true,  nullptr,                        false, false, nullptr},
    {CallEnd::DialBusy,            "Busy",                         Before::Nothing,        Way::DialFailed,   false, nullptr,                        false, false, nullptr},
    {CallEnd::DialNoDialtone,      "No Dialtone.",                 Before::Nothing,        Way::DialFailed,   false, nullptr,                        false, false,
     "Cannot place an outgoing data call.\rPlease make sure your ISDN line is properly connected."},
    // clang-format on
}};

constexpr bool TableInEnumOrder() {
    for (size_t i = 0; i < Ends.size(); ++i) {
        if (static_cast<size_t>(Ends[i].Reason) != i) {
            return false;
        }
    }
    return true;
}
static_assert(TableInEnumOrder(), "every kind of end has its row, in the enum's order");
static_assert(Ends.size() == static_cast<size_t>(CallEnd::DialNoDialtone) + 1,
              "every kind of end has its row");

const EndRow& RowOf(CallEnd reason) {
    return Ends[static_cast<size_t>(reason)];
}

// The link is idle again and nothing of the call or dial is left over.
void BackToIdle(TransferEngine& engine) {
    engine.Call.Role = Role::Receiver;
    // A retrieve asked for in this call is over with it, however it ended: a
    // station that kept it would not answer the next correspondent's.
    engine.Call.RetrievePending = false;
    ClearSessionFlags(engine);
    ReturnToIdle(engine);
}

// After the end of a call that was up: the adapter gets its incoming
// profile again, the lists are tidied and the link is idle.
void TidyCall(TransferEngine& engine, const EndRow& row) {
    ForgetUnfinishedLine(engine);
    EngineWindow& display = Display(engine);
    const LinkState state = engine.Call.LinkState.load();
    const bool sending = engine.Call.Role.load() == Role::Sender;
    if (sending) {
        if (row.UnderBlock != nullptr && state == LinkState::Transfer) {
            engine.Stores().Log.Add(row.UnderBlock);
            engine.FeederRun = false;
            engine.Line->PurgePort();
        }
        StopFeeder(engine);
    }
    engine.Stores().Log.Add("Disconnected");
    display.ShowTransferDisplay(false);
    // A hang-up in the middle of the data says nothing of the time taken; a
    // lost line tells it always, as far as a transfer had begun.
    if (row.LineLost || state == LinkState::Connected || state == LinkState::FileSent) {
        display.LogElapsedTime();
    }
    // A transfer whose time goes untold is over all the same: a later call
    // that ends before its own transfer began must not tell this one's.
    engine.Call.TransferStartTime = 0;
    if (row.Rule) {
        engine.Stores().Log.Add(Rule);
    }
    if (row.LineLost) {
        // The adapter has just printed NO CARRIER; the incoming profile goes
        // once it is back in command mode.
        engine.Clock.SleepMs(50);
    }
    // The file in hand goes back to its start, so that the next offer sends
    // it whole or from the receiver's position; also when the call ended
    // while its ACK was awaited.
    if (state == LinkState::Transfer || state == LinkState::Recovery ||
        (sending && state == LinkState::FileSent) || row.Rewind) {
        ResetSendPosition(engine);
    }
    engine.Line->ReinitializeIncoming();
    if (!sending) {
        EndOfCallCleanup(engine);
    }
    BackToIdle(engine);
}

// After a dial that came to nothing; the list stays for another try.
void TidyDial(TransferEngine& engine, const EndRow& row) {
    if (row.LineLost) {
        engine.Clock.SleepMs(50);
    }
    engine.Line->ReinitializeIncoming();
    if (row.Message != nullptr) {
        ShowMessageOutsidePass(engine, row.Message);
    }
    BackToIdle(engine);
}

void StopFeederIfSending(TransferEngine& engine) {
    if (engine.Call.Role.load() == Role::Sender) {
        StopFeeder(engine);
    }
}

void AskForTheEnd(TransferEngine& engine) {
    if (engine.Call.LinkState.load() == LinkState::Dialing) {
        // One blank breaks off the dial; the adapter's answer ends it.
        engine.Line->SendBytes(" ", 1);
        return;
    }
    PortConversation conversation(*engine.Line);
    const LinkState state = engine.Call.LinkState.load();
    const bool sending = engine.Call.Role.load() == Role::Sender;
    switch (state) {
        case LinkState::Connected:
            // "AT" answered means the adapter is in command mode already, so
            // the call has gone; silence means it is still up.
            if (engine.Line->SendAndWaitOk("AT")) {
                EndCall(engine, CallEnd::HungUp);
            } else {
                EndCallByHangUp(engine);
            }
            break;
        case LinkState::Transfer:
        case LinkState::FileSent:
        case LinkState::Recovery:
            if (!sending) {
                engine.Stores().Log.Add("Sending disconnect...");
                SendToken(engine, TokenAbort);
                engine.Call.LinkState = LinkState::Connected;
            } else {
                StopFeeder(engine);
                EndCallByHangUp(engine);
            }
            break;
        default:
            StopFeederIfSending(engine);
            EndCallByHangUp(engine);
            break;
    }
}

}  // namespace

void EndCall(TransferEngine& engine, CallEnd reason, std::string_view detail) {
    const EndRow& row = RowOf(reason);
    if (row.Says != nullptr) {
        engine.Stores().Log.Add(std::string(row.Says) + std::string(detail));
    }
    switch (row.First) {
        case Before::Nothing:
            break;
        case Before::ListThrough:
            engine.Call.LinkState = LinkState::Connected;
            engine.SendList.Clear();
            StopFeeder(engine);
            break;
        case Before::TakeSendersPart:
            engine.Call.Role = Role::Sender;
            break;
    }
    switch (row.By) {
        case Way::Ask:
            AskForTheEnd(engine);
            break;
        case Way::HangUp:
            EndCallByHangUp(engine);
            break;
        case Way::HangUpAnyway:
            if (!HangUp(engine)) {
                TidyCall(engine, row);
            }
            break;
        case Way::Tidy:
            TidyCall(engine, row);
            break;
        case Way::DialFailed:
            TidyDial(engine, row);
            break;
    }
}

}  // namespace kb::engine
