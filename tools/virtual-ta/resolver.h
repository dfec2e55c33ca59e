// Host names of routes are looked up off the event loop: a lookup may wait
// seconds on a slow or silent name server, and the loop carries every other
// adapter's calls meanwhile. Each lookup runs on a thread of its own; its
// answer waits here, and the descriptor becomes readable, until the loop
// takes it. Nobody waits for a lookup's thread: a lookup whose dial was
// given up, or that is still running when the tool ends, is left to finish
// on its own, and its answer is never read.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kb::virtual_ta {

// The addresses of a host for a port; none if it is not found. May block.
using LookUpFunction =
    std::function<std::vector<sockaddr_storage>(const std::string& host, uint16_t port)>;

// The system's lookup (getaddrinfo), IPv6 and IPv4 alike.
std::vector<sockaddr_storage> LookUpHost(const std::string& host, uint16_t port);

struct LookupAnswer {
    uint64_t Id = 0;
    std::vector<sockaddr_storage> Addresses;  // in the order to try; none: not found
};

class Resolver {
public:
    // Looks hosts up with lookUp; a test hands in its own.
    explicit Resolver(LookUpFunction lookUp = LookUpHost);
    ~Resolver();
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    // False if the descriptor could not be made.
    [[nodiscard]] bool IsOpen() const;
    // Readable while answers wait.
    [[nodiscard]] int Descriptor() const;
    // Starts looking the host up: the lookup's number, never 0 and never
    // given twice, which its answer carries.
    uint64_t Start(const std::string& host, uint16_t port);
    // The answers that have come.
    std::vector<LookupAnswer> Take();

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;  // also held by every lookup still running
    LookUpFunction lookUp_;
    uint64_t lastId_ = 0;
};

}  // namespace kb::virtual_ta
