// The hardware side of a pseudo-terminal, played by a test: whatever the
// program writes to its port arrives here, and what the test sends arrives in
// the program's input.
#pragma once

#include <cstdint>
#include <string>

#include "platform/pseudo_terminal.h"

class FarEnd {
public:
    FarEnd();
    ~FarEnd();
    FarEnd(const FarEnd&) = delete;
    FarEnd& operator=(const FarEnd&) = delete;

    // The device path that the program opens.
    const std::string& DevicePath() const { return terminal_.SlavePath; }
    // Makes a link "COMn" in the folder that points at the device.
    void LinkAs(const std::string& folder, int portNumber) const;

    // Sends bytes to the program, all of them.
    void Send(const std::string& bytes) const;
    // Receives what the program has written, waiting until at least count
    // bytes have come or the time is up; returns what came.
    std::string Receive(size_t count, int timeoutMs) const;
    // Receives until the text ends with the marker or the time is up.
    std::string ReceiveUntil(const std::string& marker, int timeoutMs) const;
    // What has come so far, without waiting.
    std::string ReceiveAvailable() const;
    // The pseudo-terminal's own end, for a reader of its own.
    int Master() const { return terminal_.Master; }
    // The speed the program has set on its side.
    uint32_t Speed() const { return PseudoTerminalSpeed(terminal_); }

private:
    PseudoTerminal terminal_;
};
