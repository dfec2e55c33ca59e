// A relay between two virtual-ta processes on loopback, for tests that need
// the network between them to fail and for the benchmark that needs it to be
// far away: it takes connections on a port of its own and carries each on to
// the target port, both ways, each byte as long after it came as the delay
// says, until Cut closes every connection at once, as a network that fails
// would.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace kb::test {

// A port on 127.0.0.1 that was free a moment ago, for a virtual-ta that must
// listen on a port known before it starts.
uint16_t FreePort();
// The port that a virtual-ta started with --listen says it got, found in its
// output lines ("listening on HOST:PORT"); 0 if it said none.
uint16_t ListeningPort(const std::vector<std::string>& lines);
// The line ID that the virtual-ta program prints with --show-identity for
// the key file, made there if missing; "" if it prints none.
std::string ShowIdentity(const std::string& program, const std::string& keyPath);

class TcpRelay {
public:
    // Relays to 127.0.0.1:targetPort, each way after the delay. Throws if it
    // cannot listen.
    explicit TcpRelay(uint16_t targetPort,
                      std::chrono::microseconds delay = std::chrono::microseconds(0));
    ~TcpRelay();
    TcpRelay(const TcpRelay&) = delete;
    TcpRelay& operator=(const TcpRelay&) = delete;

    uint16_t Port() const { return port_; }
    // Bytes carried so far, both ways together.
    uint64_t Carried() const { return carried_; }
    // Closes every connection that stands, and returns once they are closed.
    // Connections made later are carried again.
    void Cut();

private:
    void Run();

    uint16_t targetPort_;
    std::chrono::microseconds delay_;
    uint16_t port_ = 0;
    int listener_ = -1;
    int wake_[2] = {-1, -1};  // a byte per request: 'c' cut, 's' stop
    int done_[2] = {-1, -1};  // a byte per cut done
    std::atomic<uint64_t> carried_{0};
    std::thread thread_;
};

}  // namespace kb::test
