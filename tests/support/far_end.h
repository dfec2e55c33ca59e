// One end of a serial line, played by a test. Either the hardware side of a
// new pseudo-terminal, whose other side the program opens as its port (the
// test plays the adapter), or a port opened as the program opens one, such as
// a virtual adapter's link (the test plays the program, or a peer of it).
//
// What arrives is kept until a read takes it: bytes behind the end of one
// read wait for the next. One thread reads; any thread may send.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/pseudo_terminal.h"

namespace kb::test {

using platform::PseudoTerminal;

class FarEnd {
public:
    // A new pseudo-terminal, the test at its hardware side.
    FarEnd();
    // The device at the path, opened as the program opens its port: raw, 8
    // data bits, RTS/CTS, at the speed. Throws if it cannot be opened.
    explicit FarEnd(const std::string& path, uint32_t speed = 115200);
    ~FarEnd();
    FarEnd(const FarEnd&) = delete;
    FarEnd& operator=(const FarEnd&) = delete;

    // Of a pseudo-terminal made here: the device that the program opens, a
    // link "COMn" to it in the folder, and the speed the program has set.
    const std::string& DevicePath() const { return terminal_.SlavePath; }
    void LinkAs(const std::string& folder, int portNumber) const;
    uint32_t Speed() const { return platform::PseudoTerminalSpeed(terminal_); }
    // Of a port opened here: moves it to another speed.
    void SetSpeed(uint32_t speed);
    // For a test that waits on several ends at once.
    int Descriptor() const { return fd_; }

    // Sends every byte, waiting while the line takes no more.
    void Send(std::string_view bytes);
    // Bytes went to the port past Send, through Descriptor(), and the
    // adapter took the last of them only now (the far end has them): the
    // escape's guard time counts from here.
    void NoteSentUntilNow();
    // Exactly count bytes, or what came before the time ran out.
    std::string Receive(size_t count, int timeoutMs);
    // Everything up to and including the marker; what came if it did not.
    std::string ReceiveUntil(const std::string& marker, int timeoutMs);
    // Everything up to and including the first of the markers to come; what
    // came if none did.
    std::string ReceiveUntilAny(const std::vector<std::string>& markers, int timeoutMs);
    // What comes within the time.
    std::string ReceiveFor(int timeoutMs);
    // What has come and not been taken, without waiting for more.
    std::string TakePending();

    // Talking to a terminal adapter. The command and CR; the exchange up to
    // its "OK\r\n" or "ERROR\r\n", or what came within the time.
    std::string Command(const std::string& command, int timeoutMs = 2000);
    // Dials and waits for CONNECT.
    bool Dial(const std::string& number);
    // Waits for RING, answers, waits for CONNECT.
    bool Answer(int timeoutMs);
    // Escape and ATH; true once the adapter is back on hook.
    bool HangUp();

private:
    // Takes everything up to the end of the line that holds the text; whether
    // it came within the time.
    bool LineWith(const std::string& text, int timeoutMs);
    // Takes in what the line brings, waiting until the deadline on the
    // monotonic clock in milliseconds; false once the time is up or the line
    // has gone.
    bool Fill(int64_t deadlineMs);

    PseudoTerminal terminal_;  // one made here
    int fd_ = -1;
    std::string pending_;
    std::atomic<int64_t> lastSendMs_{0};
};

}  // namespace kb::test
