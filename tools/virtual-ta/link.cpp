#include "virtual-ta/link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <openssl/err.h>

#include "virtual-ta/trace.h"

namespace kb::virtual_ta {

namespace {

constexpr size_t ReadChunk = 65536;

void Unblock(int fd) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    // Data of a call goes out frame by frame as the line carries it; waiting
    // to fill a segment would put a delay on the line that it does not have.
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

std::string AddressText(const sockaddr_storage& address) {
    char host[INET6_ADDRSTRLEN] = "?";
    uint16_t port = 0;
    if (address.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        ::inet_ntop(AF_INET, &v4.sin_addr, host, sizeof host);
        port = ntohs(v4.sin_port);
        return std::string(host) + ":" + std::to_string(port);
    }
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
    ::inet_ntop(AF_INET6, &v6.sin6_addr, host, sizeof host);
    port = ntohs(v6.sin6_port);
    return "[" + std::string(host) + "]:" + std::to_string(port);
}

bool IsLoopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        return (ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24) == 127;
    }
    if (address.ss_family != AF_INET6) {
        return false;
    }
    const in6_addr& v6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
}

socklen_t LengthOf(const sockaddr_storage& address) {
    return address.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

}  // namespace

std::vector<sockaddr_storage> FindAddresses(const std::string& host, uint16_t port, int flags) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | flags;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    std::vector<sockaddr_storage> addresses;
    if (::getaddrinfo(host.c_str(), service.c_str(), &hints, &found) != 0) {
        return addresses;
    }
    for (const addrinfo* at = found; at != nullptr; at = at->ai_next) {
        sockaddr_storage address{};
        std::memcpy(&address, at->ai_addr, at->ai_addrlen);
        addresses.push_back(address);
    }
    ::freeaddrinfo(found);
    return addresses;
}

void Link::Queue(LinkMessage type, std::string_view payload) {
    Out += static_cast<char>(type);
    Out += static_cast<char>(payload.size() >> 8);
    Out += static_cast<char>(payload.size() & 0xFF);
    Out.append(payload);
}

bool Link::Peek(LinkMessage& type, std::string_view& payload) const {
    if (PendingIn() < 3) {
        return false;
    }
    const auto* head = reinterpret_cast<const uint8_t*>(In.data() + InHead);
    const size_t length = (static_cast<size_t>(head[1]) << 8) | head[2];
    if (PendingIn() < 3 + length) {
        return false;
    }
    type = static_cast<LinkMessage>(head[0]);
    payload = std::string_view(In).substr(InHead + 3, length);
    return true;
}

void Link::Pop() {
    LinkMessage type{};
    std::string_view payload;
    if (Peek(type, payload)) {
        InHead += 3 + payload.size();
    }
    DataDone = 0;
    if (InHead == In.size()) {
        In.clear();
        InHead = 0;
    } else if (InHead > ReadChunk) {
        In.erase(0, InHead);
        InHead = 0;
    }
}

bool ParseHostPort(const std::string& text, bool allowZero, std::string& host, uint16_t& port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return false;
    }
    host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    const std::string digits = text.substr(colon + 1);
    if (digits.empty() || digits.size() > 5 ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const unsigned long value = std::stoul(digits);
    if (value > 65535 || (value == 0 && !allowZero)) {
        return false;
    }
    port = static_cast<uint16_t>(value);
    return true;
}

int ListenOn(const std::string& host, uint16_t& port, std::string& error) {
    const std::vector<sockaddr_storage> addresses = FindAddresses(host, port, AI_PASSIVE);
    if (addresses.empty()) {
        error = "cannot find the address '" + host + "' to listen on";
        return -1;
    }
    const sockaddr_storage& address = addresses.front();
    const int fd = ::socket(address.ss_family, SOCK_STREAM, 0);
    const int on = 1;
    // The system's queue takes a crowd of connections whole: the exchange
    // lets them go itself, and a caller among them is not held back by the
    // second its connection waits when the queue drops it.
    if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd, reinterpret_cast<const sockaddr*>(&address), LengthOf(address)) != 0 ||
        ::listen(fd, SOMAXCONN) != 0) {
        error = "cannot listen on " + AddressText(address) + ": " + std::strerror(errno);
        if (fd >= 0) {
            ::close(fd);
        }
        return -1;
    }
    Unblock(fd);
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    port = ntohs(bound.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(bound).sin_port
                                            : reinterpret_cast<sockaddr_in6&>(bound).sin6_port);
    return fd;
}

int AcceptOn(int listener, std::string& peer, int& error) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    const int fd = ::accept(listener, reinterpret_cast<sockaddr*>(&address), &length);
    if (fd < 0) {
        error = errno;
        return -1;
    }
    Unblock(fd);
    peer = AddressText(address);
    return fd;
}

bool StartConnect(Link& link, const std::vector<sockaddr_storage>& addresses) {
    // The addresses are tried from the front.
    link.Addresses.assign(addresses.rbegin(), addresses.rend());
    return ConnectNext(link);
}

bool ConnectNext(Link& link) {
    if (link.Fd >= 0) {
        ::close(link.Fd);
        link.Fd = -1;
    }
    while (!link.Addresses.empty()) {
        const sockaddr_storage address = link.Addresses.back();
        link.Addresses.pop_back();
        link.Peer = AddressText(address);
        if (link.LoopbackOnly && !IsLoopback(address)) {
            LogLine("not calling " + link.Peer +
                    " in plain TCP: a route without a line ID reaches loopback only");
            continue;
        }
        const int fd = ::socket(address.ss_family, SOCK_STREAM, 0);
        if (fd < 0) {
            continue;
        }
        Unblock(fd);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), LengthOf(address)) == 0 ||
            errno == EINPROGRESS) {
            link.Fd = fd;
            link.Connecting = true;
            return true;
        }
        ::close(fd);
    }
    link.Connecting = false;
    return false;
}

bool Connected(int fd) {
    int error = 0;
    socklen_t length = sizeof error;
    return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

bool PeerIsLoopback(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    return ::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
           IsLoopback(address);
}

bool IsLoopbackHost(const std::string& host) {
    sockaddr_storage address{};
    auto& v4 = reinterpret_cast<sockaddr_in&>(address);
    auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
    if (::inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
        address.ss_family = AF_INET;
    } else if (::inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) == 1) {
        address.ss_family = AF_INET6;
    } else {
        return host == "localhost";
    }
    return IsLoopback(address);
}

namespace {

// OpenSSL gives an alert received as its reason plus this offset.
void NoteAlert(Link& link, int error) {
    if (error == SSL_ERROR_SSL && !link.Heard &&
        ERR_GET_REASON(ERR_peek_error()) > SSL_AD_REASON_OFFSET) {
        link.RefusedByAlert = true;
    }
}

// Through TLS: a record at a time until the chunk is full or the socket has
// no more, so that nothing waits inside TLS where poll cannot see it.
bool ReadTls(Link& link, char* buffer) {
    size_t total = 0;
    while (total < ReadChunk) {
        ERR_clear_error();
        const int n = SSL_read(link.Tls->Ssl, buffer, static_cast<int>(ReadChunk));
        if (n > 0) {
            link.In.append(buffer, static_cast<size_t>(n));
            link.Heard = true;
            total += static_cast<size_t>(n);
            continue;
        }
        const int error = SSL_get_error(link.Tls->Ssl, n);
        NoteAlert(link, error);
        return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
    }
    return true;
}

}  // namespace

bool ReadLink(Link& link) {
    char buffer[ReadChunk];
    if (link.Tls) {
        return ReadTls(link, buffer);
    }
    for (;;) {
        const ssize_t n = ::read(link.Fd, buffer, sizeof buffer);
        if (n > 0) {
            link.In.append(buffer, static_cast<size_t>(n));
            link.Heard = true;
            return true;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

bool WriteLink(Link& link) {
    while (link.PendingOut() > 0) {
        ssize_t n = 0;
        bool waits = false;
        if (link.Tls) {
            ERR_clear_error();
            n = SSL_write(link.Tls->Ssl, link.Out.data() + link.OutHead,
                          static_cast<int>(std::min(link.PendingOut(), ReadChunk)));
            const int error =
                n > 0 ? SSL_ERROR_NONE : SSL_get_error(link.Tls->Ssl, static_cast<int>(n));
            waits = error == SSL_ERROR_WANT_WRITE || error == SSL_ERROR_WANT_READ;
        } else {
            n = ::send(link.Fd, link.Out.data() + link.OutHead, link.PendingOut(), MSG_NOSIGNAL);
            waits = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
            if (n < 0 && errno == EINTR) {
                continue;
            }
        }
        if (n > 0) {
            link.OutHead += static_cast<size_t>(n);
        } else {
            if (link.Tls && !waits && !link.Heard) {
                // A far tool that refused this one may have closed before
                // the first write: its alert waits to be read.
                char byte = 0;
                ERR_clear_error();
                const int read = SSL_read(link.Tls->Ssl, &byte, 1);
                NoteAlert(link, SSL_get_error(link.Tls->Ssl, read));
            }
            if (link.OutHead > ReadChunk) {
                link.Out.erase(0, link.OutHead);
                link.OutHead = 0;
            }
            return waits;
        }
    }
    link.Out.clear();
    link.OutHead = 0;
    return true;
}

void EndWrites(Link& link) {
    if (link.Tls) {
        // The peer's TLS reads a proper end rather than a cut connection.
        ERR_clear_error();
        SSL_shutdown(link.Tls->Ssl);
    }
    ::shutdown(link.Fd, SHUT_WR);
}

void CloseLink(Link& link) {
    link.Tls.reset();
    if (link.Fd >= 0) {
        ::close(link.Fd);
        link.Fd = -1;
    }
    link.Gone = true;
}

}  // namespace kb::virtual_ta
