#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "harness.h"
#include "platform/files.h"
#include "platform/port_lock.h"
#include "support/installation.h"
#include "support/process_state.h"

namespace kb::test {

using namespace kb::platform;

// Alice's COM1 is locked by a living process (this test), so her search goes
// on to COM2; Bob's COM1 carries the lock of a process that has gone. Each
// station holds the lock of its port through a call, and gives it up when it
// quits and when SIGTERM ends it.
TEST(PortLocks, StationsHonourLivingLocksReplaceStaleOnesAndRemoveTheirOwnAtTheEnd) {
    TempFolder root;
    TempFolder locks;
    const EnvironmentValue lockFolder("KESTRELBOUND_LOCK_DIR", locks.Path());
    const std::string alice = MakeInstallation(root, "alice", 3);
    const std::string bob = MakeInstallation(root, "bob");
    VirtualAdapters adapters({alice + "/COM1=bitsurfr:5551001", alice + "/COM2=bitsurfr:5551002",
                              bob + "/COM1=3com:5552002"},
                             {"--rate", "8000"});
    const auto lockOf = [&](const std::string& port) { return locks / PortLockName(port); };
    const std::string aliceBlocked = lockOf(alice + "/COM1");
    const std::string aliceLock = lockOf(alice + "/COM2");
    const std::string bobLock = lockOf(bob + "/COM1");
    WriteWholeFile(aliceBlocked, TextLock(::getpid()));
    WriteWholeFile(bobLock, TextLock(GonePid()));

    auto aliceStation = WaitingStation(alice);
    auto bobStation = WaitingStation(bob);
    EXPECT_EQ(LinesHolding(aliceStation->LogLines(), {"Searching Comm Port"}),
              (std::vector<std::string>{"Searching Comm Port 1", "Searching Comm Port 2"}));

    WriteWholeFile(root / "note.bin", RandomBytes(16000, 7));
    EXPECT_TRUE(aliceStation->Address("Bob", "555-2002"));
    EXPECT_EQ(aliceStation->Command("choose " + (root / "note.bin")), "ok");
    ASSERT_EQ(aliceStation->Command("send"), "ok");
    ASSERT_TRUE(bobStation->WaitForLog("Receiving File: note.bin"));
    EXPECT_EQ(ReadWholeFile(aliceLock), TextLock(aliceStation->Pid()));
    EXPECT_EQ(ReadWholeFile(bobLock), TextLock(bobStation->Pid()));
    ASSERT_TRUE(aliceStation->WaitForLog("All files sent."));
    ASSERT_TRUE(bobStation->WaitForLog("All files received."));

    EXPECT_EQ(aliceStation->Quit(), 0);
    EXPECT_FALSE(PathExists(aliceLock));
    EXPECT_EQ(bobStation->Stop(SIGTERM), 0);
    EXPECT_FALSE(PathExists(bobLock));
    EXPECT_EQ(ReadWholeFile(aliceBlocked), TextLock(::getpid()));
}

}  // namespace kb::test
