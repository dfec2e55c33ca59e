#include "virtual-ta/port.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kb::virtual_ta {

int Adapter::Setting(const char* name) const {
    const auto found = Registers.find(name);
    return found == Registers.end() ? 0 : std::atoi(found->second.c_str());
}

bool DtrIsDown(const Adapter& adapter) {
    termios settings{};
    return ::tcgetattr(adapter.Pty.Master, &settings) == 0 && ::cfgetospeed(&settings) == B0;
}

int OpenPortWatch() {
    return ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
}

bool WatchPort(int watch, Adapter& adapter) {
    // Opens that fail (a port in exclusive mode, say) are not noted, and a
    // descriptor shared by dup or fork is closed once, at its last close: the
    // notes pair up.
    adapter.WatchId = ::inotify_add_watch(watch, adapter.Pty.SlavePath.c_str(), IN_OPEN | IN_CLOSE);
    adapter.Openers = 0;
    return adapter.WatchId >= 0;
}

std::vector<PortNote> TakePortNotes(int watch) {
    std::vector<PortNote> notes;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(watch, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return notes;
        }
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
            inotify_event event{};
            std::memcpy(&event, buffer + at, sizeof event);
            if ((event.mask & (IN_OPEN | IN_CLOSE)) != 0) {
                notes.push_back(PortNote{event.wd, (event.mask & IN_OPEN) != 0});
            }
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
}

bool ClearLeftExclusiveMode(Adapter& adapter) {
    // The tool's own descriptor may clear it, whoever set it, without
    // privilege: it was opened before the mode was set.
    int exclusive = 0;
    if (::ioctl(adapter.Pty.SlaveKeeper, TIOCGEXCL, &exclusive) != 0 || exclusive == 0) {
        return false;
    }
    return ::ioctl(adapter.Pty.SlaveKeeper, TIOCNXCL) == 0;
}

void EmptyPort(Adapter& adapter) {
    ::tcflush(adapter.Pty.SlaveKeeper, TCIFLUSH);
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

}  // namespace kb::virtual_ta
