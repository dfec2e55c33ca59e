#include "line/adapter.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>

#include "line/comm_port.h"
#include "line/port_speed.h"
#include "line/profiles.h"
#include "platform/clock.h"
#include "platform/key_state.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/installation.h"

Installation* LineStores = nullptr;
std::atomic<bool> AdapterFound{false};
std::atomic<bool> LinePollingEnabled{false};
std::atomic<int16_t> SpeedClass{0};

namespace {

constexpr int16_t ReplyLimitMs = 4000;
constexpr int16_t ShortReplyLimitMs = 1000;

// The hand-over of the port. Remembering the flag in each exchange and putting
// it back at the end is not enough once two threads talk to the adapter: the
// one that started second would remember the cleared flag and leave polling
// off for good. So the conversations under way are counted, and the flag
// comes back only when the last of them ends.
std::mutex HandoverLock;
int ConversationsUnderWay = 0;
bool PollingAfterConversations = false;

constexpr int LastSearchedPort = 4;
constexpr uint32_t SearchSpeed = 9600;
constexpr uint32_t TopSpeed = 230400;

// How the adapter on a port answered.
enum class PortAnswer {
    Nothing,        // no adapter answered
    AtSpeed,        // it answers at the speed the search asked for
    SwitchedToTop,  // it answers at 230400 bps alone, where only its switch holds it
};

bool BufferHolds(const char* mark) {
    return std::strstr(TokenBuffer, mark) != nullptr;
}

AdapterSearch AdapterNotFound() {
    ShowMessageBox(NoAdapterMessage);
    LineStores->Log.Add("ISDN TA not found.");
    return AdapterSearch::NotFound;
}

// The adapter has been found and the port stands at its working speed: the
// incoming profile goes out and the communications thread takes the port up.
AdapterSearch AdapterReady() {
    const bool listening = InitializeIncoming();
    SetLinePolling(true);
    return listening ? AdapterSearch::WaitingForCalls : AdapterSearch::ProfileRefused;
}

// The identification, with a limit of its own on the answer to the first
// command: on the port opened anew, or on the port as it stands.
bool Identify(int16_t firstReplyLimitMs);
bool IdentifyOnOpenPort(int16_t firstReplyLimitMs);

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
// Returns the speed at which the adapter is back in command mode, 0 if it
// did not answer.
uint32_t HangUpLeftCall(uint32_t otherSpeed, uint32_t pauseMs) {
    if (ThePort == nullptr || !ThePort->IsOpen.load()) {
        return 0;
    }
    PortConversation conversation;
    SleepMs(pauseMs);
    SendBytes("+++", 3);
    const std::optional<size_t> escape =
        DrainUntilAny({"\r\nOK\r\n", "NO CARRIER"}, EscapeReplyLimitMs);
    if (!escape) {
        return 0;
    }
    const uint32_t portSpeed = ThePort->BaudRate.load();
    if (*escape == 1) {
        return portSpeed;  // the far end has ended the call meanwhile
    }
    for (const uint32_t speed : {portSpeed, otherSpeed}) {
        if (!SetPortSpeed(speed)) {
            continue;
        }
        SendCommand("ATH");
        if (DrainUntilAny({"\r\nOK\r\n", "NO CARRIER"}, HangUpReplyLimitMs)) {
            LineStores->Log.Add("Hung up a call left on the ISDN TA.");
            return speed;
        }
    }
    return 0;
}

// A BitSURFR or a 3Com stays at 230400 bps, where it answers nothing at the
// speeds of the search, until its closing command or a power cycle; so does an
// AdTran whose switch is set there. Found at that speed, the first two are
// told to go back to 115200 and identified again at the speed asked for.
PortAnswer FindAtTopSpeed(uint32_t speed) {
    SelectPortBaud(TopSpeed);
    // An adapter at this speed answers at once; this is a second look, not
    // the search's own.
    if (!Identify(ShortReplyLimitMs)) {
        return PortAnswer::Nothing;
    }
    LineStores->Log.Add("ISDN TA found at 230400 bps.");
    if (CurrentFamily().Speed == SpeedMove::DipSwitch) {
        return PortAnswer::SwitchedToTop;
    }
    // The port stays open: a purge could throw away the command back before
    // the adapter has it all.
    ReturnAdapterTo115200();
    return SetPortSpeed(speed) && IdentifyOnOpenPort(ReplyLimitMs) ? PortAnswer::AtSpeed
                                                                   : PortAnswer::Nothing;
}

// Looks for the adapter on the selected port, at the speed given: there
// first, as the search always has, then at 230400 bps, then behind a call
// that it may still hold.
PortAnswer FindOnPort(uint32_t speed, uint32_t escapePauseMs) {
    SelectPortBaud(speed);
    if (IdentifyAdapter()) {
        return PortAnswer::AtSpeed;
    }
    if (ThePort == nullptr || !ThePort->IsOpen.load()) {
        return PortAnswer::Nothing;  // no device there to ask
    }
    // What follows runs with RTS/CTS, as all work after a first exchange
    // does: the data of a call that the adapter may still hold would stop the
    // port's output at its first XOFF byte, for good once the port's input
    // has filled up behind it.
    if (!SetPortSpeed(speed)) {
        return PortAnswer::Nothing;
    }
    const PortAnswer atTop = FindAtTopSpeed(speed);
    if (atTop != PortAnswer::Nothing) {
        return atTop;
    }
    const uint32_t answeredAt = HangUpLeftCall(speed, escapePauseMs);
    if (answeredAt == 0) {
        return PortAnswer::Nothing;
    }
    if (answeredAt == TopSpeed) {
        return FindAtTopSpeed(speed);
    }
    SelectPortBaud(speed);
    return IdentifyAdapter() ? PortAnswer::AtSpeed : PortAnswer::Nothing;
}

// An AdTran that answers only at 230400 bps has its switch set there, by the
// user: the speed is taken as the switch holds it.
AdapterSearch AtSwitchedTopSpeed() {
    LineStores->Prefs.MaxPortSpeed = TopSpeed;
    LineStores->Prefs.SelectedPortSpeed = TopSpeed;
    SpeedClass.store(2);
    LineStores->Log.Add("Port speed set to 230400 bps.");
    return AdapterReady();
}

AdapterSearch FullSearch() {
    for (int port = 1; port <= LastSearchedPort; ++port) {
        SelectPortNumber(static_cast<uint8_t>(port));
        LineStores->Log.Add("Searching Comm Port " + std::to_string(port));
        const PortAnswer answer = FindOnPort(SearchSpeed, LongestEscapePauseMs());
        if (answer == PortAnswer::Nothing) {
            CommPortClose();
            continue;
        }
        LineStores->Prefs.ComPort = static_cast<int16_t>(port);
        if (answer == PortAnswer::SwitchedToTop) {
            return AtSwitchedTopSpeed();
        }
        QualifyPortSpeed();
        if (LineStores->Prefs.MaxPortSpeed == 230400) {
            // An adapter moved only by its switch stays at 115200 until the
            // user has moved it.
            LineStores->Prefs.SelectedPortSpeed =
                CurrentFamily().Speed == SpeedMove::DipSwitch ? 115200 : 230400;
        }
        return AdapterReady();
    }
    return AdapterNotFound();
}

// An adapter moved to 230400 by its switch answers nothing at the search
// speed, so it is taken as saved and brought straight to its top speed.
AdapterSearch DipSwitchStart() {
    if (!CommPortOpen()) {
        // Nothing answers and nothing is said: the port the saved search
        // named is not there.
        return AdapterSearch::NotFound;
    }
    LineStores->Prefs.MaxPortSpeed = 230400;
    LineStores->Prefs.SelectedPortSpeed = 230400;
    AdapterFound.store(true);
    SpeedClass.store(2);
    ResumeTopSpeed();
    LineStores->Log.Add("Port speed set to 230400 bps.");
    const auto answers = [] {
        std::memset(TokenBuffer, 0, TokenBufferSize);
        return SendAndWaitOk("atv1") && EnableHardwareHandshake() && SendAndWaitOkShort("ati0");
    };
    if (!answers() &&
        (HangUpLeftCall(TopSpeed, CurrentFamily().EscapePauseMs) == 0 || !answers())) {
        return AdapterSearch::NotFound;
    }
    return AdapterReady();
}

AdapterSearch QuickStart() {
    SelectPortNumber(static_cast<uint8_t>(LineStores->Prefs.ComPort));
    if (FamilyOf(LineStores->Prefs.AdapterModel).Speed == SpeedMove::DipSwitch &&
        LineStores->Prefs.SelectedPortSpeed == 230400) {
        return DipSwitchStart();
    }
    const uint32_t maxSpeed = LineStores->Prefs.MaxPortSpeed;
    switch (FindOnPort(maxSpeed == 230400 ? 115200 : maxSpeed, CurrentFamily().EscapePauseMs)) {
        case PortAnswer::Nothing:
            return AdapterNotFound();
        case PortAnswer::SwitchedToTop:
            return AtSwitchedTopSpeed();
        case PortAnswer::AtSpeed:
            break;
    }
    SpeedClass.store(maxSpeed <= 57600 ? 1 : 2);
    if (maxSpeed == 230400 && LineStores->Prefs.SelectedPortSpeed == 230400) {
        ResumeTopSpeed();
        LineStores->Log.Add("Port speed set to 230400 bps.");
    } else if (maxSpeed == 230400) {
        LineStores->Log.Add("Port speed set to 115200 bps.");
    } else {
        LineStores->Log.Add("Port speed set to " + std::to_string(maxSpeed) + " bps.");
    }
    return AdapterReady();
}

bool ExchangeWithAdapter(const char* command, int16_t limitMs) {
    PortConversation conversation;
    SendCommand(command);
    return ReadUntilOk(limitMs, TokenBuffer) != nullptr;
}

}  // namespace

void SetLinePolling(bool enabled) {
    {
        std::lock_guard<std::mutex> guard(HandoverLock);
        if (ConversationsUnderWay > 0) {
            PollingAfterConversations = enabled;
            return;
        }
        LinePollingEnabled.store(enabled);
    }
    InterruptPortWait();
}

PortConversation::PortConversation() {
    {
        std::lock_guard<std::mutex> guard(HandoverLock);
        if (ConversationsUnderWay++ == 0) {
            PollingAfterConversations = LinePollingEnabled.exchange(false);
        }
    }
    // The communications thread may be waiting for input with the flag seen
    // set; waking it makes it look again and give the port up.
    InterruptPortWait();
    PortReadLock.lock();
}

PortConversation::~PortConversation() {
    PortReadLock.unlock();
    bool restored = false;
    {
        std::lock_guard<std::mutex> guard(HandoverLock);
        if (--ConversationsUnderWay == 0) {
            restored = PollingAfterConversations;
            LinePollingEnabled.store(restored);
        }
    }
    if (restored) {
        // The communications thread idles while polling is off; wake it so
        // that it takes the port up again at once.
        InterruptPortWait();
    }
}

bool SendAndWaitOk(const char* command) {
    return ExchangeWithAdapter(command, ReplyLimitMs);
}

bool SendAndWaitOkShort(const char* command) {
    return ExchangeWithAdapter(command, ShortReplyLimitMs);
}

bool IdentifyAdapter() {
    return Identify(ReplyLimitMs);
}

namespace {

bool Identify(int16_t firstReplyLimitMs) {
    CommPortClose();
    if (!CommPortOpen()) {
        return false;
    }
    return IdentifyOnOpenPort(firstReplyLimitMs);
}

bool IdentifyOnOpenPort(int16_t firstReplyLimitMs) {
    // The replies are taken apart in TokenBuffer, so no other reader may
    // come between an exchange and the tests on it.
    PortConversation conversation;
    std::memset(TokenBuffer, 0, TokenBufferSize);
    if (!ExchangeWithAdapter("atv1", firstReplyLimitMs) || !EnableHardwareHandshake() ||
        !SendAndWaitOkShort("ati0")) {
        return false;
    }
    // The marks are tested in this order; the first family that matches
    // is the adapter.
    if (BufferHolds("960")) {
        if (!SendAndWaitOk("ati8")) {
            return false;
        }
        LineStores->Prefs.AdapterModel = ModelBitSURFR;
        if (!BufferHolds("BitSURFR")) {
            return false;
        }
        AdapterFound.store(true);
        return true;
    }
    if (BufferHolds("ADTRAN EXPRESS XR")) {
        AdapterFound.store(true);
        LineStores->Prefs.AdapterModel = ModelAdTran;
        LineStores->Prefs.AdapterVariant = BufferHolds("ADTRAN EXPRESS XRT") ? 1 : 0;
        return true;
    }
    for (const char* mark : {"2864", "1291", "1292", "1293", "1281", "1282", "1283"}) {
        if (BufferHolds(mark)) {
            LineStores->Prefs.AdapterModel = ModelZyXEL;
            if (BufferHolds("2864")) {
                LineStores->Prefs.AdapterVariant = 1;
            } else if (BufferHolds("1291") || BufferHolds("1292") || BufferHolds("1293")) {
                LineStores->Prefs.AdapterVariant = 2;
            } else {
                LineStores->Prefs.AdapterVariant = 3;
            }
            AdapterFound.store(true);
            return true;
        }
    }
    if (BufferHolds("3C882")) {
        LineStores->Prefs.AdapterModel = Model3Com;
        AdapterFound.store(true);
        return true;
    }
    return false;
}

}  // namespace

AdapterSearch FindAdapter() {
    const bool shiftDown = KeyIsDown(Key::Shift);
    if (LineStores->Prefs.ComPort == 0 || shiftDown) {
        return FullSearch();
    }
    return QuickStart();
}
