#include "support/far_end.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "platform/clock.h"
#include "platform/serial_speed.h"

namespace kb::test {

using namespace kb::platform;

namespace {

int64_t NowMsec() {
    return static_cast<int64_t>(MonotonicNs() / 1000000);
}

}  // namespace

FarEnd::FarEnd() : lastSendMs_(NowMsec()) {
    if (!OpenPseudoTerminal(terminal_)) {
        throw std::runtime_error("cannot open a pseudo-terminal");
    }
    fd_ = terminal_.Master;
}

FarEnd::FarEnd(const std::string& path, uint32_t speed) : lastSendMs_(NowMsec()) {
    fd_ = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
        throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
    }
    termios settings{};
    ::tcgetattr(fd_, &settings);
    ::cfmakeraw(&settings);
    settings.c_cflag |= CREAD | CLOCAL | CRTSCTS;
    ::tcsetattr(fd_, TCSANOW, &settings);
    SetSpeed(speed);
}

FarEnd::~FarEnd() {
    if (terminal_.Master >= 0) {
        ClosePseudoTerminal(terminal_);
    } else if (fd_ >= 0) {
        ::close(fd_);
    }
}

void FarEnd::LinkAs(const std::string& folder, int portNumber) const {
    const std::string link = folder + "/COM" + std::to_string(portNumber);
    ::unlink(link.c_str());
    if (::symlink(terminal_.SlavePath.c_str(), link.c_str()) != 0) {
        throw std::runtime_error("cannot link " + link);
    }
}

void FarEnd::SetSpeed(uint32_t speed) {
    termios settings{};
    ::tcgetattr(fd_, &settings);
    const speed_t code = SpeedCode(speed).value_or(B0);
    ::cfsetispeed(&settings, code);
    ::cfsetospeed(&settings, code);
    ::tcsetattr(fd_, TCSANOW, &settings);
}

void FarEnd::Send(std::string_view bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd entry{fd_, POLLOUT, 0};
            ::poll(&entry, 1, 100);
        } else {
            throw std::runtime_error(std::string("cannot write to the line: ") +
                                     std::strerror(errno));
        }
    }
    lastSendMs_.store(NowMsec());
}

void FarEnd::NoteSentUntilNow() {
    lastSendMs_.store(NowMsec());
}

bool FarEnd::Fill(int64_t deadlineMs) {
    const int64_t left = std::max<int64_t>(deadlineMs - NowMsec(), 0);
    pollfd entry{fd_, POLLIN, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) {
        return true;
    }
    if (ready <= 0) {
        return false;
    }
    char buffer[65536];
    const ssize_t n = ::read(fd_, buffer, sizeof buffer);
    if (n > 0) {
        pending_.append(buffer, static_cast<size_t>(n));
        return true;
    }
    // Readable with nothing to read: the other side has closed, and nothing
    // more will come.
    return n < 0 && (errno == EAGAIN || errno == EINTR);
}

std::string FarEnd::Receive(size_t count, int timeoutMs) {
    const int64_t deadline = NowMsec() + timeoutMs;
    while (pending_.size() < count && Fill(deadline)) {
    }
    std::string out = pending_.substr(0, count);
    pending_.erase(0, out.size());
    return out;
}

std::string FarEnd::ReceiveUntil(const std::string& marker, int timeoutMs) {
    return ReceiveUntilAny({marker}, timeoutMs);
}

std::string FarEnd::ReceiveUntilAny(const std::vector<std::string>& markers, int timeoutMs) {
    const int64_t deadline = NowMsec() + timeoutMs;
    for (;;) {
        size_t cut = std::string::npos;
        for (const std::string& marker : markers) {
            const size_t at = pending_.find(marker);
            if (at != std::string::npos) {
                cut = std::min(cut, at + marker.size());
            }
        }
        if (cut != std::string::npos) {
            std::string out = pending_.substr(0, cut);
            pending_.erase(0, cut);
            return out;
        }
        if (!Fill(deadline)) {
            return TakePending();
        }
    }
}

std::string FarEnd::ReceiveFor(int timeoutMs) {
    const int64_t deadline = NowMsec() + timeoutMs;
    while (Fill(deadline)) {
    }
    return TakePending();
}

std::string FarEnd::TakePending() {
    std::string out;
    out.swap(pending_);
    return out;
}

std::string FarEnd::Command(const std::string& command, int timeoutMs) {
    Send(command + "\r");
    return ReceiveUntilAny({"OK\r\n", "ERROR\r\n"}, timeoutMs);
}

bool FarEnd::LineWith(const std::string& text, int timeoutMs) {
    if (ReceiveUntil(text, timeoutMs).find(text) == std::string::npos) {
        return false;
    }
    ReceiveUntil("\r\n", 1000);  // the rest of the line
    return true;
}

bool FarEnd::Dial(const std::string& number) {
    Send("ATD" + number + "\r");
    return LineWith("CONNECT", 40000);
}

bool FarEnd::Answer(int timeoutMs) {
    if (!LineWith("RING", timeoutMs)) {
        return false;
    }
    Send("ATA\r");
    return LineWith("CONNECT", 10000);
}

bool FarEnd::HangUp() {
    // The escape needs the port silent for the adapter's guard time (500 ms)
    // on both sides of the "+++"; its OK marks the end of the second one.
    const int64_t quietFrom = lastSendMs_.load() + 600;
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::max<int64_t>(quietFrom - NowMsec(), 0)));
    Send("+++");
    const std::string escaped = ReceiveUntilAny({"OK\r\n", "NO CARRIER"}, 5000);
    if (escaped.find("NO CARRIER") != std::string::npos) {
        return true;  // the far end hung up first
    }
    if (escaped.find("OK\r\n") == std::string::npos) {
        return false;
    }
    Send("ATH\r");
    const std::string reply = ReceiveUntil("OK\r\n", 3000);
    return reply.find("OK") != std::string::npos || reply.find("NO CARRIER") != std::string::npos;
}

}  // namespace kb::test
