#include "virtual-ta/trace.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>

#include "virtual-ta/deadline.h"

namespace kb::virtual_ta {

using namespace kb::platform;

namespace {

int TraceFd = -1;
uint64_t StartNs = MonotonicNs();

}  // namespace

bool OpenTrace(const std::string& path) {
    CloseTrace();
    // For its user alone: it says who called whom, and from which address.
    TraceFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    return TraceFd >= 0;
}

void CloseTrace() {
    if (TraceFd >= 0) {
        ::close(TraceFd);
        TraceFd = -1;
    }
}

bool TraceOn() {
    return TraceFd >= 0;
}

void TraceLine(std::string_view who, std::string_view text) {
    if (TraceFd < 0) {
        return;
    }
    const uint64_t ms = (MonotonicNs() - StartNs) / NsPerMs;
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "%llu.%03llu ", static_cast<unsigned long long>(ms / 1000),
                  static_cast<unsigned long long>(ms % 1000));
    std::string line = stamp;
    line.append(who);
    line += ' ';
    line.append(text);
    line += '\n';
    // One write per line: a reader never sees half a line, and O_APPEND keeps
    // lines whole even if two tools share a file.
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::write(TraceFd, line.data() + done, line.size() - done);
        if (n <= 0) {
            return;
        }
        done += static_cast<size_t>(n);
    }
}

void LogLine(std::string_view text) {
    std::string line = "virtual-ta: ";
    line.append(text);
    line += '\n';
    // Standard error may be a journal or a terminal that reads slowly: a
    // line it cannot take at once is dropped rather than waited for, since
    // the tool's one loop carries every call. The trace keeps it whole.
    pollfd error{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&error, 1, 0) == 1 && (error.revents & POLLOUT) != 0) {
        [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
    }
    TraceLine("-", text);
}

std::string Printable(std::string_view bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '\r') {
            text += "\\r";
        } else if (c == '\n') {
            text += "\\n";
        } else if (u >= 0x20 && u < 0x7F) {
            text += c;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", u);
            text += hex;
        }
    }
    return text;
}

}  // namespace kb::virtual_ta
