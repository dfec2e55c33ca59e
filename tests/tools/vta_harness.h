// What the tests of virtual-ta share: the tool run as a process, and its
// ports opened as a program opens a serial port.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/test_data.h"

// The tool, started with the given arguments and running until Stop or the
// end of the object. The start waits for "ready".
class VirtualTa {
public:
    explicit VirtualTa(const std::vector<std::string>& arguments);
    ~VirtualTa();
    VirtualTa(const VirtualTa&) = delete;
    VirtualTa& operator=(const VirtualTa&) = delete;

    bool Ready() const { return ready_; }
    // Sends the signal (SIGTERM unless told) and waits: the exit status, or
    // -1 if it did not end normally within five seconds.
    int Stop(int signalNumber = 15);

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

// The tool run to its end with a limit of ten seconds, as for bad arguments.
struct ToolRun {
    int ExitCode = -1;
    std::string Out;
    std::string Err;
};
ToolRun RunTool(const std::vector<std::string>& arguments);

// A port of the tool opened as the program opens one: the link's path,
// non-blocking, raw, 8 data bits, RTS/CTS, at a speed.
class TaPort {
public:
    explicit TaPort(const std::string& path, uint32_t speed = 9600);
    ~TaPort();
    TaPort(const TaPort&) = delete;
    TaPort& operator=(const TaPort&) = delete;

    bool IsOpen() const { return fd_ >= 0; }
    int Fd() const { return fd_; }
    void SetSpeed(uint32_t speed);

    // Writes every byte, waiting while the port takes no more.
    void Send(std::string_view bytes);
    // Reads until the text read holds the token, or the time is up; returns
    // what was read up to and including the token (all of it at the limit).
    // Bytes behind the token stay for the next read.
    std::string ReadUntil(std::string_view token, int timeoutMs);
    // Reads whatever comes within the time.
    std::string ReadFor(int timeoutMs);
    // Reads until count bytes have come or the time is up.
    std::string ReadCount(size_t count, int timeoutMs);
    // Takes what has been read but not yet handed out.
    std::string TakePending() {
        std::string text;
        text.swap(pending_);
        return text;
    }
    // Sends the command and CR, and reads the whole exchange up to its
    // "OK\r\n" or "ERROR\r\n".
    std::string Command(const std::string& command, int timeoutMs = 2000);

private:
    size_t Fill(int timeoutMs);

    int fd_ = -1;
    std::string pending_;
};

// Sends aToB into a and bToA into b at once and reads what comes out at the
// other ends, until each has the length sent or the time is up.
struct Transfer {
    std::string AtB;
    std::string AtA;
    double Seconds = 0;  // until the last byte arrived
};
Transfer TransferBothWays(TaPort& a, TaPort& b, const std::string& aToB, const std::string& bToA,
                          int timeoutMs);

// The caller dials the number and the answerer answers its RING with ATA.
// The texts each port showed, up to and including its CONNECT line, are
// returned; empty texts if no CONNECT came.
struct CallSetUp {
    std::string AtCaller;
    std::string AtAnswerer;
    bool Connected = false;
};
CallSetUp SetUpCall(TaPort& caller, TaPort& answerer, const std::string& dialString);

// Milliseconds of the monotonic clock.
int64_t MonotonicMs();
