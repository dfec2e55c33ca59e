// Alice and Bob: two stations, each in an installation of its own with a
// virtual adapter on COM1, Alice set to call Bob, and a folder of samples
// beside them.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "harness.h"
#include "installation.h"
#include "platform/files.h"

class AliceAndBob {
public:
    // Bob's adapter is of the family given; Alice's is a BitSURFR. The
    // options are virtual-ta's: the line's rate, its faults.
    AliceAndBob(const std::string& bobFamily, const std::vector<std::string>& options)
        : alicePath(MakeInstallation(root, "alice")), bobPath(MakeInstallation(root, "bob")) {
        adapters = std::make_unique<VirtualAdapters>(
            std::vector<std::string>{alicePath + "/COM1=bitsurfr:5551001",
                                     bobPath + "/COM1=" + bobFamily + ":5552002"},
            options);
        alice = std::make_unique<Station>(alicePath);
        bob = std::make_unique<Station>(bobPath);
        EXPECT_TRUE(alice->WaitForLog("Initializing Incoming"));
        EXPECT_TRUE(bob->WaitForLog("Initializing Incoming"));
        EXPECT_EQ(alice->Command("name Bob"), "ok");
        EXPECT_EQ(alice->Command("number 555-2002"), "ok");
        EXPECT_TRUE(CreateFolder(root / "samples"));
    }

    // A sample file of the given bytes; its path.
    std::string Sample(const std::string& name, const std::string& bytes) {
        const std::string path = root / "samples/" + name;
        WriteWholeFile(path, bytes);
        return path;
    }

    // Alice presses Send; both sides see the session through.
    void SendThrough() {
        ASSERT_EQ(alice->Command("send"), "ok");
        ASSERT_TRUE(alice->WaitForLog("All files sent."));
        ASSERT_TRUE(bob->WaitForLog("All files received."));
        BackToIdle();
    }

    // Both stations have their incoming profile again and are idle.
    void BackToIdle() {
        ASSERT_TRUE(alice->WaitForLog("Reinitializing Incoming"));
        ASSERT_TRUE(bob->WaitForLog("Reinitializing Incoming"));
        ASSERT_EQ(alice->Command("wait-state idle 30"), "ok");
        ASSERT_EQ(bob->Command("wait-state idle 30"), "ok");
    }

    std::string IncomingPath(const std::string& relative) const {
        return bobPath + "/Incoming Files/" + relative;
    }
    std::string Received(const std::string& relative) const {
        return ReadWholeFile(IncomingPath(relative));
    }

    TempFolder root;
    std::string alicePath;
    std::string bobPath;
    std::unique_ptr<VirtualAdapters> adapters;
    std::unique_ptr<Station> alice;
    std::unique_ptr<Station> bob;
};
