#include "vta_harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <stdexcept>

#include "platform/serial_speed.h"

int64_t MonotonicMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

namespace {

std::vector<char*> ArgumentVector(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    static std::string Name = VIRTUAL_TA_PATH;
    argv.push_back(Name.data());
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

// Reads what a descriptor has into text until the deadline; false at its end.
bool ReadSome(int fd, std::string& text, int64_t deadline) {
    const int64_t left = deadline - MonotonicMs();
    if (left <= 0) {
        return false;
    }
    pollfd entry{fd, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(left)) <= 0) {
        return true;
    }
    char buffer[4096];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) {
        return false;
    }
    text.append(buffer, static_cast<size_t>(n));
    return true;
}

}  // namespace

VirtualTa::VirtualTa(const std::vector<std::string>& arguments) {
    int out[2];
    if (::pipe(out) != 0) {
        throw std::runtime_error("pipe");
    }
    std::vector<char*> argv = ArgumentVector(arguments);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(out[1], 1);
        ::close(out[0]);
        ::close(out[1]);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    std::string text;
    const int64_t deadline = MonotonicMs() + 10000;
    while (text.find("ready\n") == std::string::npos && ReadSome(out[0], text, deadline)) {
    }
    ready_ = text.find("ready\n") != std::string::npos;
    ::close(out[0]);
}

VirtualTa::~VirtualTa() {
    Stop();
}

int VirtualTa::Stop(int signalNumber) {
    if (pid_ <= 0) {
        return -1;
    }
    ::kill(pid_, signalNumber);
    int status = 0;
    const int64_t deadline = MonotonicMs() + 5000;
    pid_t done = 0;
    while ((done = ::waitpid(pid_, &status, WNOHANG)) == 0 && MonotonicMs() < deadline) {
        ::usleep(10000);
    }
    if (done == 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ToolRun RunTool(const std::vector<std::string>& arguments) {
    int out[2];
    int err[2];
    if (::pipe(out) != 0 || ::pipe(err) != 0) {
        throw std::runtime_error("pipe");
    }
    std::vector<char*> argv = ArgumentVector(arguments);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::close(out[0]);
        ::close(out[1]);
        ::close(err[0]);
        ::close(err[1]);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    ToolRun run;
    const int64_t deadline = MonotonicMs() + 10000;
    bool outOpen = true;
    bool errOpen = true;
    while ((outOpen || errOpen) && MonotonicMs() < deadline) {
        pollfd entries[2] = {{outOpen ? out[0] : -1, POLLIN, 0},
                             {errOpen ? err[0] : -1, POLLIN, 0}};
        ::poll(entries, 2, 100);
        char buffer[4096];
        if (outOpen && entries[0].revents != 0) {
            const ssize_t n = ::read(out[0], buffer, sizeof buffer);
            n > 0 ? static_cast<void>(run.Out.append(buffer, static_cast<size_t>(n)))
                  : static_cast<void>(outOpen = false);
        }
        if (errOpen && entries[1].revents != 0) {
            const ssize_t n = ::read(err[0], buffer, sizeof buffer);
            n > 0 ? static_cast<void>(run.Err.append(buffer, static_cast<size_t>(n)))
                  : static_cast<void>(errOpen = false);
        }
    }
    ::close(out[0]);
    ::close(err[0]);
    int status = 0;
    pid_t done = 0;
    while ((done = ::waitpid(pid, &status, WNOHANG)) == 0 && MonotonicMs() < deadline) {
        ::usleep(5000);
    }
    if (done == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return run;
    }
    run.ExitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

TaPort::TaPort(const std::string& path, uint32_t speed) {
    fd_ = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
        return;
    }
    termios settings{};
    ::tcgetattr(fd_, &settings);
    ::cfmakeraw(&settings);
    settings.c_cflag |= CREAD | CLOCAL | CRTSCTS;
    ::tcsetattr(fd_, TCSANOW, &settings);
    SetSpeed(speed);
}

TaPort::~TaPort() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void TaPort::SetSpeed(uint32_t speed) {
    termios settings{};
    ::tcgetattr(fd_, &settings);
    ::cfsetispeed(&settings, SpeedCode(speed));
    ::cfsetospeed(&settings, SpeedCode(speed));
    ::tcsetattr(fd_, TCSANOW, &settings);
}

void TaPort::Send(std::string_view bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd entry{fd_, POLLOUT, 0};
            ::poll(&entry, 1, 100);
        } else {
            throw std::runtime_error("cannot write to the port");
        }
    }
}

size_t TaPort::Fill(int timeoutMs) {
    pollfd entry{fd_, POLLIN, 0};
    if (::poll(&entry, 1, timeoutMs) <= 0) {
        return 0;
    }
    char buffer[65536];
    const ssize_t n = ::read(fd_, buffer, sizeof buffer);
    if (n <= 0) {
        return 0;
    }
    pending_.append(buffer, static_cast<size_t>(n));
    return static_cast<size_t>(n);
}

std::string TaPort::ReadUntil(std::string_view token, int timeoutMs) {
    const int64_t deadline = MonotonicMs() + timeoutMs;
    for (;;) {
        const size_t found = pending_.find(token);
        if (found != std::string::npos) {
            std::string text = pending_.substr(0, found + token.size());
            pending_.erase(0, found + token.size());
            return text;
        }
        const int64_t left = deadline - MonotonicMs();
        if (left <= 0) {
            std::string text;
            text.swap(pending_);
            return text;
        }
        Fill(static_cast<int>(left));
    }
}

std::string TaPort::ReadFor(int timeoutMs) {
    const int64_t deadline = MonotonicMs() + timeoutMs;
    for (int64_t left = timeoutMs; left > 0; left = deadline - MonotonicMs()) {
        Fill(static_cast<int>(left));
    }
    std::string text;
    text.swap(pending_);
    return text;
}

std::string TaPort::ReadCount(size_t count, int timeoutMs) {
    const int64_t deadline = MonotonicMs() + timeoutMs;
    while (pending_.size() < count) {
        const int64_t left = deadline - MonotonicMs();
        if (left <= 0) {
            break;
        }
        Fill(static_cast<int>(left));
    }
    std::string text = pending_.substr(0, count);
    pending_.erase(0, text.size());
    return text;
}

std::string TaPort::Command(const std::string& command, int timeoutMs) {
    Send(command + "\r");
    const int64_t deadline = MonotonicMs() + timeoutMs;
    for (;;) {
        for (const char* end : {"OK\r\n", "ERROR\r\n"}) {
            const size_t found = pending_.find(end);
            if (found != std::string::npos) {
                const size_t length = found + std::string_view(end).size();
                std::string text = pending_.substr(0, length);
                pending_.erase(0, length);
                return text;
            }
        }
        const int64_t left = deadline - MonotonicMs();
        if (left <= 0) {
            std::string text;
            text.swap(pending_);
            return text;
        }
        Fill(static_cast<int>(left));
    }
}

Transfer TransferBothWays(TaPort& a, TaPort& b, const std::string& aToB, const std::string& bToA,
                          int timeoutMs) {
    Transfer result;
    result.AtA = a.TakePending();
    result.AtB = b.TakePending();
    result.AtA.reserve(bToA.size());
    result.AtB.reserve(aToB.size());
    size_t sentA = 0;
    size_t sentB = 0;
    const int64_t start = MonotonicMs();
    const int64_t deadline = start + timeoutMs;
    char buffer[65536];
    while ((result.AtB.size() < aToB.size() || result.AtA.size() < bToA.size()) &&
           MonotonicMs() < deadline) {
        pollfd entries[2] = {{a.Fd(), POLLIN, 0}, {b.Fd(), POLLIN, 0}};
        if (sentA < aToB.size()) {
            entries[0].events |= POLLOUT;
        }
        if (sentB < bToA.size()) {
            entries[1].events |= POLLOUT;
        }
        ::poll(entries, 2, 100);
        if ((entries[0].revents & POLLOUT) != 0) {
            const ssize_t n = ::write(a.Fd(), aToB.data() + sentA, aToB.size() - sentA);
            sentA += n > 0 ? static_cast<size_t>(n) : 0;
        }
        if ((entries[1].revents & POLLOUT) != 0) {
            const ssize_t n = ::write(b.Fd(), bToA.data() + sentB, bToA.size() - sentB);
            sentB += n > 0 ? static_cast<size_t>(n) : 0;
        }
        if ((entries[0].revents & POLLIN) != 0) {
            const ssize_t n = ::read(a.Fd(), buffer, sizeof buffer);
            if (n > 0) {
                result.AtA.append(buffer, static_cast<size_t>(n));
            }
        }
        if ((entries[1].revents & POLLIN) != 0) {
            const ssize_t n = ::read(b.Fd(), buffer, sizeof buffer);
            if (n > 0) {
                result.AtB.append(buffer, static_cast<size_t>(n));
            }
        }
    }
    result.Seconds = static_cast<double>(MonotonicMs() - start) / 1000.0;
    return result;
}

CallSetUp SetUpCall(TaPort& caller, TaPort& answerer, const std::string& dialString) {
    CallSetUp result;
    caller.Send("ATD" + dialString + "\r");
    result.AtAnswerer = answerer.ReadUntil("RING\r\n", 3000);
    if (result.AtAnswerer.find("RING") == std::string::npos) {
        return result;
    }
    answerer.Send("ATA\r");
    result.AtAnswerer += answerer.ReadUntil("CONNECT ", 3000);
    result.AtAnswerer += answerer.ReadUntil("\r\n", 1000);
    result.AtCaller = caller.ReadUntil("CONNECT ", 3000);
    result.AtCaller += caller.ReadUntil("\r\n", 1000);
    result.Connected = result.AtCaller.find("CONNECT ") != std::string::npos &&
                       result.AtAnswerer.find("CONNECT ") != std::string::npos;
    return result;
}
