#include "tcp_relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace kb::test {

namespace {

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

}  // namespace

uint16_t FreePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    uint16_t port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

uint16_t ListeningPort(const std::vector<std::string>& lines) {
    const std::string said = "listening on ";
    for (const std::string& line : lines) {
        if (line.rfind(said, 0) == 0) {
            return static_cast<uint16_t>(std::stoul(line.substr(line.rfind(':') + 1)));
        }
    }
    return 0;
}

std::string ShowIdentity(const std::string& program, const std::string& keyPath) {
    ChildProcess run(program, {"--show-identity", "--identity", keyPath});
    std::string id;
    return run.NextLine(id, std::chrono::seconds(10)) &&
                   run.WaitForExit(std::chrono::seconds(10)) == 0
               ? id
               : "";
}

TcpRelay::TcpRelay(uint16_t targetPort, std::chrono::microseconds delay)
    : targetPort_(targetPort), delay_(delay) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 8) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::pipe2(wake_, O_CLOEXEC) != 0 || ::pipe2(done_, O_CLOEXEC) != 0) {
        throw std::runtime_error("the relay cannot listen");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
}

TcpRelay::~TcpRelay() {
    const char stop = 's';
    (void)!::write(wake_[1], &stop, 1);
    thread_.join();
    for (const int fd : {listener_, wake_[0], wake_[1], done_[0], done_[1]}) {
        ::close(fd);
    }
}

void TcpRelay::Cut() {
    const char cut = 'c';
    char done = 0;
    if (::write(wake_[1], &cut, 1) == 1) {
        (void)!::read(done_[0], &done, 1);
    }
}

void TcpRelay::Run() {
    using Clock = std::chrono::steady_clock;
    // Each connection is a pair: the one accepted, and the one made to the
    // target. Each direction keeps what it read, each read with the time it
    // may go on, and sends what is due as soon as the other side takes it:
    // the relay never blocks on a write, so a side that stops reading never
    // holds up the other direction, as a network does not. A direction reads
    // while it holds less than a window, enough for a fast line's bytes over
    // the longest delay; beyond that, its source waits, as behind a
    // network's full window. A source that closes leaves an empty run
    // behind its last: the other side learns of the close as late as of
    // the bytes, and only after them.
    constexpr size_t Window = 1 << 20;
    struct Held {
        Clock::time_point Due;
        std::string Bytes;
    };
    struct Direction {
        std::deque<Held> Queue;
        size_t Queued = 0;
        bool Ended = false;  // its source has closed
    };
    struct Pair {
        int Fd[2];
        Direction Way[2];  // Way[side]: from Fd[side] to Fd[1 - side]
    };
    std::vector<Pair> pairs;
    for (;;) {
        Clock::time_point now = Clock::now();
        std::optional<Clock::time_point> wakeAt;
        const auto wakeBy = [&](Clock::time_point due) {
            if (!wakeAt || due < *wakeAt) {
                wakeAt = due;
            }
        };
        std::vector<pollfd> entries = {{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const Pair& pair : pairs) {
            for (int side = 0; side < 2; ++side) {
                const Direction& in = pair.Way[side];
                const Direction& out = pair.Way[1 - side];
                short events = 0;
                if (!in.Ended && in.Queued < Window) {
                    events |= POLLIN;
                }
                if (!out.Queue.empty()) {
                    if (out.Queue.front().Due <= now) {
                        events |= POLLOUT;
                    } else {
                        wakeBy(out.Queue.front().Due);
                    }
                }
                entries.push_back({events == 0 ? -1 : pair.Fd[side], events, 0});
            }
        }
        timespec timeout{};
        if (wakeAt) {
            const auto left = std::max(Clock::duration::zero(), *wakeAt - now);
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
            timeout.tv_sec = seconds.count();
            timeout.tv_nsec =
                std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds).count();
        }
        if (::ppoll(entries.data(), entries.size(), wakeAt ? &timeout : nullptr, nullptr) < 0) {
            continue;
        }
        now = Clock::now();
        if ((entries[0].revents & POLLIN) != 0) {
            char request = 0;
            (void)!::read(wake_[0], &request, 1);
            for (const Pair& pair : pairs) {
                ::close(pair.Fd[0]);
                ::close(pair.Fd[1]);
            }
            pairs.clear();
            if (request == 's') {
                return;
            }
            (void)!::write(done_[1], &request, 1);
            continue;
        }
        if ((entries[1].revents & POLLIN) != 0) {
            const int accepted = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            const int onward = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const sockaddr_in target = Loopback(targetPort_);
            if (accepted >= 0 && onward >= 0 &&
                ::connect(onward, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0) {
                ::fcntl(accepted, F_SETFL, O_NONBLOCK);
                ::fcntl(onward, F_SETFL, O_NONBLOCK);
                pairs.push_back(Pair{{accepted, onward}, {}});
            } else {
                ::close(accepted);
                ::close(onward);
            }
        }
        // Only the pairs that were polled: one accepted just now has no
        // entries yet.
        const size_t polled = (entries.size() - 2) / 2;
        for (size_t i = 0; i < polled; ++i) {
            Pair& pair = pairs[i];
            for (int side = 0; side < 2; ++side) {
                const short events = entries[2 + 2 * i + static_cast<size_t>(side)].revents;
                Direction& in = pair.Way[side];
                Direction& out = pair.Way[1 - side];
                while ((events & POLLOUT) != 0 && !out.Queue.empty() &&
                       out.Queue.front().Due <= now) {
                    std::string& bytes = out.Queue.front().Bytes;
                    if (bytes.empty()) {
                        ::shutdown(pair.Fd[side], SHUT_WR);
                        out.Queue.pop_front();
                        continue;
                    }
                    const ssize_t m =
                        ::send(pair.Fd[side], bytes.data(), bytes.size(), MSG_NOSIGNAL);
                    if (m > 0) {
                        carried_ += static_cast<uint64_t>(m);
                        out.Queued -= static_cast<size_t>(m);
                        bytes.erase(0, static_cast<size_t>(m));
                        if (!bytes.empty()) {
                            break;  // the socket is full: the rest when it is not
                        }
                        out.Queue.pop_front();
                    } else {
                        if (errno != EAGAIN && errno != EINTR) {
                            // Nobody to take it any more.
                            out.Queue.clear();
                            out.Queued = 0;
                            out.Ended = true;
                        }
                        break;
                    }
                }
                if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !in.Ended &&
                    in.Queued < Window) {
                    char buffer[65536];
                    const ssize_t n = ::read(pair.Fd[side], buffer, sizeof buffer);
                    if (n > 0) {
                        in.Queue.push_back(
                            {now + delay_, std::string(buffer, static_cast<size_t>(n))});
                        in.Queued += static_cast<size_t>(n);
                    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                        in.Ended = true;
                        in.Queue.push_back({now + delay_, ""});
                    }
                }
            }
        }
    }
}

}  // namespace kb::test
