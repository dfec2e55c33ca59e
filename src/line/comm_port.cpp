#include "line/comm_port.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "line/line.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/message_box.h"
#include "stores/installation.h"

namespace kb::line {

using namespace kb::platform;
using namespace kb::stores;

namespace {

constexpr uint32_t CommandBufferSize = 256;
constexpr uint32_t TokenLimit = 1022;  // more bytes than this and the read gives up

// Takes the lock file of the device; false when another program holds it.
bool LockDevice(PortLock& lock, const std::string& device, std::atomic<bool>& told,
                StatusLog& log) {
    switch (lock.Take(device)) {
        case PortLockResult::HeldByOther:
            return false;
        case PortLockResult::NotWritable: {
            // Said once: every search and every reopening would say it again.
            if (!told.exchange(true)) {
                log.Add("Cannot write lock files in " + PortLockFolder() +
                        "; ports are used without them.");
            }
            return true;
        }
        case PortLockResult::Taken:
        case PortLockResult::NoDeviceName:
            return true;
    }
    return true;
}

// Waits for the rest of a time limit that has elapsed ms of limitMs gone.
void WaitForRest(Line& line, int16_t limitMs, int16_t elapsedMs) {
    line.WaitForPortInput(static_cast<int>(limitMs) - static_cast<int>(elapsedMs));
}

}  // namespace

std::string CommPortDevicePath(const std::string& root, uint8_t portNumber) {
    const std::string link = root + "/COM" + std::to_string(portNumber);
    if (PathExists(link)) {
        return link;
    }
    return "/dev/ttyS" + std::to_string(static_cast<int>(portNumber) - 1);
}

Line::Line(Installation& stores, const platform::Clock& clock, PortDeviceMaker makeDevice)
    : Stores(stores), Clock(clock), makeDevice_(std::move(makeDevice)), readClock_(clock) {}

Line::~Line() {
    CommPortDestroy();
}

bool Line::CommPortCreate() {
    if (port_ != nullptr) {
        return true;
    }
    std::unique_ptr<CommPort> port(new (std::nothrow) CommPort);
    if (port == nullptr) {
        return false;
    }
    port->Handle = makeDevice_();
    if (port->Handle == nullptr) {
        return false;
    }
    port_ = std::move(port);
    return true;
}

bool Line::CommPortDestroy() {
    if (port_ == nullptr) {
        return false;
    }
    CommPortClose();
    port_.reset();
    return true;
}

bool Line::CommPortOpen() {
    CommPort* const port = port_.get();
    if (port == nullptr) {
        return false;
    }
    const std::string device = CommPortDevicePath(Stores.Paths.RootDirectory, port->PortNumber);
    if (!LockDevice(port->Lock, device, lockFilesTold_, Stores.Log)) {
        return false;
    }
    if (!port->Handle->Open(device)) {
        port->Lock.Release();
        return false;
    }
    port->Handle->Purge();
    port->SerialLimitTold.store(false);
    if (!CommPortConfigure()) {
        port->IsOpen.store(false);
        port->Handle->Close();
        port->Lock.Release();
        return false;
    }
    port->IsOpen.store(true);
    return true;
}

bool Line::CommPortConfigure() {
    if (port_ == nullptr || !port_->Handle->IsOpen()) {
        return false;
    }
    SerialSettings settings;
    settings.BaudRate = port_->BaudRate.load();
    settings.ByteSize = port_->ByteSize;
    settings.Parity = port_->Parity;
    settings.StopBits = port_->StopBits;
    settings.DtrDsrFlow = (port_->FlowControlFlags & FlowDtrDsr) != 0;
    settings.RtsCtsFlow = (port_->FlowControlFlags & FlowRtsCts) != 0;
    settings.XonXoffFlow = (port_->FlowControlFlags & FlowXonXoff) != 0;
    return port_->Handle->Configure(settings);
}

bool Line::CommPortClose() {
    if (port_ == nullptr) {
        return false;
    }
    if (port_->IsOpen.exchange(false)) {
        port_->Handle->ClearDtr();
        port_->Handle->Purge();
        port_->Handle->Close();
    }
    port_->Lock.Release();
    return true;
}

bool Line::CommPortWrite(const void* bytes, uint32_t length) {
    if (port_ == nullptr || !port_->IsOpen.load()) {
        return false;
    }
    const bool written = port_->Handle->Write(bytes, length);
    port_->LastWriteAt.store(Clock.NowMs());
    return written;
}

void Line::SendCommand(const char* text) {
    const size_t length = std::strlen(text);
    if (length > CommandBufferSize - 2) {
        return;
    }
    char command[CommandBufferSize];
    std::memcpy(command, text, length);
    command[length] = '\r';
    static_cast<void>(CommPortWrite(command, static_cast<uint32_t>(length + 1)));
}

void Line::SendBytes(const void* bytes, int16_t length) {
    if (length > 0) {
        static_cast<void>(CommPortWrite(bytes, static_cast<uint32_t>(length)));
    }
}

char* Line::ReadToToken(const char* token, int16_t timeoutMs, char* buffer, bool inStream) {
    if (port_ == nullptr) {
        return nullptr;
    }
    const size_t tokenLength = std::strlen(token);
    uint32_t index = 0;
    readClock_.Start();
    for (;;) {
        // Take what waits, one byte at a time: the token must be found at the
        // byte that completes it, so whatever follows it stays in the queue.
        for (uint32_t waiting = PortQueueCount(PortQueue::Input); waiting > 0; --waiting) {
            uint8_t byte = 0;
            if (port_->Handle->Read(&byte, 1) != 1) {
                break;
            }
            if (byte != 0) {
                buffer[index++] = static_cast<char>(byte);
                buffer[index] = '\0';
                // Everything before this byte was searched already, so a new
                // occurrence can only end here.
                if (index >= tokenLength &&
                    std::memcmp(buffer + index - tokenLength, token, tokenLength) == 0) {
                    return buffer + index - tokenLength;
                }
            }
            if (index > TokenLimit && inStream) {
                const uint32_t kept = index / 2;
                std::memmove(buffer, buffer + index - kept, kept);
                index = kept;
                buffer[index] = '\0';
            } else if (index > TokenLimit) {
                if (!port_->SerialLimitTold.exchange(true)) {
                    Stores.Log.Add("Serial Limit Reached");
                }
                return nullptr;
            }
        }
        const int16_t elapsed = readClock_.Elapsed();
        if (elapsed >= timeoutMs) {
            return nullptr;
        }
        WaitForRest(*this, timeoutMs, elapsed);
    }
}

char* Line::ReadUntilToken(const char* token, int16_t timeoutMs, char* buffer) {
    return ReadToToken(token, timeoutMs, buffer, false);
}

char* Line::ReadUntilTokenInStream(const char* token, int16_t timeoutMs, char* buffer) {
    return ReadToToken(token, timeoutMs, buffer, true);
}

void Line::ResetSerialLimitLine() {
    if (port_ != nullptr) {
        port_->SerialLimitTold.store(false);
    }
}

char* Line::ReadLine(int16_t timeoutMs, char* buffer) {
    return ReadUntilToken("\r\n", timeoutMs, buffer);
}

char* Line::ReadUntilOk(int16_t timeoutMs, char* buffer) {
    return ReadUntilToken("OK\r\n", timeoutMs, buffer);
}

uint32_t Line::ReadBlock(void* buffer, uint32_t count, int16_t timeoutMs) {
    if (port_ == nullptr) {
        return 0;
    }
    uint32_t lastSeen = 0;
    readClock_.Start();
    for (;;) {
        const uint32_t waiting = PortQueueCount(PortQueue::Input);
        if (waiting >= count) {
            return port_->Handle->Read(buffer, count);
        }
        if (waiting != lastSeen) {
            lastSeen = waiting;
            readClock_.Start();
        }
        const int16_t elapsed = readClock_.Elapsed();
        if (elapsed >= timeoutMs) {
            Stores.Log.Add("Read Buffer Timeout");
            return port_->Handle->Read(buffer, waiting);
        }
        WaitForRest(*this, timeoutMs, elapsed);
    }
}

void Line::DrainInput(int16_t quietMs) {
    static_cast<void>(DrainInputWithin(quietMs, UINT32_MAX));
}

bool Line::DrainInputWithin(int16_t quietMs, uint32_t longestMs) {
    if (port_ == nullptr) {
        return true;
    }
    uint8_t scratch[256];
    const uint32_t start = Clock.NowMs();
    readClock_.Start();
    for (;;) {
        if (PortQueueCount(PortQueue::Input) != 0) {
            while (port_->Handle->Read(scratch, sizeof scratch) > 0) {
            }
            readClock_.Start();
        }
        const int16_t elapsed = readClock_.Elapsed();
        if (elapsed >= quietMs) {
            return true;
        }
        if (Clock.NowMs() - start >= longestMs) {
            return false;
        }
        WaitForRest(*this, quietMs, elapsed);
    }
}

std::optional<size_t> Line::DrainUntilAny(std::initializer_list<std::string_view> texts,
                                          int16_t timeoutMs) {
    if (port_ == nullptr) {
        return std::nullopt;
    }
    size_t longest = 0;
    for (const std::string_view text : texts) {
        longest = std::max(longest, text.size());
    }
    // The end of what came, enough of it to hold a text cut between reads.
    std::string seen;
    char scratch[256];
    readClock_.Start();
    for (;;) {
        // A run at a time, so that a stream that never pauses still has the
        // time limit looked at.
        if (PortQueueCount(PortQueue::Input) != 0) {
            const uint32_t got = port_->Handle->Read(scratch, sizeof scratch);
            seen.append(scratch, got);
            size_t index = 0;
            for (const std::string_view text : texts) {
                if (seen.find(text) != std::string::npos) {
                    return index;
                }
                ++index;
            }
            if (seen.size() >= longest) {
                seen.erase(0, seen.size() - longest + 1);
            }
        }
        const int16_t elapsed = readClock_.Elapsed();
        if (elapsed >= timeoutMs) {
            return std::nullopt;
        }
        if (PortQueueCount(PortQueue::Input) == 0) {
            WaitForRest(*this, timeoutMs, elapsed);
        }
    }
}

uint32_t Line::PortQueueCount(PortQueue queue) {
    if (port_ == nullptr) {
        return 0;
    }
    return queue == PortQueue::Input ? port_->Handle->InputCount() : port_->Handle->OutputCount();
}

void Line::PurgePort() {
    if (port_ != nullptr) {
        port_->Handle->Purge();
    }
}

void Line::PurgeStuckOutput(uint32_t graceMs) {
    if (port_ == nullptr) {
        return;
    }
    const uint32_t since = Clock.NowMs() - port_->LastWriteAt.load();
    if (since < graceMs) {
        Clock.SleepMs(graceMs - since);
    }
    port_->Handle->PurgeOutput();
}

bool Line::EnableHardwareHandshake() {
    if (port_ == nullptr) {
        return false;
    }
    port_->FlowControlFlags = FlowRtsCts;
    if (!CommPortConfigure()) {
        ShowMessageBox("Cannot set hardware handshaking on comm port.");
        return false;
    }
    return true;
}

bool Line::SetPortSpeed(uint32_t bitsPerSecond) {
    if (port_ == nullptr) {
        return false;
    }
    port_->FlowControlFlags = FlowRtsCts;
    port_->BaudRate.store(bitsPerSecond);
    return CommPortConfigure();
}

void Line::SelectPortNumber(uint8_t portNumber) {
    if (port_ != nullptr) {
        port_->PortNumber = portNumber;
    }
}

void Line::SelectPortBaud(uint32_t bitsPerSecond) {
    if (port_ != nullptr) {
        port_->BaudRate.store(bitsPerSecond);
    }
}

WaitResult Line::WaitForPortInput(int timeoutMs) {
    if (port_ == nullptr) {
        Clock.SleepMs(static_cast<uint32_t>(timeoutMs > 0 ? timeoutMs : 0));
        return WaitResult::TimedOut;
    }
    return port_->Handle->WaitForInput(timeoutMs);
}

void Line::WaitForPortWake(int timeoutMs) {
    if (port_ == nullptr) {
        Clock.SleepMs(static_cast<uint32_t>(timeoutMs > 0 ? timeoutMs : 0));
        return;
    }
    port_->Handle->WaitForInterrupt(timeoutMs);
}

void Line::InterruptPortWait() {
    if (port_ != nullptr) {
        port_->Handle->Interrupt();
    }
}

}  // namespace kb::line
