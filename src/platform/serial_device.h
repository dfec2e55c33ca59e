// A serial device on termios: the line's device (platform/port_device.h) on
// a real port or pseudo-terminal, and the only one the program itself makes.
//
// The program expects 24576-byte input and output queues in the driver. A
// Linux tty reports at most 4095 bytes waiting, and a pseudo-terminal reports
// no output queue at all, so the input queue lives here in user space: it is
// filled from the device without blocking whenever its count is asked for,
// and once it is full nothing more is read, so that the kernel and the far
// end's flow control hold the stream.
//
// With XON/XOFF, a driver takes a write into its output queue even while an
// XOFF from the far end holds the output; a pseudo-terminal takes nothing
// then, and a write would wait until an XON that may never come (the data of
// a call left on the adapter may bring an XOFF and then stop). So what the
// device holds back under XON/XOFF is queued here, up to the queue's size,
// and goes out ahead of the next write, or when new settings take the device
// out of XON/XOFF, which frees its output.
//
// All operations may be called from several threads. Writes of whole runs
// never interleave. No operation busy-waits: waiting is done in poll(2).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/port_device.h"

namespace kb::platform {

class SerialDevice final : public PortDevice {
public:
    SerialDevice();
    ~SerialDevice() override;
    SerialDevice(const SerialDevice&) = delete;
    SerialDevice& operator=(const SerialDevice&) = delete;

    // Opens the device for exclusive use. False if it is missing, is no
    // terminal, or is held by another program.
    [[nodiscard]] bool Open(const std::string& path) override;
    // Drops DTR, throws both queues away and gives the device up.
    void Close() override;
    [[nodiscard]] bool IsOpen() const override { return fd_.load() >= 0; }

    // Applies the settings in raw mode. False if the device refused any of them;
    // the old settings then stay.
    [[nodiscard]] bool Configure(const SerialSettings& settings) override;

    // Throws away both queues, in the kernel and here, and stops a write that
    // is under way.
    void Purge() override;
    // Throws away the output queue and stops a write that is under way; the
    // input stays.
    void PurgeOutput() override;
    // Drops the DTR line; ignored where the device has no modem lines.
    void ClearDtr() override;

    // Bytes waiting in the input queue, after taking in what the device holds.
    uint32_t InputCount() override;
    // Bytes waiting in the driver's output queue, those queued here included;
    // 0 where neither holds any or the device cannot tell.
    uint32_t OutputCount() override;
    // Takes up to count bytes from the input queue; returns how many.
    [[nodiscard]] uint32_t Read(void* buffer, uint32_t count) override;
    // Writes every byte, waiting while the device takes no more; under
    // XON/XOFF, what the device holds back is queued instead, as above. False
    // if the device failed or a purge stopped the write.
    [[nodiscard]] bool Write(const void* bytes, uint32_t count) override;

    // Waits until the device may have new input, another thread calls
    // Interrupt, or the time is up. Returns at once if input is already waiting
    // in the device.
    WaitResult WaitForInput(int timeoutMs) override;
    // Ends a WaitForInput or WaitForInterrupt on another thread; if none is
    // under way, the next one returns at once.
    void Interrupt() override;
    // Waits only for an interruption or the time, whatever the device does:
    // for a reader that must leave the device alone for now. True if
    // interrupted.
    bool WaitForInterrupt(int timeoutMs) override;

private:
    // Moves what the device holds into the queue, while there is room.
    void FillQueue();
    // Writes the bytes, waiting while the device takes no more, or, under
    // XON/XOFF, queueing in held_ what it holds back. Called with writeLock_
    // held; false if the device failed or a purge since purgeSeen stopped it.
    [[nodiscard]] bool Send(const uint8_t* bytes, uint32_t count, uint32_t purgeSeen);
    // Sends what held_ keeps, behind it the bytes given. Called with
    // writeLock_ held.
    [[nodiscard]] bool SendHeld(const uint8_t* bytes, uint32_t count, uint32_t purgeSeen);
    // Empties held_: at a purge and at the close.
    void DropHeld();

    std::atomic<int> fd_{-1};
    int wakeFd_ = -1;   // eventfd behind Interrupt
    int abortFd_ = -1;  // eventfd that wakes a waiting write when the queues are purged
    std::mutex queueLock_;
    std::mutex writeLock_;
    std::atomic<uint32_t> purgeCount_{0};
    uint8_t* queue_;
    uint32_t head_ = 0;  // next byte to take
    uint32_t count_ = 0;
    std::atomic<bool> xonXoff_{false};  // the settings last taken hold XON/XOFF
    std::mutex heldLock_;
    std::string held_;  // written, but held back by the device under XON/XOFF
};

// The maker every line is given unless a test gives another.
[[nodiscard]] std::unique_ptr<PortDevice> MakeSerialDevice();

}  // namespace kb::platform
