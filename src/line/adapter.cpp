#include "line/adapter.h"

#include <mutex>

#include "line/comm_port.h"

std::atomic<int32_t> AdapterFound{0};
std::atomic<int32_t> LinePollingEnabled{0};
std::atomic<int16_t> SpeedClass{0};

namespace {

constexpr int16_t kReplyLimitMs = 4000;
constexpr int16_t kShortReplyLimitMs = 1000;

// The hand-over of the port. Remembering the flag in each exchange and putting
// it back at the end is not enough once two threads talk to the adapter: the
// one that started second would remember the cleared flag and leave polling
// off for good. So the conversations under way are counted, and the flag
// comes back only when the last of them ends.
std::mutex handoverLock;
int conversationsUnderWay = 0;
int32_t pollingAfterConversations = 0;

bool ExchangeWithAdapter(const char* command, int16_t limitMs) {
    PortConversation conversation;
    SendCommand(command);
    return ReadUntilOk(limitMs, TokenBuffer) != nullptr;
}

}  // namespace

void SetLinePolling(int32_t enabled) {
    {
        std::lock_guard<std::mutex> guard(handoverLock);
        if (conversationsUnderWay > 0) {
            pollingAfterConversations = enabled;
            return;
        }
        LinePollingEnabled.store(enabled);
    }
    InterruptPortWait();
}

PortConversation::PortConversation() {
    {
        std::lock_guard<std::mutex> guard(handoverLock);
        if (conversationsUnderWay++ == 0) {
            pollingAfterConversations = LinePollingEnabled.exchange(0);
        }
    }
    // The communications thread may be waiting for input with the flag seen
    // set; waking it makes it look again and give the port up.
    InterruptPortWait();
    PortReadLock.lock();
}

PortConversation::~PortConversation() {
    PortReadLock.unlock();
    int32_t restored = 0;
    {
        std::lock_guard<std::mutex> guard(handoverLock);
        if (--conversationsUnderWay == 0) {
            restored = pollingAfterConversations;
            LinePollingEnabled.store(restored);
        }
    }
    if (restored != 0) {
        // The communications thread idles while polling is off; wake it so
        // that it takes the port up again at once.
        InterruptPortWait();
    }
}

bool SendAndWaitOk(const char* command) {
    return ExchangeWithAdapter(command, kReplyLimitMs);
}

bool SendAndWaitOkShort(const char* command) {
    return ExchangeWithAdapter(command, kShortReplyLimitMs);
}
