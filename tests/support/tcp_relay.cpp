#include "tcp_relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
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

TcpRelay::TcpRelay(uint16_t targetPort) : targetPort_(targetPort) {
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
    // Each connection is a pair: the one accepted, and the one made to the
    // target. Each direction holds what it read until the other side has
    // taken all of it, and reads again only then: the relay never blocks on
    // a write, so a side that stops reading never holds up the other
    // direction, as a network does not.
    struct Direction {
        std::string Pending;
        bool Ended = false;     // its source has closed
        bool ShutDown = false;  // its end has been passed on
    };
    struct Pair {
        int Fd[2];
        Direction Way[2];  // Way[side]: from Fd[side] to Fd[1 - side]
    };
    std::vector<Pair> pairs;
    const auto closeAll = [&] {
        for (const Pair& pair : pairs) {
            ::close(pair.Fd[0]);
            ::close(pair.Fd[1]);
        }
        pairs.clear();
    };
    for (;;) {
        std::vector<pollfd> entries = {{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const Pair& pair : pairs) {
            for (int side = 0; side < 2; ++side) {
                const Direction& in = pair.Way[side];
                const Direction& out = pair.Way[1 - side];
                short events = 0;
                if (!in.Ended && in.Pending.empty()) {
                    events |= POLLIN;
                }
                if (!out.Pending.empty()) {
                    events |= POLLOUT;
                }
                entries.push_back({events == 0 ? -1 : pair.Fd[side], events, 0});
            }
        }
        if (::poll(entries.data(), entries.size(), -1) < 0) {
            continue;
        }
        if ((entries[0].revents & POLLIN) != 0) {
            char request = 0;
            (void)!::read(wake_[0], &request, 1);
            closeAll();
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
                if ((events & POLLOUT) != 0 && !out.Pending.empty()) {
                    const ssize_t m =
                        ::send(pair.Fd[side], out.Pending.data(), out.Pending.size(), MSG_NOSIGNAL);
                    if (m > 0) {
                        carried_ += static_cast<uint64_t>(m);
                        out.Pending.erase(0, static_cast<size_t>(m));
                    } else if (errno != EAGAIN && errno != EINTR) {
                        out.Pending.clear();  // nobody to take it any more
                        out.Ended = true;
                    }
                }
                if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !in.Ended &&
                    in.Pending.empty()) {
                    char buffer[65536];
                    const ssize_t n = ::read(pair.Fd[side], buffer, sizeof buffer);
                    if (n > 0) {
                        in.Pending.assign(buffer, static_cast<size_t>(n));
                    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                        in.Ended = true;
                    }
                }
            }
            // One side closed: the other learns it the same way, once it has
            // everything that came before.
            for (int side = 0; side < 2; ++side) {
                Direction& in = pair.Way[side];
                if (in.Ended && in.Pending.empty() && !in.ShutDown) {
                    ::shutdown(pair.Fd[1 - side], SHUT_WR);
                    in.ShutDown = true;
                }
            }
        }
    }
}

}  // namespace kb::test
