// Lock files for serial ports, as the serial programs of a Linux machine share
// them: before one of them opens a port it looks in the lock folder for
// "LCK.." and the device's name below /dev ("/" turned into "_"), and while it
// holds the port that file holds its process id.
//
// The lock folder is /var/lock, or the folder named by KESTRELBOUND_LOCK_DIR.
// A lock is read in both forms in use: the process id as ASCII text, and the
// old form of a bare binary int. A lock whose process has gone is removed; a
// lock is written as the process id in ten characters, right-aligned, and a
// newline.
#pragma once

#include <string>

namespace kb::platform {

// The folder where the locks are.
std::string PortLockFolder();

// The lock's file name for the device at path, after every symbolic link has
// been followed: "LCK..ttyS0" for /dev/ttyS0, "LCK..pts_3" for /dev/pts/3.
// "" for a device that is missing or not below /dev: such a device has no
// name that other programs would look for.
std::string PortLockName(const std::string& devicePath);

// How taking a lock went.
enum class PortLockResult {
    Taken,         // the lock file holds this process's id now
    HeldByOther,   // a living process holds the lock: the port is not to be used
    NotWritable,   // the lock folder cannot be written: the port is used without a lock
    NoDeviceName,  // the device has no lock name: the port is used without a lock
};

// The lock of one port. While it holds a lock, the lock file is also removed
// when the process exits through exit() or a return from main.
class PortLock {
public:
    PortLock() = default;
    ~PortLock() { Release(); }
    PortLock(const PortLock&) = delete;
    PortLock& operator=(const PortLock&) = delete;

    // Gives up any lock held, then takes the lock for the device at path.
    // Removes a lock left by a process that has gone. Two processes taking
    // the same lock at the same moment never both get it.
    [[nodiscard]] PortLockResult Take(const std::string& devicePath);
    // Removes the lock file if it still holds this process's id.
    void Release();
    // The lock file held; "" when none is.
    [[nodiscard]] const std::string& Path() const { return path_; }

private:
    std::string path_;
};

}  // namespace kb::platform
