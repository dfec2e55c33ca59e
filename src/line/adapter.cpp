#include "line/adapter.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>

#include "line/comm_port.h"
#include "line/line.h"
#include "line/port_speed.h"
#include "line/profiles.h"
#include "platform/clock.h"
#include "platform/key_state.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/installation.h"

namespace kb::line {

using namespace kb::platform;

namespace {

constexpr int16_t ReplyLimitMs = 4000;
constexpr int16_t ShortReplyLimitMs = 1000;

constexpr int LastSearchedPort = 4;
constexpr uint32_t SearchSpeed = 9600;
constexpr uint32_t TopSpeed = 230400;

// How the adapter on a port answered.
enum class PortAnswer {
    Nothing,        // no adapter answered
    AtSpeed,        // it answers at the speed the search asked for
    SwitchedToTop,  // it answers at 230400 bps alone, where only its switch holds it
};

bool BufferHolds(Line& line, const char* mark) {
    return std::strstr(line.TokenBuffer, mark) != nullptr;
}

AdapterSearch AdapterNotFound(Line& line) {
    ShowMessageBox(NoAdapterMessage);
    line.Stores.Log.Add("ISDN TA not found.");
    return AdapterSearch::NotFound;
}

// The adapter has been found and the port stands at its working speed: the
// incoming profile goes out and the communications thread takes the port up.
AdapterSearch AdapterReady(Line& line) {
    const bool listening = line.InitializeIncoming();
    line.SetLinePolling(true);
    return listening ? AdapterSearch::WaitingForCalls : AdapterSearch::ProfileRefused;
}

// The identification, with a limit of its own on the answer to the first
// command: on the port opened anew, or on the port as it stands.
bool Identify(Line& line, int16_t firstReplyLimitMs);
bool IdentifyOnOpenPort(Line& line, int16_t firstReplyLimitMs);

// The pause before an escape on an adapter whose family is not known yet: the
// longest that any family needs.
uint32_t LongestEscapePauseMs() {
    uint32_t longest = 0;
    for (const int16_t model : {ModelBitSURFR, ModelAdTran, ModelZyXEL, Model3Com}) {
        longest = std::max(longest, FamilyOf(model).EscapePauseMs);
    }
    return longest;
}

// An adapter still in the call of a program that was killed in it: one that
// ignores DTR, as every profile of ours sets it, keeps its call when the port
// closes. It then answers nothing, and whatever is said to it goes to the far
// end as data. The escape takes it to command mode, after a pause in which
// nothing is sent, and ATH ends the call; the far end then hears NO CARRIER
// from its own adapter. Its answers come behind whatever data the call still
// brings. The escape goes out at the port's speed; ATH, which the adapter
// reads at a speed it understands, at that speed and then at the one given.
// Returns the speed at which the adapter is back in command mode; none if it
// did not answer.
std::optional<uint32_t> HangUpLeftCall(Line& line, uint32_t otherSpeed, uint32_t pauseMs) {
    if (line.Port() == nullptr || !line.Port()->IsOpen.load()) {
        return std::nullopt;
    }
    PortConversation conversation(line);
    line.Clock.SleepMs(pauseMs);
    line.SendBytes("+++", 3);
    const std::optional<size_t> escape =
        line.DrainUntilAny({"\r\nOK\r\n", "NO CARRIER"}, EscapeReplyLimitMs);
    if (!escape) {
        return std::nullopt;
    }
    const uint32_t portSpeed = line.Port()->BaudRate.load();
    if (*escape == 1) {
        return portSpeed;  // the far end has ended the call meanwhile
    }
    for (const uint32_t speed : {portSpeed, otherSpeed}) {
        if (!line.SetPortSpeed(speed)) {
            continue;
        }
        line.SendCommand("ATH");
        if (line.DrainUntilAny({"\r\nOK\r\n", "NO CARRIER"}, HangUpReplyLimitMs)) {
            line.Stores.Log.Add("Hung up a call left on the ISDN TA.");
            return speed;
        }
    }
    return std::nullopt;
}

// A BitSURFR or a 3Com stays at 230400 bps, where it answers nothing at the
// speeds of the search, until its closing command or a power cycle; so does an
// AdTran whose switch is set there. Found at that speed, the first two are
// told to go back to 115200 and identified again at the speed asked for.
PortAnswer FindAtTopSpeed(Line& line, uint32_t speed) {
    line.SelectPortBaud(TopSpeed);
    // An adapter at this speed answers at once; this is a second look, not
    // the search's own.
    if (!Identify(line, ShortReplyLimitMs)) {
        return PortAnswer::Nothing;
    }
    line.Stores.Log.Add("ISDN TA found at 230400 bps.");
    if (CurrentFamily(line.Stores.Prefs).Speed == SpeedMove::DipSwitch) {
        return PortAnswer::SwitchedToTop;
    }
    // The port stays open: a purge could throw away the command back before
    // the adapter has it all.
    line.ReturnAdapterTo115200();
    return line.SetPortSpeed(speed) && IdentifyOnOpenPort(line, ReplyLimitMs) ? PortAnswer::AtSpeed
                                                                              : PortAnswer::Nothing;
}

// Looks for the adapter on the selected port, at the speed given: there
// first, as the search always has, then at 230400 bps, then behind a call
// that it may still hold.
PortAnswer FindOnPort(Line& line, uint32_t speed, uint32_t escapePauseMs) {
    line.SelectPortBaud(speed);
    if (line.IdentifyAdapter()) {
        return PortAnswer::AtSpeed;
    }
    if (line.Port() == nullptr || !line.Port()->IsOpen.load()) {
        return PortAnswer::Nothing;  // no device there to ask
    }
    // What follows runs with RTS/CTS, as all work after a first exchange
    // does: the data of a call that the adapter may still hold would stop the
    // port's output at its first XOFF byte, for good once the port's input
    // has filled up behind it.
    if (!line.SetPortSpeed(speed)) {
        return PortAnswer::Nothing;
    }
    const PortAnswer atTop = FindAtTopSpeed(line, speed);
    if (atTop != PortAnswer::Nothing) {
        return atTop;
    }
    const std::optional<uint32_t> answeredAt = HangUpLeftCall(line, speed, escapePauseMs);
    if (!answeredAt) {
        return PortAnswer::Nothing;
    }
    if (answeredAt == TopSpeed) {
        return FindAtTopSpeed(line, speed);
    }
    line.SelectPortBaud(speed);
    return line.IdentifyAdapter() ? PortAnswer::AtSpeed : PortAnswer::Nothing;
}

// An AdTran that answers only at 230400 bps has its switch set there, by the
// user: the speed is taken as the switch holds it.
AdapterSearch AtSwitchedTopSpeed(Line& line) {
    line.Stores.Prefs.MaxPortSpeed = TopSpeed;
    line.Stores.Prefs.SelectedPortSpeed = TopSpeed;
    line.SpeedClass.store(2);
    line.Stores.Log.Add("Port speed set to 230400 bps.");
    return AdapterReady(line);
}

AdapterSearch FullSearch(Line& line) {
    for (int port = 1; port <= LastSearchedPort; ++port) {
        line.SelectPortNumber(static_cast<uint8_t>(port));
        line.Stores.Log.Add("Searching Comm Port " + std::to_string(port));
        const PortAnswer answer = FindOnPort(line, SearchSpeed, LongestEscapePauseMs());
        if (answer == PortAnswer::Nothing) {
            line.CommPortClose();
            continue;
        }
        line.Stores.Prefs.ComPort = static_cast<int16_t>(port);
        if (answer == PortAnswer::SwitchedToTop) {
            return AtSwitchedTopSpeed(line);
        }
        line.QualifyPortSpeed();
        if (line.Stores.Prefs.MaxPortSpeed == 230400) {
            // An adapter moved only by its switch stays at 115200 until the
            // user has moved it.
            line.Stores.Prefs.SelectedPortSpeed =
                CurrentFamily(line.Stores.Prefs).Speed == SpeedMove::DipSwitch ? 115200 : 230400;
        }
        return AdapterReady(line);
    }
    return AdapterNotFound(line);
}

// An adapter moved to 230400 by its switch answers nothing at the search
// speed, so it is taken as saved and brought straight to its top speed.
AdapterSearch DipSwitchStart(Line& line) {
    if (!line.CommPortOpen()) {
        // Nothing answers and nothing is said: the port the saved search
        // named is not there.
        return AdapterSearch::NotFound;
    }
    line.Stores.Prefs.MaxPortSpeed = 230400;
    line.Stores.Prefs.SelectedPortSpeed = 230400;
    line.AdapterFound.store(true);
    line.SpeedClass.store(2);
    line.ResumeTopSpeed();
    line.Stores.Log.Add("Port speed set to 230400 bps.");
    const auto answers = [&line] {
        std::memset(line.TokenBuffer, 0, TokenBufferSize);
        return line.SendAndWaitOk("atv1") && line.EnableHardwareHandshake() &&
               line.SendAndWaitOkShort("ati0");
    };
    if (!answers() &&
        (!HangUpLeftCall(line, TopSpeed, CurrentFamily(line.Stores.Prefs).EscapePauseMs) ||
         !answers())) {
        return AdapterSearch::NotFound;
    }
    return AdapterReady(line);
}

AdapterSearch QuickStart(Line& line) {
    line.SelectPortNumber(static_cast<uint8_t>(line.Stores.Prefs.ComPort));
    if (FamilyOf(line.Stores.Prefs.AdapterModel).Speed == SpeedMove::DipSwitch &&
        line.Stores.Prefs.SelectedPortSpeed == 230400) {
        return DipSwitchStart(line);
    }
    const uint32_t maxSpeed = line.Stores.Prefs.MaxPortSpeed;
    switch (FindOnPort(line, maxSpeed == 230400 ? 115200 : maxSpeed,
                       CurrentFamily(line.Stores.Prefs).EscapePauseMs)) {
        case PortAnswer::Nothing:
            return AdapterNotFound(line);
        case PortAnswer::SwitchedToTop:
            return AtSwitchedTopSpeed(line);
        case PortAnswer::AtSpeed:
            break;
    }
    line.SpeedClass.store(maxSpeed <= 57600 ? 1 : 2);
    if (maxSpeed == 230400 && line.Stores.Prefs.SelectedPortSpeed == 230400) {
        line.ResumeTopSpeed();
        line.Stores.Log.Add("Port speed set to 230400 bps.");
    } else if (maxSpeed == 230400) {
        line.Stores.Log.Add("Port speed set to 115200 bps.");
    } else {
        line.Stores.Log.Add("Port speed set to " + std::to_string(maxSpeed) + " bps.");
    }
    return AdapterReady(line);
}

bool ExchangeWithAdapter(Line& line, const char* command, int16_t limitMs) {
    PortConversation conversation(line);
    line.SendCommand(command);
    return line.ReadUntilOk(limitMs, line.TokenBuffer) != nullptr;
}

}  // namespace

void Line::SetLinePolling(bool enabled) {
    {
        std::lock_guard<std::mutex> guard(handoverLock_);
        if (conversationsUnderWay_ > 0) {
            pollingAfterConversations_ = enabled;
            return;
        }
        LinePollingEnabled.store(enabled);
    }
    InterruptPortWait();
}

PortConversation::PortConversation(Line& line) : line_(line) {
    {
        std::lock_guard<std::mutex> guard(line_.handoverLock_);
        if (line_.conversationsUnderWay_++ == 0) {
            line_.pollingAfterConversations_ = line_.LinePollingEnabled.exchange(false);
        }
    }
    // The communications thread may be waiting for input with the flag seen
    // set; waking it makes it look again and give the port up.
    line_.InterruptPortWait();
    line_.PortReadLock.lock();
}

PortConversation::~PortConversation() {
    line_.PortReadLock.unlock();
    bool restored = false;
    {
        std::lock_guard<std::mutex> guard(line_.handoverLock_);
        if (--line_.conversationsUnderWay_ == 0) {
            restored = line_.pollingAfterConversations_;
            line_.LinePollingEnabled.store(restored);
        }
    }
    if (restored) {
        // The communications thread idles while polling is off; wake it so
        // that it takes the port up again at once.
        line_.InterruptPortWait();
    }
}

bool Line::SendAndWaitOk(const char* command) {
    return ExchangeWithAdapter(*this, command, ReplyLimitMs);
}

bool Line::SendAndWaitOkShort(const char* command) {
    return ExchangeWithAdapter(*this, command, ShortReplyLimitMs);
}

bool Line::ProtocolOffered(LineProtocol protocol) const {
    switch (protocol) {
        case ProtocolV120:
            return true;
        case ProtocolAimux:
            return CurrentFamily(Stores.Prefs).OffersAimux && SpeedClass.load() >= 2;
        case ProtocolX75:
            return CurrentProduct(Stores.Prefs).OffersX75;
    }
    return false;
}

bool Line::IdentifyAdapter() {
    return Identify(*this, ReplyLimitMs);
}

namespace {

bool Identify(Line& line, int16_t firstReplyLimitMs) {
    line.CommPortClose();
    if (!line.CommPortOpen()) {
        return false;
    }
    return IdentifyOnOpenPort(line, firstReplyLimitMs);
}

bool IdentifyOnOpenPort(Line& line, int16_t firstReplyLimitMs) {
    // The replies are taken apart in TokenBuffer, so no other reader may
    // come between an exchange and the tests on it.
    PortConversation conversation(line);
    std::memset(line.TokenBuffer, 0, TokenBufferSize);
    if (!ExchangeWithAdapter(line, "atv1", firstReplyLimitMs) || !line.EnableHardwareHandshake() ||
        !line.SendAndWaitOkShort("ati0")) {
        return false;
    }
    // The marks are tested in this order; the first family that matches
    // is the adapter.
    if (BufferHolds(line, "960")) {
        if (!line.SendAndWaitOk("ati8")) {
            return false;
        }
        line.Stores.Prefs.AdapterModel = ModelBitSURFR;
        if (!BufferHolds(line, "BitSURFR")) {
            return false;
        }
        line.AdapterFound.store(true);
        return true;
    }
    if (BufferHolds(line, "ADTRAN EXPRESS XR")) {
        line.AdapterFound.store(true);
        line.Stores.Prefs.AdapterModel = ModelAdTran;
        line.Stores.Prefs.AdapterVariant = BufferHolds(line, "ADTRAN EXPRESS XRT") ? 1 : 0;
        return true;
    }
    for (const char* mark : {"2864", "1291", "1292", "1293", "1281", "1282", "1283"}) {
        if (BufferHolds(line, mark)) {
            line.Stores.Prefs.AdapterModel = ModelZyXEL;
            if (BufferHolds(line, "2864")) {
                line.Stores.Prefs.AdapterVariant = 1;
            } else if (BufferHolds(line, "1291") || BufferHolds(line, "1292") ||
                       BufferHolds(line, "1293")) {
                line.Stores.Prefs.AdapterVariant = 2;
            } else {
                line.Stores.Prefs.AdapterVariant = 3;
            }
            line.AdapterFound.store(true);
            return true;
        }
    }
    if (BufferHolds(line, "3C882")) {
        line.Stores.Prefs.AdapterModel = Model3Com;
        line.AdapterFound.store(true);
        return true;
    }
    return false;
}

}  // namespace

AdapterSearch Line::FindAdapter() {
    const bool shiftDown = KeyIsDown(Key::Shift);
    if (Stores.Prefs.ComPort == 0 || shiftDown) {
        return FullSearch(*this);
    }
    return QuickStart(*this);
}

}  // namespace kb::line
