#include "virtual-ta/port.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

int Adapter::Setting(const char* name) const {
    const auto found = Registers.find(name);
    return found == Registers.end() ? 0 : std::atoi(found->second.c_str());
}

bool DtrIsDown(const Adapter& adapter) {
    termios settings{};
    return ::tcgetattr(adapter.Pty.Master, &settings) == 0 && ::cfgetospeed(&settings) == B0;
}

void LetGoOfPort(Adapter& adapter) {
    if (adapter.Pty.SlaveKeeper >= 0) {
        ::close(adapter.Pty.SlaveKeeper);
        adapter.Pty.SlaveKeeper = -1;
    }
}

void HoldPort(Adapter& adapter, bool emptied) {
    if (adapter.Pty.SlaveKeeper < 0) {
        adapter.Pty.SlaveKeeper =
            ::open(adapter.Pty.SlavePath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    }
    if (emptied && adapter.Pty.SlaveKeeper >= 0) {
        ::tcflush(adapter.Pty.SlaveKeeper, TCIFLUSH);
    }
}

bool MakeLink(const std::string& path, const std::string& target, std::string& error) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISLNK(status.st_mode)) {
        error = "'" + path + "' exists and is not a link";
        return false;
    }
    // Make the new link beside the old one and move it over, so that the
    // path never stands empty or half made.
    const std::string temporary = path + ".virtual-ta-" + std::to_string(::getpid());
    ::unlink(temporary.c_str());
    if (::symlink(target.c_str(), temporary.c_str()) != 0 ||
        ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        error = "cannot make the link '" + path + "'";
        return false;
    }
    return true;
}

void RemoveLink(const std::string& path, const std::string& target) {
    char buffer[4096];
    const ssize_t length = ::readlink(path.c_str(), buffer, sizeof buffer - 1);
    if (length > 0 && std::string(buffer, static_cast<size_t>(length)) == target) {
        ::unlink(path.c_str());
    }
}

bool HearPurges(int fd) {
    int on = 1;
    return ::ioctl(fd, TIOCPKT, &on) == 0;
}

size_t ReadPort(int fd, void* buffer, size_t count, bool* purged) {
    for (;;) {
        // In packet mode each read starts with a byte of its own: 0 in front
        // of data, or alone, the news of the program's flushes.
        uint8_t status = 0;
        iovec parts[2] = {{&status, 1}, {buffer, count}};
        const ssize_t n = ::readv(fd, parts, 2);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return 0;
        }
        if (status == TIOCPKT_DATA) {
            return static_cast<size_t>(n - 1);
        }
        if ((status & TIOCPKT_FLUSHWRITE) != 0 && purged != nullptr) {
            *purged = true;
            return 0;
        }
    }
}

void DiscardPortInput(int fd) {
    ::tcflush(fd, TCIFLUSH);
}

size_t WritePort(int fd, const void* bytes, size_t count, bool& blocked) {
    size_t done = 0;
    blocked = false;
    while (done < count) {
        const ssize_t n = ::write(fd, static_cast<const char*>(bytes) + done, count - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            blocked = true;
            break;
        }
    }
    return done;
}

size_t BytesWaiting(int fd) {
    int count = 0;
    if (::ioctl(fd, FIONREAD, &count) != 0 || count < 0) {
        return 0;
    }
    return static_cast<size_t>(count);
}
