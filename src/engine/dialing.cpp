// Placing a call, and the adapter's result codes on both sides up to the
// moment the data channel is up.

#include "engine/dialing.h"

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "engine/call_end.h"
#include "engine/comm_pass.h"
#include "engine/display.h"
#include "engine/pickup.h"
#include "engine/session_threads.h"
#include "engine/token_lines.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "line/profiles.h"
#include "platform/clock.h"
#include "platform/message_box.h"

namespace kb::engine {

using namespace kb::line;
using namespace kb::platform;

namespace {

constexpr int16_t LineLimitMs = 750;
constexpr int16_t RingDrainQuietMs = 100;
constexpr uint32_t AnswerPauseMs = 500;
// How long an answer waits for its result before a RING may be answered
// again: the longest any reply of the adapter takes.
constexpr uint32_t AnswerResultLimitMs = 4000;

// The codes of the carrier list, by row: Default, AT&T, MCI, Sprint.
constexpr std::array<const char*, 4> CarrierCodes{"", "10288", "10222", "10333"};

struct ConnectCode {
    const char* Text;
    const char* LogLine;
};
// The adapter's answers that end a dial, and how each ends it.
struct DialEnd {
    std::string_view Text;
    std::string_view OrText;  // another spelling of the same answer, or empty
    CallEnd Reason;
};
constexpr std::array<DialEnd, 3> DialEnds{{
    {TextNoCarrier, {}, CallEnd::DialNoCarrier},
    {"BUSY", {}, CallEnd::DialBusy},
    {"NO DIALTONE", "NO DIAL TONE", CallEnd::DialNoDialtone},
}};

constexpr std::array<ConnectCode, 3> ConnectCodes{{
    {"CONNECT 57600", "Connected 57600"},
    {"CONNECT 115200", "Connected 115200"},
    {"CONNECT 230400", "Connected 230400"},
}};

void Connected(TransferEngine& engine, const ConnectCode& code) {
    engine.Stores().Log.Add(code.LogLine);
    ClearSessionFlags(engine);
    ShowLinkState(engine, LinkState::Connected);
    if (engine.Call.Role.load() == Role::Sender) {
        SendToken(engine, TokenSyncon);
    } else {
        // The caller speaks first; its silence is timed from here.
        engine.Call.LastRxTime = engine.Clock.NowMs();
    }
}

}  // namespace

std::string DialString(const std::string& number, int carrierRow) {
    std::string digits;
    for (const char c : number) {
        if ((c >= '0' && c <= '9') || c == '+' || c == '&') {
            digits += c;
        }
    }
    const std::string code = carrierRow >= 0 && carrierRow < static_cast<int>(CarrierCodes.size())
                                 ? CarrierCodes[static_cast<size_t>(carrierRow)]
                                 : "";
    size_t separator = digits.find('+');
    if (separator == std::string::npos) {
        separator = digits.find('&');
    }
    if (separator == std::string::npos) {
        return "ATD" + code + digits;
    }
    return "ATD" + code + digits.substr(0, separator) + digits[separator] + code +
           digits.substr(separator + 1);
}

void PlaceCall(TransferEngine& engine, const CallRequest& call) {
    if (call.Number.empty()) {
        ShowMessageBox("Please select a correspondent in your Directory.");
        return;
    }
    // Without an adapter nothing would ever answer the dial, and the link
    // would wait in LinkState::Dialing for good; the user hears why instead.
    if (!engine.Line->AdapterFound.load()) {
        ShowMessageBox(NoAdapterMessage);
        return;
    }
    // The adapter's answer to the dial is read only once the link stands in
    // LinkState::Dialing, however quickly it comes.
    PortConversation conversation(*engine.Line);
    engine.Line->InitializeOutgoing(call.Line);
    engine.Line->SendCommand(DialString(call.Number, call.CarrierRow).c_str());
    engine.Stores().Log.Add("Calling " + call.Name);
    engine.Stores().Log.Add("at " + call.Number);
    ClearSessionFlags(engine);
    ShowLinkState(engine, LinkState::Dialing);
    engine.Call.Role = Role::Sender;
}

void HandleLineEvent(TransferEngine& engine) {
    std::memset(engine.Line->TokenBuffer, 0, TokenBufferSize);
    if (engine.Line->ReadLine(LineLimitMs, engine.Line->TokenBuffer) == nullptr) {
        return;
    }
    const std::string line(engine.Line->TokenBuffer);
    if (LineHolds(line, "RINGING")) {
        return;
    }
    if (LineHolds(line, "RING")) {
        // A ring that came while the answer waited, or rings on while it
        // connects, is no new call: the one "ATA" answers whichever call
        // rings when it arrives, a caller that gave up meanwhile leaving it
        // to the next, and a second "ATA" would reach that caller as data
        // once the first has connected. It is not answered, and nothing is
        // thrown away after it, since the answer's result is on its way.
        if (engine.Call.Session.AnswerPending.load() &&
            engine.Clock.NowMs() - engine.Call.Session.AnsweredAt.load() < AnswerResultLimitMs) {
            return;
        }
        engine.Line->DrainInput(RingDrainQuietMs);
        ClearHotFolderCounters(engine);
        engine.Clock.SleepMs(AnswerPauseMs);
        engine.Line->SendCommand("ATA");
        engine.Call.Session.AnsweredAt = engine.Clock.NowMs();
        engine.Call.Session.AnswerPending = true;
        return;
    }
    for (const ConnectCode& code : ConnectCodes) {
        if (LineHolds(line, code.Text)) {
            Connected(engine, code);
        }
    }
    for (const DialEnd& end : DialEnds) {
        if (LineHoldsEither(line, end.Text, end.OrText)) {
            EndCall(engine, end.Reason);
        }
    }
}

void OnSendClicked(TransferEngine& engine, const CallRequest& call) {
    engine.Call.RetrievePending = false;
    engine.PickupSend = false;
    PlaceCall(engine, call);
}

void OnRetrieveClicked(TransferEngine& engine, const CallRequest& call) {
    engine.Call.RetrievePending = true;
    PlaceCall(engine, call);
}

void SendHotFolder(TransferEngine& engine, const CallRequest& call) {
    engine.PickupSend = true;
    engine.Call.RetrievePending = false;
    PlaceCall(engine, call);
}

}  // namespace kb::engine
