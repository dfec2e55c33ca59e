#include "support/far_end.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

FarEnd::FarEnd() {
    if (!OpenPseudoTerminal(terminal_)) {
        throw std::runtime_error("cannot open a pseudo-terminal");
    }
}

FarEnd::~FarEnd() {
    ClosePseudoTerminal(terminal_);
}

void FarEnd::LinkAs(const std::string& folder, int portNumber) const {
    const std::string link = folder + "/COM" + std::to_string(portNumber);
    ::unlink(link.c_str());
    if (::symlink(terminal_.SlavePath.c_str(), link.c_str()) != 0) {
        throw std::runtime_error("cannot link " + link);
    }
}

void FarEnd::Send(const std::string& bytes) const {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(terminal_.Master, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd wait = {terminal_.Master, POLLOUT, 0};
            ::poll(&wait, 1, 100);
        } else {
            throw std::runtime_error("cannot write to the pseudo-terminal");
        }
    }
}

std::string FarEnd::Receive(size_t count, int timeoutMs) const {
    std::string got;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (got.size() < count) {
        got += ReceiveAvailable();
        if (got.size() >= count) {
            break;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              end - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            break;
        }
        pollfd wait = {terminal_.Master, POLLIN, 0};
        ::poll(&wait, 1, static_cast<int>(left));
    }
    return got;
}

std::string FarEnd::ReceiveUntil(const std::string& marker, int timeoutMs) const {
    std::string got;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (got.size() < marker.size() ||
           got.compare(got.size() - marker.size(), marker.size(), marker) != 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              end - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            break;
        }
        pollfd wait = {terminal_.Master, POLLIN, 0};
        if (::poll(&wait, 1, static_cast<int>(left)) > 0) {
            char byte;
            if (::read(terminal_.Master, &byte, 1) == 1) {
                got += byte;
            }
        }
    }
    return got;
}

std::string FarEnd::ReceiveAvailable() const {
    std::string got;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(terminal_.Master, buffer, sizeof buffer);
        if (n > 0) {
            got.append(buffer, static_cast<size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break;
        }
    }
    return got;
}
