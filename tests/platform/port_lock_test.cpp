#include "platform/port_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "platform/files.h"
#include "platform/pseudo_terminal.h"
#include "support/child_process.h"
#include "support/process_state.h"
#include "support/temp_folder.h"

namespace kb::test {

using namespace kb::platform;

namespace {

std::string BinaryLock(pid_t pid) {
    const int value = pid;
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

// The lock folder of the test, in the environment as the program reads it.
class LockFolder {
public:
    LockFolder() : value_("KESTRELBOUND_LOCK_DIR", folder_.Path()) {}
    std::string operator/(const std::string& name) const { return folder_ / name; }

private:
    TempFolder folder_;
    EnvironmentValue value_;
};

}  // namespace

TEST(PortLock, IsNamedForTheDeviceTakesAStaleLockRefusesALivingOneAndNeedsAFolder) {
    // A lock is named for the device the links resolve to.
    TempFolder root;
    ASSERT_EQ(::symlink("/dev/null", (root / "COM1").c_str()), 0);
    ASSERT_EQ(::symlink((root / "COM1").c_str(), (root / "COM2").c_str()), 0);
    ASSERT_EQ(::symlink("/dev/pts/ptmx", (root / "COM3").c_str()), 0);
    WriteWholeFile(root / "COM4", "");
    const struct {
        std::string Path;
        std::string Name;
    } cases[] = {
        {"/dev/null", "LCK..null"},   {root / "COM1", "LCK..null"},
        {root / "COM2", "LCK..null"}, {root / "COM3", "LCK..pts_ptmx"},
        {root / "COM4", ""},          {root / "COM5", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PortLockName(c.Path), c.Name) << c.Path;
    }

    LockFolder locks;
    const std::string lockPath = locks / "LCK..null";
    // A free lock taken, its text, and its removal with the port are the
    // port's and the stations' tests; here, the other kinds of lock found.
    const std::string own = TextLock(::getpid());
    for (const std::string& living : {TextLock(::getppid()), BinaryLock(::getppid()),
                                      std::string("garbage\n"), std::to_string(::getppid())}) {
        WriteWholeFile(lockPath, living);
        PortLock lock;
        EXPECT_EQ(lock.Take("/dev/null"), PortLockResult::HeldByOther);
        EXPECT_EQ(ReadWholeFile(lockPath), living);
        lock.Release();
        EXPECT_EQ(ReadWholeFile(lockPath), living) << "only a lock of our own is removed";
    }

    const pid_t gone = GonePid();
    for (const std::string& stale : {TextLock(gone), BinaryLock(gone)}) {
        WriteWholeFile(lockPath, stale);
        PortLock lock;
        EXPECT_EQ(lock.Take("/dev/null"), PortLockResult::Taken);
        EXPECT_EQ(ReadWholeFile(lockPath), own);
        // Another program's lock in its place is left alone.
        WriteWholeFile(lockPath, TextLock(::getppid()));
        lock.Release();
        EXPECT_EQ(ReadWholeFile(lockPath), TextLock(::getppid()));
        ASSERT_TRUE(DeleteFileAt(lockPath));
    }

    // A folder that takes no file leaves the port unlocked, and so does a
    // port with no device to name.
    WriteWholeFile(locks / "file", "");
    PortLock lock;
    for (const std::string& folder : {locks / "missing", locks / "file"}) {
        const EnvironmentValue inFolder("KESTRELBOUND_LOCK_DIR", folder);
        EXPECT_EQ(lock.Take("/dev/null"), PortLockResult::NotWritable) << folder;
        EXPECT_EQ(lock.Path(), "");
    }
    EXPECT_EQ(lock.Take(root / "COM4"), PortLockResult::NoDeviceName);
}

// A killed program's lock whose id now belongs to some other living
// process: once it has stood past the opening's grace, it is taken unless that
// process has the device open.
TEST(PortLock, AnOldLockOfALivingProcessWithoutTheDeviceIsStale) {
    LockFolder locks;
    PseudoTerminal terminal;
    ASSERT_TRUE(OpenPseudoTerminal(terminal));
    const std::string lockPath = locks / PortLockName(terminal.SlavePath);
    // A process that opens the device, says so, and keeps it open until the
    // test ends.
    ChildProcess user("/bin/sh",
                      {"-c", "exec 3<>\"$0\" && echo opened && read -r line", terminal.SlavePath});
    ASSERT_TRUE(user.WaitForLine("opened", std::chrono::seconds(10)))
        << "the device's user could not open it";
    struct Case {
        const char* What;
        pid_t Pid;
        time_t Age;
        PortLockResult Result;
    } const cases[] = {
        {"a new lock of a process that has not opened the device yet", ::getppid(), 0,
         PortLockResult::HeldByOther},
        {"an old lock of the process that uses the device", user.Pid(), 60,
         PortLockResult::HeldByOther},
        {"an old lock of a process that does not", ::getppid(), 60, PortLockResult::Taken},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.What);
        WriteWholeFile(lockPath, TextLock(c.Pid));
        const time_t then = std::time(nullptr) - c.Age;
        const timespec when[2] = {{then, 0}, {then, 0}};
        EXPECT_EQ(::utimensat(AT_FDCWD, lockPath.c_str(), when, 0), 0);
        PortLock lock;
        EXPECT_EQ(lock.Take(terminal.SlavePath), c.Result);
    }
    ClosePseudoTerminal(terminal);
}

TEST(PortLock, ALockHeldAtExitIsRemoved) {
    LockFolder locks;
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        // Never destroyed: only the exit itself can remove the lock. A static
        // pointer keeps the leak checker from calling it a leak.
        static PortLock* const Held = new PortLock;
        std::exit(Held->Take("/dev/null") == PortLockResult::Taken &&
                          PathExists(locks / "LCK..null")
                      ? 0
                      : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(PathExists(locks / "LCK..null"));
}

}  // namespace kb::test
