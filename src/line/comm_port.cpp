#include "line/comm_port.h"

#include "line/adapter.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/files.h"
#include "platform/message_box.h"
#include "stores/installation.h"

CommPort* ThePort = nullptr;
char TokenBuffer[TokenBufferSize];
std::recursive_mutex PortReadLock;

namespace {

constexpr uint32_t CommandBufferSize = 256;
constexpr uint32_t TokenLimit = 1022;  // more bytes than this and the read gives up

// Takes the lock file of the device; false when another program holds it.
bool LockDevice(PortLock& lock, const std::string& device) {
    switch (lock.Take(device)) {
        case PortLockResult::HeldByOther:
            return false;
        case PortLockResult::NotWritable: {
            // Said once: every search and every reopening would say it again.
            static std::atomic<bool> Told{false};
            if (!Told.exchange(true)) {
                LineStores->Log.Add("Cannot write lock files in " + PortLockFolder() +
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
void WaitForRest(int16_t limitMs, int16_t elapsedMs) {
    WaitForPortInput(static_cast<int>(limitMs) - static_cast<int>(elapsedMs));
}

}  // namespace

std::string CommPortDevicePath(uint8_t portNumber) {
    const std::string link = LineStores->Paths.RootDirectory + "/COM" + std::to_string(portNumber);
    if (PathExists(link)) {
        return link;
    }
    return "/dev/ttyS" + std::to_string(static_cast<int>(portNumber) - 1);
}

bool CommPortCreate() {
    if (ThePort != nullptr) {
        return true;
    }
    ThePort = new (std::nothrow) CommPort;
    return ThePort != nullptr;
}

bool CommPortDestroy() {
    if (ThePort == nullptr) {
        return false;
    }
    CommPortClose();
    delete ThePort;
    ThePort = nullptr;
    return true;
}

bool CommPortOpen() {
    CommPort* const port = ThePort;
    if (port == nullptr) {
        return false;
    }
    const std::string device = CommPortDevicePath(port->PortNumber);
    if (!LockDevice(port->Lock, device)) {
        return false;
    }
    if (!port->Handle.Open(device)) {
        port->Lock.Release();
        return false;
    }
    port->Handle.Purge();
    port->SerialLimitTold.store(false);
    if (!CommPortConfigure()) {
        port->IsOpen.store(false);
        port->Handle.Close();
        port->Lock.Release();
        return false;
    }
    port->IsOpen.store(true);
    return true;
}

bool CommPortConfigure() {
    if (ThePort == nullptr || !ThePort->Handle.IsOpen()) {
        return false;
    }
    SerialSettings settings;
    settings.BaudRate = ThePort->BaudRate.load();
    settings.ByteSize = ThePort->ByteSize;
    settings.Parity = ThePort->Parity;
    settings.StopBits = ThePort->StopBits;
    settings.DtrDsrFlow = (ThePort->FlowControlFlags & FlowDtrDsr) != 0;
    settings.RtsCtsFlow = (ThePort->FlowControlFlags & FlowRtsCts) != 0;
    settings.XonXoffFlow = (ThePort->FlowControlFlags & FlowXonXoff) != 0;
    return ThePort->Handle.Configure(settings);
}

bool CommPortClose() {
    if (ThePort == nullptr) {
        return false;
    }
    if (ThePort->IsOpen.exchange(false)) {
        ThePort->Handle.ClearDtr();
        ThePort->Handle.Purge();
        ThePort->Handle.Close();
    }
    ThePort->Lock.Release();
    return true;
}

bool CommPortWrite(const void* bytes, uint32_t length) {
    if (ThePort == nullptr || !ThePort->IsOpen.load()) {
        return false;
    }
    const bool written = ThePort->Handle.Write(bytes, length);
    ThePort->LastWriteAt.store(NowMs());
    return written;
}

void SendCommand(const char* text) {
    const size_t length = std::strlen(text);
    if (length > CommandBufferSize - 2) {
        return;
    }
    char command[CommandBufferSize];
    std::memcpy(command, text, length);
    command[length] = '\r';
    static_cast<void>(CommPortWrite(command, static_cast<uint32_t>(length + 1)));
}

void SendBytes(const void* bytes, int16_t length) {
    if (length > 0) {
        static_cast<void>(CommPortWrite(bytes, static_cast<uint32_t>(length)));
    }
}

namespace {

// The read of ReadUntilToken; with inStream, a full buffer drops its older
// half instead of ending the read.
char* ReadToToken(const char* token, int16_t timeoutMs, char* buffer, bool inStream) {
    if (ThePort == nullptr) {
        return nullptr;
    }
    const size_t tokenLength = std::strlen(token);
    uint32_t index = 0;
    StartElapsed();
    for (;;) {
        // Take what waits, one byte at a time: the token must be found at the
        // byte that completes it, so whatever follows it stays in the queue.
        for (uint32_t waiting = PortQueueCount(PortQueue::Input); waiting > 0; --waiting) {
            uint8_t byte = 0;
            if (ThePort->Handle.Read(&byte, 1) != 1) {
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
                if (!ThePort->SerialLimitTold.exchange(true)) {
                    LineStores->Log.Add("Serial Limit Reached");
                }
                return nullptr;
            }
        }
        const int16_t elapsed = ElapsedMs();
        if (elapsed >= timeoutMs) {
            return nullptr;
        }
        WaitForRest(timeoutMs, elapsed);
    }
}

}  // namespace

char* ReadUntilToken(const char* token, int16_t timeoutMs, char* buffer) {
    return ReadToToken(token, timeoutMs, buffer, false);
}

char* ReadUntilTokenInStream(const char* token, int16_t timeoutMs, char* buffer) {
    return ReadToToken(token, timeoutMs, buffer, true);
}

void ResetSerialLimitLine() {
    if (ThePort != nullptr) {
        ThePort->SerialLimitTold.store(false);
    }
}

char* ReadLine(int16_t timeoutMs, char* buffer) {
    return ReadUntilToken("\r\n", timeoutMs, buffer);
}

char* ReadUntilOk(int16_t timeoutMs, char* buffer) {
    return ReadUntilToken("OK\r\n", timeoutMs, buffer);
}

uint32_t ReadBlock(void* buffer, uint32_t count, int16_t timeoutMs) {
    if (ThePort == nullptr) {
        return 0;
    }
    uint32_t lastSeen = 0;
    StartElapsed();
    for (;;) {
        const uint32_t waiting = PortQueueCount(PortQueue::Input);
        if (waiting >= count) {
            return ThePort->Handle.Read(buffer, count);
        }
        if (waiting != lastSeen) {
            lastSeen = waiting;
            StartElapsed();
        }
        const int16_t elapsed = ElapsedMs();
        if (elapsed >= timeoutMs) {
            LineStores->Log.Add("Read Buffer Timeout");
            return ThePort->Handle.Read(buffer, waiting);
        }
        WaitForRest(timeoutMs, elapsed);
    }
}

void DrainInput(int16_t quietMs) {
    static_cast<void>(DrainInputWithin(quietMs, UINT32_MAX));
}

bool DrainInputWithin(int16_t quietMs, uint32_t longestMs) {
    if (ThePort == nullptr) {
        return true;
    }
    uint8_t scratch[256];
    const uint32_t start = NowMs();
    StartElapsed();
    for (;;) {
        if (PortQueueCount(PortQueue::Input) != 0) {
            while (ThePort->Handle.Read(scratch, sizeof scratch) > 0) {
            }
            StartElapsed();
        }
        const int16_t elapsed = ElapsedMs();
        if (elapsed >= quietMs) {
            return true;
        }
        if (NowMs() - start >= longestMs) {
            return false;
        }
        WaitForRest(quietMs, elapsed);
    }
}

std::optional<size_t> DrainUntilAny(std::initializer_list<std::string_view> texts,
                                    int16_t timeoutMs) {
    if (ThePort == nullptr) {
        return std::nullopt;
    }
    size_t longest = 0;
    for (const std::string_view text : texts) {
        longest = std::max(longest, text.size());
    }
    // The end of what came, enough of it to hold a text cut between reads.
    std::string seen;
    char scratch[256];
    StartElapsed();
    for (;;) {
        // A run at a time, so that a stream that never pauses still has the
        // time limit looked at.
        if (PortQueueCount(PortQueue::Input) != 0) {
            const uint32_t got = ThePort->Handle.Read(scratch, sizeof scratch);
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
        const int16_t elapsed = ElapsedMs();
        if (elapsed >= timeoutMs) {
            return std::nullopt;
        }
        if (PortQueueCount(PortQueue::Input) == 0) {
            WaitForRest(timeoutMs, elapsed);
        }
    }
}

uint32_t PortQueueCount(PortQueue queue) {
    if (ThePort == nullptr) {
        return 0;
    }
    return queue == PortQueue::Input ? ThePort->Handle.InputCount() : ThePort->Handle.OutputCount();
}

void PurgePort() {
    if (ThePort != nullptr) {
        ThePort->Handle.Purge();
    }
}

void PurgeStuckOutput(uint32_t graceMs) {
    if (ThePort == nullptr) {
        return;
    }
    const uint32_t since = NowMs() - ThePort->LastWriteAt.load();
    if (since < graceMs) {
        SleepMs(graceMs - since);
    }
    ThePort->Handle.PurgeOutput();
}

bool EnableHardwareHandshake() {
    if (ThePort == nullptr) {
        return false;
    }
    ThePort->FlowControlFlags = FlowRtsCts;
    if (!CommPortConfigure()) {
        ShowMessageBox("Cannot set hardware handshaking on comm port.");
        return false;
    }
    return true;
}

bool SetPortSpeed(uint32_t bitsPerSecond) {
    if (ThePort == nullptr) {
        return false;
    }
    ThePort->FlowControlFlags = FlowRtsCts;
    ThePort->BaudRate.store(bitsPerSecond);
    return CommPortConfigure();
}

void SelectPortNumber(uint8_t portNumber) {
    if (ThePort != nullptr) {
        ThePort->PortNumber = portNumber;
    }
}

void SelectPortBaud(uint32_t bitsPerSecond) {
    if (ThePort != nullptr) {
        ThePort->BaudRate.store(bitsPerSecond);
    }
}

WaitResult WaitForPortInput(int timeoutMs) {
    if (ThePort == nullptr) {
        SleepMs(static_cast<uint32_t>(timeoutMs > 0 ? timeoutMs : 0));
        return WaitResult::TimedOut;
    }
    return ThePort->Handle.WaitForInput(timeoutMs);
}

void WaitForPortWake(int timeoutMs) {
    if (ThePort == nullptr) {
        SleepMs(static_cast<uint32_t>(timeoutMs > 0 ? timeoutMs : 0));
        return;
    }
    ThePort->Handle.WaitForInterrupt(timeoutMs);
}

void InterruptPortWait() {
    if (ThePort != nullptr) {
        ThePort->Handle.Interrupt();
    }
}
