#include "virtual-ta/event_loop.h"

#include <poll.h>

#include <cerrno>
#include <ctime>
#include <vector>

#include "virtual-ta/deadline.h"

namespace kb::virtual_ta {

int RunEventLoop(Exchange& exchange, const LoopEnd& end, const std::function<uint64_t()>& clock) {
    std::vector<pollfd> entries;
    for (;;) {
        uint64_t now = clock();
        exchange.Service(now);
        entries.clear();
        entries.push_back(pollfd{end.Descriptor, POLLIN, 0});
        exchange.CollectPoll(entries, now);
        const uint64_t deadline = exchange.NextDeadline(now);
        timespec limit{};
        timespec* wait = nullptr;
        if (deadline != Never) {
            const uint64_t left = deadline > now ? deadline - now : 0;
            limit.tv_sec = static_cast<time_t>(left / 1000000000);
            limit.tv_nsec = static_cast<long>(left % 1000000000);
            wait = &limit;
        }
        const int ready = ::ppoll(entries.data(), entries.size(), wait, nullptr);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return 0;
        }
        if ((entries[0].revents & POLLIN) != 0) {
            if (const std::optional<int> number = end.Take()) {
                return *number;
            }
        }
        if (ready > 0) {
            now = clock();
            exchange.HandlePoll(entries.data() + 1, now);
        }
    }
}

}  // namespace kb::virtual_ta
