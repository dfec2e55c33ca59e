#include "tcp_relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

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
    // target; bytes read from one are written whole to the other. A side
    // that has ended is no longer watched (fd -1 makes poll pass it by).
    struct Pair {
        int Fd[2];
        bool Ended[2];
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
                entries.push_back({pair.Ended[side] ? -1 : pair.Fd[side], POLLIN, 0});
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
                pairs.push_back(Pair{{accepted, onward}, {false, false}});
            } else {
                ::close(accepted);
                ::close(onward);
            }
        }
        for (size_t i = 0; i < pairs.size(); ++i) {
            for (int side = 0; side < 2; ++side) {
                const pollfd& entry = entries[2 + 2 * i + static_cast<size_t>(side)];
                if ((entry.revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
                    continue;
                }
                const int from = pairs[i].Fd[side];
                const int to = pairs[i].Fd[1 - side];
                char buffer[65536];
                const ssize_t n = ::read(from, buffer, sizeof buffer);
                if (n <= 0) {
                    // One side closed: the other learns it the same way.
                    ::shutdown(to, SHUT_WR);
                    pairs[i].Ended[side] = true;
                    continue;
                }
                for (ssize_t sent = 0; sent < n;) {
                    const ssize_t m =
                        ::send(to, buffer + sent, static_cast<size_t>(n - sent), MSG_NOSIGNAL);
                    if (m <= 0) {
                        break;
                    }
                    sent += m;
                }
                carried_ += static_cast<uint64_t>(n);
            }
        }
    }
}
