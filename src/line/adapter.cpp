#include "line/adapter.h"

#include <cstring>
#include <mutex>
#include <string>

#include "line/comm_port.h"
#include "line/port_speed.h"
#include "line/profiles.h"
#include "platform/key_state.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/preferences.h"
#include "stores/status_log.h"

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

bool BufferHolds(const char* mark) {
    return std::strstr(TokenBuffer, mark) != nullptr;
}

AdapterSearch AdapterNotFound() {
    ShowMessageBox(NoAdapterMessage);
    AddLogLine("ISDN TA not found.");
    return AdapterSearch::NotFound;
}

// The adapter has been found and the port stands at its working speed: the
// incoming profile goes out and the communications thread takes the port up.
AdapterSearch AdapterReady() {
    const bool listening = InitializeIncoming();
    SetLinePolling(true);
    return listening ? AdapterSearch::WaitingForCalls : AdapterSearch::ProfileRefused;
}

AdapterSearch FullSearch() {
    for (int port = 1; port <= LastSearchedPort; ++port) {
        SelectPortNumber(static_cast<uint8_t>(port));
        SelectPortBaud(SearchSpeed);
        AddLogLine("Searching Comm Port " + std::to_string(port));
        if (!IdentifyAdapter()) {
            CommPortClose();
            continue;
        }
        ThePreferences.ComPort = static_cast<int16_t>(port);
        QualifyPortSpeed();
        if (ThePreferences.MaxPortSpeed == 230400) {
            // An adapter moved only by its switch stays at 115200 until the
            // user has moved it.
            ThePreferences.SelectedPortSpeed =
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
    ThePreferences.MaxPortSpeed = 230400;
    ThePreferences.SelectedPortSpeed = 230400;
    AdapterFound.store(true);
    SpeedClass.store(2);
    ResumeTopSpeed();
    AddLogLine("Port speed set to 230400 bps.");
    std::memset(TokenBuffer, 0, TokenBufferSize);
    if (!SendAndWaitOk("atv1") || !EnableHardwareHandshake() || !SendAndWaitOkShort("ati0")) {
        return AdapterSearch::NotFound;
    }
    return AdapterReady();
}

AdapterSearch QuickStart() {
    SelectPortNumber(static_cast<uint8_t>(ThePreferences.ComPort));
    if (FamilyOf(ThePreferences.AdapterModel).Speed == SpeedMove::DipSwitch &&
        ThePreferences.SelectedPortSpeed == 230400) {
        return DipSwitchStart();
    }
    const uint32_t maxSpeed = ThePreferences.MaxPortSpeed;
    SelectPortBaud(maxSpeed == 230400 ? 115200 : maxSpeed);
    if (!IdentifyAdapter()) {
        return AdapterNotFound();
    }
    SpeedClass.store(maxSpeed <= 57600 ? 1 : 2);
    if (maxSpeed == 230400 && ThePreferences.SelectedPortSpeed == 230400) {
        ResumeTopSpeed();
        AddLogLine("Port speed set to 230400 bps.");
    } else if (maxSpeed == 230400) {
        AddLogLine("Port speed set to 115200 bps.");
    } else {
        AddLogLine("Port speed set to " + std::to_string(maxSpeed) + " bps.");
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
    CommPortClose();
    if (!CommPortOpen()) {
        return false;
    }
    // The replies are taken apart in TokenBuffer, so no other reader may
    // come between an exchange and the tests on it.
    PortConversation conversation;
    std::memset(TokenBuffer, 0, TokenBufferSize);
    if (!SendAndWaitOk("atv1") || !EnableHardwareHandshake() || !SendAndWaitOkShort("ati0")) {
        return false;
    }
    // The marks are tested in this order; the first family that matches
    // is the adapter.
    if (BufferHolds("960")) {
        if (!SendAndWaitOk("ati8")) {
            return false;
        }
        ThePreferences.AdapterModel = ModelBitSURFR;
        if (!BufferHolds("BitSURFR")) {
            return false;
        }
        AdapterFound.store(true);
        return true;
    }
    if (BufferHolds("ADTRAN EXPRESS XR")) {
        AdapterFound.store(true);
        ThePreferences.AdapterModel = ModelAdTran;
        ThePreferences.AdapterVariant = BufferHolds("ADTRAN EXPRESS XRT") ? 1 : 0;
        return true;
    }
    for (const char* mark : {"2864", "1291", "1292", "1293", "1281", "1282", "1283"}) {
        if (BufferHolds(mark)) {
            ThePreferences.AdapterModel = ModelZyXEL;
            if (BufferHolds("2864")) {
                ThePreferences.AdapterVariant = 1;
            } else if (BufferHolds("1291") || BufferHolds("1292") || BufferHolds("1293")) {
                ThePreferences.AdapterVariant = 2;
            } else {
                ThePreferences.AdapterVariant = 3;
            }
            AdapterFound.store(true);
            return true;
        }
    }
    if (BufferHolds("3C882")) {
        ThePreferences.AdapterModel = Model3Com;
        AdapterFound.store(true);
        return true;
    }
    return false;
}

AdapterSearch FindAdapter() {
    const bool shiftDown = KeyIsDown(Key::Shift);
    if (ThePreferences.ComPort == 0 || shiftDown) {
        return FullSearch();
    }
    return QuickStart();
}
