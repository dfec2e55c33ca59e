#include "platform/port_lock.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace kb::platform {

namespace {

// The locks this process holds, for the removal at exit. Never freed, so that
// they are still there when the exit handlers run after the static objects
// have begun to go.
std::mutex& HeldLock() {
    static std::mutex* const Lock = new std::mutex;
    return *Lock;
}
std::vector<std::string>& HeldPaths() {
    static std::vector<std::string>* const Paths = new std::vector<std::string>;
    return *Paths;
}

struct Holder {
    bool Exists = false;
    pid_t Pid = 0;  // 0 when the file names no process
};

bool IsTextByte(char c) {
    return (c >= '0' && c <= '9') || c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

// Reads a lock in either form: ASCII digits, padded or not, or the binary int
// of older programs, which is exactly as long as an int and not text.
Holder ReadHolder(const std::string& lockPath) {
    Holder holder;
    const int fd = ::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        // A lock that is there but may not be read is honoured; a folder that
        // cannot be searched or is missing holds none.
        struct stat status {};
        holder.Exists = ::lstat(lockPath.c_str(), &status) == 0;
        return holder;
    }
    holder.Exists = true;
    char bytes[64];
    ssize_t length;
    do {
        length = ::read(fd, bytes, sizeof bytes - 1);
    } while (length < 0 && errno == EINTR);
    ::close(fd);
    if (length <= 0) {
        return holder;
    }
    if (length == static_cast<ssize_t>(sizeof(int)) &&
        !std::all_of(bytes, bytes + length, IsTextByte)) {
        int binary = 0;
        std::memcpy(&binary, bytes, sizeof binary);
        holder.Pid = binary > 0 ? binary : 0;
        return holder;
    }
    bytes[length] = '\0';
    char* end = nullptr;
    const long pid = std::strtol(bytes, &end, 10);
    const bool onlyBlanksAfter = std::all_of(end, bytes + length, [](char c) {
        return c == ' ' || c == '\n' || c == '\r' || c == '\t';
    });
    if (end != bytes && onlyBlanksAfter && pid > 0 && pid <= INT_MAX) {
        holder.Pid = static_cast<pid_t>(pid);
    }
    return holder;
}

// A process that kill refuses to signal is alive all the same.
bool ProcessLives(pid_t pid) {
    return ::kill(pid, 0) == 0 || errno != ESRCH;
}

// A holder opens the device right after it has taken the lock, so a lock
// younger than this is honoured whatever its process has open.
constexpr time_t OpeningGraceSeconds = 10;

// Whether the living process named by a lock that has stood a while still
// uses the device. A program killed without its exit handlers leaves its lock
// behind, and once enough processes have come and gone its id belongs to
// another, unrelated process, which would keep the port locked until the
// user removed the file by hand. Where the process's files cannot be seen
// (another user's process), it counts as using the device.
bool StillUsesDevice(pid_t pid, const std::string& lockPath, const std::string& device) {
    struct stat lockState {};
    if (::stat(lockPath.c_str(), &lockState) != 0 ||
        std::time(nullptr) - lockState.st_mtime < OpeningGraceSeconds) {
        return true;
    }
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    DIR* const files = ::opendir(folder.c_str());
    if (files == nullptr) {
        return true;
    }
    bool uses = false;
    while (const dirent* entry = ::readdir(files)) {
        char target[PATH_MAX];
        const std::string link = folder + "/" + entry->d_name;
        const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
        if (length > 0 &&
            device.compare(0, std::string::npos, target, static_cast<size_t>(length)) == 0) {
            uses = true;
            break;
        }
    }
    ::closedir(files);
    return uses;
}

// Writes this process's lock, complete, under a temporary name in the folder;
// "" if the folder takes no file.
std::string WriteTemporaryLock(const std::string& folder) {
    std::string path = folder + "/LTMP.XXXXXX";
    const int fd = ::mkstemp(path.data());
    if (fd < 0) {
        return "";
    }
    char text[16];
    const int length = std::snprintf(text, sizeof text, "%10d\n", static_cast<int>(::getpid()));
    // Other users' programs must be able to read who holds the port.
    const bool written = ::fchmod(fd, 0644) == 0 && ::write(fd, text, length) == length;
    if (::close(fd) != 0 || !written) {
        ::unlink(path.c_str());
        return "";
    }
    return path;
}

void RemoveHeldLocksAtExit() {
    std::lock_guard<std::mutex> guard(HeldLock());
    for (const std::string& path : HeldPaths()) {
        if (ReadHolder(path).Pid == ::getpid()) {
            ::unlink(path.c_str());
        }
    }
    HeldPaths().clear();
}

void NoteHeld(const std::string& path) {
    static std::once_flag Registered;
    std::call_once(Registered, [] { std::atexit(RemoveHeldLocksAtExit); });
    std::lock_guard<std::mutex> guard(HeldLock());
    HeldPaths().push_back(path);
}

void NoteReleased(const std::string& path) {
    std::lock_guard<std::mutex> guard(HeldLock());
    std::vector<std::string>& paths = HeldPaths();
    paths.erase(std::remove(paths.begin(), paths.end(), path), paths.end());
}

// The device a path names after every link; "" where it names nothing.
std::string ResolvedDevice(const std::string& devicePath) {
    char resolved[PATH_MAX];
    return ::realpath(devicePath.c_str(), resolved) != nullptr ? resolved : "";
}

// The lock's name for a resolved device; "" for one not below /dev.
std::string LockNameOf(const std::string& resolved) {
    std::string name = resolved;
    const std::string dev = "/dev/";
    if (name.rfind(dev, 0) != 0 || name.size() == dev.size()) {
        return "";
    }
    name.erase(0, dev.size());
    std::replace(name.begin(), name.end(), '/', '_');
    return "LCK.." + name;
}

}  // namespace

std::string PortLockFolder() {
    const char* const folder = std::getenv("KESTRELBOUND_LOCK_DIR");
    return folder != nullptr && *folder != '\0' ? folder : "/var/lock";
}

std::string PortLockName(const std::string& devicePath) {
    return LockNameOf(ResolvedDevice(devicePath));
}

PortLockResult PortLock::Take(const std::string& devicePath) {
    Release();
    const std::string device = ResolvedDevice(devicePath);
    const std::string name = LockNameOf(device);
    if (name.empty()) {
        return PortLockResult::NoDeviceName;
    }
    const std::string folder = PortLockFolder();
    const std::string lockPath = folder + "/" + name;
    // A second round is needed only when another program took or dropped
    // the lock between our look and our link.
    for (int round = 0; round < 3; ++round) {
        const Holder holder = ReadHolder(lockPath);
        if (holder.Exists) {
            if (holder.Pid == ::getpid()) {
                // Left by an earlier process that had our id: it is gone.
                path_ = lockPath;
                NoteHeld(lockPath);
                return PortLockResult::Taken;
            }
            // A lock that names no process may be one whose writer has not
            // written it yet, so it is honoured.
            if (holder.Pid == 0 ||
                (ProcessLives(holder.Pid) && StillUsesDevice(holder.Pid, lockPath, device))) {
                return PortLockResult::HeldByOther;
            }
            if (::unlink(lockPath.c_str()) != 0 && errno != ENOENT) {
                return PortLockResult::NotWritable;
            }
        }
        const std::string temporary = WriteTemporaryLock(folder);
        if (temporary.empty()) {
            return PortLockResult::NotWritable;
        }
        // link() never replaces an existing name, so of two processes racing
        // here only one gets the lock, and it appears with its content whole.
        const int linked = ::link(temporary.c_str(), lockPath.c_str());
        const int linkError = errno;
        ::unlink(temporary.c_str());
        if (linked == 0) {
            path_ = lockPath;
            NoteHeld(lockPath);
            return PortLockResult::Taken;
        }
        if (linkError != EEXIST) {
            return PortLockResult::NotWritable;
        }
    }
    return PortLockResult::HeldByOther;
}

void PortLock::Release() {
    if (path_.empty()) {
        return;
    }
    if (ReadHolder(path_).Pid == ::getpid()) {
        ::unlink(path_.c_str());
    }
    NoteReleased(path_);
    path_.clear();
}

}  // namespace kb::platform
