// Alice and Bob: two stations, each in an installation of its own with a
// virtual adapter on COM1, Alice set to call Bob, and a folder of samples
// beside them.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "harness.h"
#include "platform/files.h"
#include "support/installation.h"
#include "support/wire_peer.h"

namespace kb::test {

using platform::CreateFolder;

class AliceAndBob {
public:
    // Bob's adapter is of the family given; Alice's is a BitSURFR. The
    // options are virtual-ta's: the line's rate, its faults.
    AliceAndBob(const std::string& bobFamily, const std::vector<std::string>& options)
        : AlicePath(MakeInstallation(Root, "alice")),
          BobPath(MakeInstallation(Root, "bob")),
          Adapters(
              {AlicePath + "/COM1=bitsurfr:5551001", BobPath + "/COM1=" + bobFamily + ":5552002"},
              options) {
        // Bob first: Alice's start-up, a second long, gives his adapter time
        // to take its incoming profile, so that her call rings him when he
        // listens and he answers its first ring rather than its second.
        Bob = WaitingStation(BobPath);
        Alice = WaitingStation(AlicePath);
        EXPECT_EQ(Alice->Command("name Bob"), "ok");
        EXPECT_EQ(Alice->Command("number 555-2002"), "ok");
        EXPECT_TRUE(CreateFolder(Root / "samples"));
    }

    // A sample file of the given bytes; its path.
    std::string Sample(const std::string& name, const std::string& bytes) {
        const std::string path = Root / "samples/" + name;
        WriteWholeFile(path, bytes);
        return path;
    }

    // Sample files, chosen one by one on Alice's file list.
    void Choose(const std::vector<peer::File>& files) {
        for (const peer::File& file : files) {
            EXPECT_EQ(Alice->Command("choose " + Sample(file.Name, file.Bytes)), "ok");
        }
    }

    // Alice presses Send; both sides see the session through.
    void SendThrough() {
        ASSERT_EQ(Alice->Command("send"), "ok");
        ASSERT_TRUE(Alice->WaitForLog("All files sent."));
        ASSERT_TRUE(Bob->WaitForLog("All files received."));
        BackToIdle();
    }

    // Both stations have their incoming profile again and are idle.
    void BackToIdle() {
        ASSERT_TRUE(Alice->WaitForLog("Reinitializing Incoming"));
        ASSERT_TRUE(Bob->WaitForLog("Reinitializing Incoming"));
        ASSERT_EQ(Alice->Command("wait-state idle 30"), "ok");
        ASSERT_EQ(Bob->Command("wait-state idle 30"), "ok");
    }

    // Both logs, for a failure's message.
    std::string Logs() const { return "alice:\n" + Alice->LogText() + "bob:\n" + Bob->LogText(); }

    std::string IncomingPath(const std::string& relative) const {
        return BobPath + "/Incoming Files/" + relative;
    }
    std::string Received(const std::string& relative) const {
        return ReadWholeFile(IncomingPath(relative));
    }

    TempFolder Root;
    std::string AlicePath;
    std::string BobPath;
    VirtualAdapters Adapters;
    std::unique_ptr<Station> Alice;
    std::unique_ptr<Station> Bob;
};

}  // namespace kb::test
