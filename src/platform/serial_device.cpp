#include "platform/serial_device.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "platform/serial_speed.h"

namespace kb::platform {

namespace {

// Clears an eventfd without blocking.
void DrainEvent(int eventFd) {
    uint64_t value = 0;
    while (::read(eventFd, &value, sizeof value) > 0) {
    }
}

void SignalEvent(int eventFd) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(eventFd, &one, sizeof one);
}

bool BuildTermios(const SerialSettings& settings, termios& t) {
    const std::optional<speed_t> code = SpeedCode(settings.BaudRate);
    if (!code) {
        return false;
    }
    ::cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    t.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS);
    switch (settings.ByteSize) {
        case 5:
            t.c_cflag |= CS5;
            break;
        case 6:
            t.c_cflag |= CS6;
            break;
        case 7:
            t.c_cflag |= CS7;
            break;
        case 8:
            t.c_cflag |= CS8;
            break;
        default:
            return false;
    }
    switch (settings.Parity) {
        case 0:
            break;
        case 1:
            t.c_cflag |= PARENB | PARODD;
            break;
        case 2:
            t.c_cflag |= PARENB;
            break;
        case 3:
            t.c_cflag |= PARENB | PARODD | CMSPAR;
            break;
        case 4:
            t.c_cflag |= PARENB | CMSPAR;
            break;
        default:
            return false;
    }
    switch (settings.StopBits) {
        case 0:
            break;
        case 2:
            t.c_cflag |= CSTOPB;
            break;
        default:  // one and a half stop bits has no termios form
            return false;
    }
    if (settings.RtsCtsFlow) {
        t.c_cflag |= CRTSCTS;
    }
    t.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    if (settings.XonXoffFlow) {
        t.c_iflag |= IXON | IXOFF;
    }
    t.c_cc[VSTART] = 0x11;
    t.c_cc[VSTOP] = 0x13;
    t.c_cc[VMIN] = 0;
    t.c_cc[VTIME] = 0;
    ::cfsetispeed(&t, *code);
    ::cfsetospeed(&t, *code);
    return true;
}

// True if the device holds what was asked of it.
bool SameSettings(const termios& wanted, const termios& got) {
    const tcflag_t cflagMask = CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS;
    return ::cfgetospeed(&wanted) == ::cfgetospeed(&got) &&
           (wanted.c_cflag & cflagMask) == (got.c_cflag & cflagMask) &&
           (wanted.c_iflag & (IXON | IXOFF)) == (got.c_iflag & (IXON | IXOFF));
}

}  // namespace

SerialDevice::SerialDevice() : queue_(new uint8_t[QueueSize]) {
    wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    abortFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

SerialDevice::~SerialDevice() {
    Close();
    ::close(wakeFd_);
    ::close(abortFd_);
    delete[] queue_;
}

bool SerialDevice::Open(const std::string& path) {
    Close();
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return false;
    }
    // A second program gets the same failure as for a missing port. TIOCEXCL
    // does not hold back a privileged process, the lock does.
    if (!::isatty(fd) || ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return false;
    }
    ::ioctl(fd, TIOCEXCL);
    {
        std::lock_guard<std::mutex> guard(queueLock_);
        head_ = 0;
        count_ = 0;
    }
    DrainEvent(wakeFd_);
    fd_.store(fd);
    return true;
}

void SerialDevice::Close() {
    const int fd = fd_.load();
    if (fd < 0) {
        return;
    }
    // Stop a write that waits on the device before taking the device away.
    purgeCount_.fetch_add(1);
    SignalEvent(abortFd_);
    std::lock_guard<std::mutex> writeGuard(writeLock_);
    std::lock_guard<std::mutex> queueGuard(queueLock_);
    DropHeld();
    xonXoff_.store(false);
    ClearDtr();
    ::tcflush(fd, TCIOFLUSH);
    ::ioctl(fd, TIOCNXCL);
    ::flock(fd, LOCK_UN);
    fd_.store(-1);
    ::close(fd);
    head_ = 0;
    count_ = 0;
}

bool SerialDevice::Configure(const SerialSettings& settings) {
    const int fd = fd_.load();
    if (fd < 0) {
        return false;
    }
    termios old{};
    if (::tcgetattr(fd, &old) != 0) {
        return false;
    }
    termios wanted = old;
    if (!BuildTermios(settings, wanted)) {
        return false;
    }
    termios got{};
    if (::tcsetattr(fd, TCSANOW, &wanted) != 0 || ::tcgetattr(fd, &got) != 0 ||
        !SameSettings(wanted, got)) {
        ::tcsetattr(fd, TCSANOW, &old);
        return false;
    }
    int lines = TIOCM_DTR | TIOCM_RTS;
    ::ioctl(fd, TIOCMBIS, &lines);  // fails where there are no modem lines
    xonXoff_.store(settings.XonXoffFlow);
    bool holding;
    {
        std::lock_guard<std::mutex> guard(heldLock_);
        holding = !held_.empty();
    }
    if (holding) {
        // Out of XON/XOFF the device's output runs again, and what it held
        // back goes out now; still in it, the next write tries again.
        std::lock_guard<std::mutex> guard(writeLock_);
        static_cast<void>(SendHeld(nullptr, 0, purgeCount_.load()));
    }
    return true;
}

void SerialDevice::Purge() {
    purgeCount_.fetch_add(1);
    SignalEvent(abortFd_);
    DropHeld();
    const int fd = fd_.load();
    if (fd >= 0) {
        ::tcflush(fd, TCIOFLUSH);
    }
    std::lock_guard<std::mutex> guard(queueLock_);
    head_ = 0;
    count_ = 0;
}

void SerialDevice::PurgeOutput() {
    purgeCount_.fetch_add(1);
    SignalEvent(abortFd_);
    DropHeld();
    const int fd = fd_.load();
    if (fd >= 0) {
        ::tcflush(fd, TCOFLUSH);
    }
}

void SerialDevice::ClearDtr() {
    const int fd = fd_.load();
    if (fd >= 0) {
        int lines = TIOCM_DTR;
        ::ioctl(fd, TIOCMBIC, &lines);
    }
}

void SerialDevice::FillQueue() {
    const int fd = fd_.load();
    if (fd < 0) {
        return;
    }
    while (count_ < QueueSize) {
        const uint32_t tail = (head_ + count_) % QueueSize;
        const uint32_t room = std::min(QueueSize - tail, QueueSize - count_);
        const ssize_t n = ::read(fd, queue_ + tail, room);
        if (n > 0) {
            count_ += static_cast<uint32_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break;
        }
    }
}

uint32_t SerialDevice::InputCount() {
    std::lock_guard<std::mutex> guard(queueLock_);
    FillQueue();
    return count_;
}

uint32_t SerialDevice::OutputCount() {
    uint32_t held;
    {
        std::lock_guard<std::mutex> guard(heldLock_);
        held = static_cast<uint32_t>(held_.size());
    }
    const int fd = fd_.load();
    int waiting = 0;
    if (fd < 0 || ::ioctl(fd, TIOCOUTQ, &waiting) != 0 || waiting < 0) {
        return held;
    }
    return held + static_cast<uint32_t>(waiting);
}

uint32_t SerialDevice::Read(void* buffer, uint32_t count) {
    std::lock_guard<std::mutex> guard(queueLock_);
    if (count_ < count) {
        FillQueue();
    }
    const uint32_t taken = std::min(count, count_);
    auto* out = static_cast<uint8_t*>(buffer);
    const uint32_t first = std::min(taken, QueueSize - head_);
    std::memcpy(out, queue_ + head_, first);
    std::memcpy(out + first, queue_, taken - first);
    head_ = (head_ + taken) % QueueSize;
    count_ -= taken;
    if (count_ == 0) {
        head_ = 0;
    }
    return taken;
}

bool SerialDevice::Write(const void* bytes, uint32_t count) {
    std::lock_guard<std::mutex> guard(writeLock_);
    // A signal of an earlier purge may still stand on abortFd_; a wait below
    // that sees it finds the purge count unchanged and simply goes on.
    return SendHeld(static_cast<const uint8_t*>(bytes), count, purgeCount_.load());
}

bool SerialDevice::SendHeld(const uint8_t* bytes, uint32_t count, uint32_t purgeSeen) {
    std::string waiting;
    {
        std::lock_guard<std::mutex> guard(heldLock_);
        waiting.swap(held_);
    }
    if (waiting.empty()) {
        return Send(bytes, count, purgeSeen);
    }
    if (count > 0) {
        waiting.append(reinterpret_cast<const char*>(bytes), count);
    }
    return Send(reinterpret_cast<const uint8_t*>(waiting.data()),
                static_cast<uint32_t>(waiting.size()), purgeSeen);
}

bool SerialDevice::Send(const uint8_t* in, uint32_t count, uint32_t purgeSeen) {
    uint32_t done = 0;
    while (done < count) {
        if (purgeCount_.load() != purgeSeen) {
            return false;
        }
        const int fd = fd_.load();
        if (fd < 0) {
            return false;
        }
        const ssize_t n = ::write(fd, in + done, count - done);
        if (n > 0) {
            done += static_cast<uint32_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN) {
            return false;
        }
        if (xonXoff_.load() && count - done <= QueueSize) {
            // Held back, perhaps by an XOFF: queued as a driver queues it.
            std::lock_guard<std::mutex> guard(heldLock_);
            if (purgeCount_.load() != purgeSeen) {
                return false;
            }
            held_.assign(reinterpret_cast<const char*>(in + done), count - done);
            return true;
        }
        // The device takes no more for now: wait until it does, or a purge.
        pollfd waits[2] = {{fd, POLLOUT, 0}, {abortFd_, POLLIN, 0}};
        if (::poll(waits, 2, -1) < 0 && errno != EINTR) {
            return false;
        }
        if (waits[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
            return false;
        }
        if (waits[1].revents & POLLIN) {
            DrainEvent(abortFd_);
        }
    }
    return true;
}

void SerialDevice::DropHeld() {
    std::lock_guard<std::mutex> guard(heldLock_);
    held_.clear();
}

WaitResult SerialDevice::WaitForInput(int timeoutMs) {
    const int fd = fd_.load();
    bool queueFull;
    {
        std::lock_guard<std::mutex> guard(queueLock_);
        queueFull = count_ >= QueueSize;
    }
    // With the queue full, new input could not be taken anyway; and a device
    // whose far side is gone reports a hang-up at once, on every poll. In both
    // cases only an interruption or the time ends the wait.
    pollfd waits[2] = {{wakeFd_, POLLIN, 0}, {queueFull ? -1 : fd, POLLIN, 0}};
    const int ready = ::poll(waits, 2, std::max(timeoutMs, 0));
    if (ready > 0 && (waits[0].revents & POLLIN)) {
        DrainEvent(wakeFd_);
        return WaitResult::Interrupted;
    }
    const short hangUp = POLLHUP | POLLERR | POLLNVAL;
    if (ready > 0 && (waits[1].revents & POLLIN) && !(waits[1].revents & hangUp)) {
        return WaitResult::Input;
    }
    if (ready > 0 && (waits[1].revents & hangUp)) {
        // A device whose far side has gone reports input that a read never
        // delivers. Only what a read really takes counts.
        {
            std::lock_guard<std::mutex> guard(queueLock_);
            const uint32_t before = count_;
            FillQueue();
            if (count_ != before) {
                return WaitResult::Input;
            }
        }
        pollfd wake = {wakeFd_, POLLIN, 0};
        if (::poll(&wake, 1, std::max(timeoutMs, 0)) > 0) {
            DrainEvent(wakeFd_);
            return WaitResult::Interrupted;
        }
    }
    return WaitResult::TimedOut;
}

void SerialDevice::Interrupt() {
    SignalEvent(wakeFd_);
}

bool SerialDevice::WaitForInterrupt(int timeoutMs) {
    pollfd wake = {wakeFd_, POLLIN, 0};
    if (::poll(&wake, 1, std::max(timeoutMs, 0)) > 0) {
        DrainEvent(wakeFd_);
        return true;
    }
    return false;
}

std::unique_ptr<PortDevice> MakeSerialDevice() {
    return std::make_unique<SerialDevice>();
}

}  // namespace kb::platform
