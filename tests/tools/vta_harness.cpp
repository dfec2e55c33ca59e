#include "vta_harness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

#include "platform/clock.h"

namespace kb::test {

using namespace kb::platform;

void VirtualTaTest::Start(const std::vector<std::string>& arguments, int descriptorLimit,
                          bool unprivileged, ChildProcess::Errors errors) {
    ports_.clear();
    tool_.reset();
    tool_ = std::make_unique<ChildProcess>(VIRTUAL_TA_PATH, arguments, "", errors, descriptorLimit,
                                           unprivileged);
    if (!tool_->WaitForLine("ready", std::chrono::seconds(10))) {
        throw std::runtime_error("virtual-ta did not become ready");
    }
}

FarEnd& VirtualTaTest::Port(const std::string& name, uint32_t speed) {
    ports_.push_back(std::make_unique<FarEnd>(folder_ / name, speed));
    return *ports_.back();
}

std::vector<std::string> Concatenated(std::vector<std::string> first,
                                      const std::vector<std::string>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

bool ParseArguments(const std::vector<std::string>& arguments, virtual_ta::Options& options,
                    std::string& error) {
    std::vector<const char*> argv = {"virtual-ta"};
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    return virtual_ta::ParseCommandLine(static_cast<int>(argv.size()), argv.data(), options, error);
}

int SilentConnection(uint16_t port, const std::string& address, const std::string& from) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    sockaddr_in self{};
    self.sin_family = AF_INET;
    const timeval limit{10, 0};  // a blocking connect waits no longer than a send
    if ((!from.empty() && (::inet_pton(AF_INET, from.c_str(), &self.sin_addr) != 1 ||
                           ::bind(fd, reinterpret_cast<sockaddr*>(&self), sizeof self) != 0)) ||
        ::inet_pton(AF_INET, address.c_str(), &to.sin_addr) != 1 ||
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0 ||
        ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool WaitForTrace(const std::string& path, const std::string& text, size_t count, int timeoutMs) {
    // The tool writes each line with one write, so a line read is whole.
    return PollUntil([&] { return Occurrences(ReadWholeFile(path), text) >= count; },
                     std::chrono::milliseconds(timeoutMs));
}

Transfer TransferBothWays(FarEnd& a, FarEnd& b, const std::string& aToB, const std::string& bToA,
                          int timeoutMs) {
    Transfer result;
    // The two ends alike: what each has to send, and what it has received.
    FarEnd* ends[2] = {&a, &b};
    const std::string* out[2] = {&aToB, &bToA};
    std::string* in[2] = {&result.AtA, &result.AtB};
    size_t sent[2] = {0, 0};
    result.AtA = a.TakePending();
    result.AtB = b.TakePending();
    const uint64_t start = MonotonicNs();
    const uint64_t deadline = start + static_cast<uint64_t>(timeoutMs) * 1000000;
    while ((result.AtB.size() < aToB.size() || result.AtA.size() < bToA.size()) &&
           MonotonicNs() < deadline) {
        pollfd entries[2];
        for (int i = 0; i < 2; ++i) {
            const bool sending = sent[i] < out[i]->size();
            entries[i] = {ends[i]->Descriptor(),
                          static_cast<short>(sending ? POLLIN | POLLOUT : POLLIN), 0};
        }
        ::poll(entries, 2, 100);
        for (int i = 0; i < 2; ++i) {
            if ((entries[i].revents & POLLOUT) != 0) {
                const ssize_t n =
                    ::write(entries[i].fd, out[i]->data() + sent[i], out[i]->size() - sent[i]);
                sent[i] += n > 0 ? static_cast<size_t>(n) : 0;
            }
            char buffer[65536];
            const ssize_t n = (entries[i].revents & POLLIN) != 0
                                  ? ::read(entries[i].fd, buffer, sizeof buffer)
                                  : 0;
            if (n > 0) {
                in[i]->append(buffer, static_cast<size_t>(n));
            }
        }
    }
    result.Seconds = static_cast<double>(MonotonicNs() - start) / 1e9;
    // A slow tool (a sanitized one, over TLS) takes the last bytes from the
    // port long after they were written: a hang-up's "+++" must keep its
    // guard time from then.
    a.NoteSentUntilNow();
    b.NoteSentUntilNow();
    return result;
}

void ExpectCarried(FarEnd& a, FarEnd& b, const std::string& aToB, const std::string& bToA) {
    const Transfer transfer = TransferBothWays(a, b, aToB, bToA, 3000);
    EXPECT_EQ(transfer.AtB, aToB);
    EXPECT_EQ(transfer.AtA, bToA);
}

bool SetUpCall(FarEnd& caller, FarEnd& answerer, const std::string& dialString) {
    caller.Send("ATD" + dialString + "\r");
    // The caller's CONNECT is followed by the rest of its line, its speed.
    return answerer.Answer(3000) &&
           caller.ReceiveUntil("CONNECT ", 3000).find("CONNECT ") != std::string::npos &&
           !caller.ReceiveUntil("\r\n", 1000).empty();
}

void CallEachWay(FarEnd& alice, FarEnd& bob, const std::string& bobsNumber,
                 const std::string& callBack, const std::string& up, const std::string& down) {
    alice.SetSpeed(57600);
    const MonotonicClock clock;
    const uint32_t dialled = clock.NowMs();
    alice.Send("ATD" + bobsNumber + "\r");
    EXPECT_EQ(bob.ReceiveUntil("RING\r\n", 3000), "\r\nRING\r\n");
    EXPECT_LT(clock.NowMs() - dialled, 500u) << "the called end rings at once";
    EXPECT_EQ(alice.ReceiveUntil("RINGING\r\n", 3000), "ATD" + bobsNumber + "\r\r\nRINGING\r\n");
    bob.Send("ATA\r");
    EXPECT_EQ(bob.ReceiveUntil("CONNECT 115200\r\n", 3000), "ATA\r\r\nCONNECT 115200\r\n");
    EXPECT_EQ(alice.ReceiveUntil("CONNECT 57600\r\n", 3000), "\r\nCONNECT 57600\r\n");
    const Transfer transfer = TransferBothWays(alice, bob, up, down, 30000);
    EXPECT_TRUE(transfer.AtB == up) << transfer.AtB.size() << " bytes arrived";
    EXPECT_TRUE(transfer.AtA == down) << transfer.AtA.size() << " bytes arrived";
    ASSERT_TRUE(alice.HangUp());
    EXPECT_EQ(bob.ReceiveUntil("NO CARRIER\r\n", 3000), "\r\nNO CARRIER\r\n");

    alice.SetSpeed(115200);
    bob.Send("ATD" + callBack + "\r");
    EXPECT_EQ(alice.ReceiveUntil("RING\r\n", 3000), "\r\nRING\r\n");
    alice.Send("ATA\r");
    EXPECT_EQ(alice.ReceiveUntil("CONNECT 115200\r\n", 3000), "ATA\r\r\nCONNECT 115200\r\n");
    EXPECT_EQ(bob.ReceiveUntil("CONNECT 115200\r\n", 3000),
              "ATD" + callBack + "\r\r\nRINGING\r\n\r\nCONNECT 115200\r\n");
    ExpectCarried(bob, alice, "to alice", "to bob");
    bob.Send("last words");
    ASSERT_TRUE(bob.HangUp());
    EXPECT_EQ(alice.ReceiveUntil("NO CARRIER\r\n", 3000), "last words\r\nNO CARRIER\r\n");
    EXPECT_EQ(alice.Command("AT"), "AT\r\r\nOK\r\n");
}

void ExpectFailedDial(FarEnd& caller, const std::string& number, const std::string& result) {
    SCOPED_TRACE(number);
    const std::string dial = "ATD" + number + "\r";
    const MonotonicClock clock;
    const uint32_t start = clock.NowMs();
    caller.Send(dial);
    EXPECT_EQ(caller.ReceiveUntil(result + "\r\n", 3000), dial + "\r\n" + result + "\r\n");
    EXPECT_GE(clock.NowMs() - start, 400u) << "after the exchange's delay";
    EXPECT_LT(clock.NowMs() - start, 2000u);
    EXPECT_EQ(caller.Command("AT"), "AT\r\r\nOK\r\n") << "back in command mode";
}

}  // namespace kb::test
