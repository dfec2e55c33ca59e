// The device behind the line's port, as the line uses it.
//
// The line talks to a serial device on termios (SerialDevice) and to nothing
// else in the program. The operations are an interface so that a test or a
// fuzz target can put a device of its own under a real Line: one that hands
// the line's bytes straight to the far end in memory, without a
// pseudo-terminal between them and without waiting for the kernel to move
// them. Each operation means what SerialDevice says of it; another device
// must keep to that, since the line's reads, waits and hand-overs rely on it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kb::platform {

// Line settings, in the codes the program keeps in its port record.
struct SerialSettings {
    uint32_t BaudRate = 9600;  // 9600 to 230400
    uint8_t ByteSize = 8;      // 5 to 8
    uint8_t Parity = 0;        // 0 none, 1 odd, 2 even, 3 mark, 4 space
    uint8_t StopBits = 0;      // 0 one, 1 one and a half, 2 two
    bool DtrDsrFlow = false;   // not available on Linux: DTR is simply raised
    bool RtsCtsFlow = false;
    bool XonXoffFlow = false;  // XON 0x11, XOFF 0x13
};

// Why a wait ended.
enum class WaitResult { Input, Interrupted, TimedOut };

class PortDevice {
public:
    // The input queue the program expects of a driver, in bytes.
    static constexpr uint32_t QueueSize = 24576;

    PortDevice() = default;
    virtual ~PortDevice() = default;
    PortDevice(const PortDevice&) = delete;
    PortDevice& operator=(const PortDevice&) = delete;

    // False if the device is missing or held by another program.
    [[nodiscard]] virtual bool Open(const std::string& path) = 0;
    virtual void Close() = 0;
    [[nodiscard]] virtual bool IsOpen() const = 0;
    // False if the device refused a setting; the old ones then stay.
    [[nodiscard]] virtual bool Configure(const SerialSettings& settings) = 0;
    // Both queues go, and a write under way stops.
    virtual void Purge() = 0;
    // The output queue goes, and a write under way stops; the input stays.
    virtual void PurgeOutput() = 0;
    virtual void ClearDtr() = 0;
    // Bytes the line may read now, after taking in what has arrived, up to
    // QueueSize: beyond that the far end is held back.
    virtual uint32_t InputCount() = 0;
    // Bytes written and not yet gone to the far end.
    virtual uint32_t OutputCount() = 0;
    [[nodiscard]] virtual uint32_t Read(void* buffer, uint32_t count) = 0;
    // Every byte or false; never interleaved with another thread's write.
    [[nodiscard]] virtual bool Write(const void* bytes, uint32_t count) = 0;
    // Ends on input that has arrived and not yet been taken in by
    // InputCount or Read, on an Interrupt, or on the time. Input already
    // taken in does not end it: the line waits here for more than it holds.
    virtual WaitResult WaitForInput(int timeoutMs) = 0;
    // Ends the wait under way on another thread, or else the next one.
    virtual void Interrupt() = 0;
    // Ends on an Interrupt or the time only; true if interrupted.
    virtual bool WaitForInterrupt(int timeoutMs) = 0;
};

// How a line makes the device of its port, once, with the port's record.
// Null when memory is short.
using PortDeviceMaker = std::function<std::unique_ptr<PortDevice>()>;

}  // namespace kb::platform
