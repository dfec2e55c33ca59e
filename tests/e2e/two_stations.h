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
#include "support/tcp_relay.h"
#include "support/wire_peer.h"

namespace kb::test {

class AliceAndBob {
public:
    // Bob's adapter is of the family given; Alice's is a BitSURFR. The
    // options are virtual-ta's: the line's rate, its faults. Apart, Bob's
    // adapter is on a tool of his own, and the two tools call each other
    // over TLS on loopback, each with a key of its own and the other's line
    // ID on its route.
    AliceAndBob(const std::string& bobFamily, const std::vector<std::string>& options,
                bool apart = false)
        : AlicePath(MakeInstallation(Root, "alice")),
          BobPath(MakeInstallation(Root, "bob")),
          BobsAdapters(
              apart ? std::make_unique<VirtualAdapters>(
                          std::vector<std::string>{BobPath + "/COM1=" + bobFamily + ":5552002"},
                          Apart(options, "bob", "127.0.0.1:0", "5551001", AlicesPort))
                    : nullptr),
          Adapters(apart ? std::vector<std::string>{AlicePath + "/COM1=bitsurfr:5551001"}
                         : std::vector<std::string>{AlicePath + "/COM1=bitsurfr:5551001",
                                                    BobPath + "/COM1=" + bobFamily + ":5552002"},
                   apart ? Apart(options, "alice", "127.0.0.1:" + std::to_string(AlicesPort),
                                 "5552002", ListeningPort(BobsAdapters->OutputLines()))
                         : options) {
        // Bob first: Alice's start-up, a second long, gives his adapter time
        // to take its incoming profile, so that her call rings him when he
        // listens and he answers its first ring rather than its second.
        Bob = WaitingStation(BobPath);
        Alice = WaitingStation(AlicePath);
        EXPECT_TRUE(Alice->Address("Bob", "555-2002"));
        EXPECT_TRUE(platform::CreateFolder(Root / "samples"));
    }

    // A sample file of the given bytes; its path.
    std::string Sample(const std::string& name, const std::string& bytes) {
        return Root.MakeFile("samples/" + name, bytes);
    }

    // Sample files, chosen one by one on Alice's file list.
    void Choose(const std::vector<peer::File>& files) {
        for (const peer::File& file : files) {
            EXPECT_EQ(Alice->Command("choose " + Sample(file.Name, file.Bytes)), "ok");
        }
    }

    // Alice presses Send, or gives the command that starts the call; both
    // sides see the session through.
    void SendThrough(const std::string& command = "send") {
        ASSERT_EQ(Alice->Command(command), "ok");
        ASSERT_TRUE(Alice->WaitForLog("All files sent."));
        ASSERT_TRUE(Bob->WaitForLog("All files received."));
        BackToIdle();
    }

    // Both stations have ended the call, have their incoming profile again
    // and are idle.
    void BackToIdle() {
        for (Station* station : {Alice.get(), Bob.get()}) {
            ASSERT_TRUE(station->WaitForLog("Disconnected")) << Logs();
            ASSERT_TRUE(station->WaitForLog("Reinitializing Incoming")) << Logs();
            ASSERT_EQ(station->Command("wait-state idle 30"), "ok");
        }
    }

    // Bob calls Alice and sends her a file of these bytes, which arrives
    // whole.
    void BobSendsBack(const std::string& bytes) {
        ASSERT_TRUE(Bob->Address("Alice", "5551001"));
        ASSERT_EQ(Bob->Command("choose " + Sample("back.bin", bytes)), "ok");
        ASSERT_EQ(Bob->Command("send"), "ok");
        ASSERT_TRUE(Bob->WaitForLog("All files sent.")) << Logs();
        ASSERT_TRUE(Alice->WaitForLog("All files received.")) << Logs();
        ExpectSameBytes(AlicePath + "/Incoming Files/back.bin", bytes);
    }

    // A tool of the two apart: its key in Root, listening on the address,
    // with a route for the other's number to the port and his line ID.
    std::vector<std::string> Apart(std::vector<std::string> options, const std::string& who,
                                   const std::string& listen, const std::string& number,
                                   uint16_t port) {
        const std::string other = who == "bob" ? "alice" : "bob";
        options.insert(options.end(),
                       {"--identity", Root / who + ".key", "--listen", listen, "--route",
                        number + "=127.0.0.1:" + std::to_string(port) + "/" +
                            ShowIdentity(VIRTUAL_TA_PATH, Root / other + ".key")});
        return options;
    }

    // Both logs, for a failure's message.
    std::string Logs() const { return "alice:\n" + Alice->LogText() + "bob:\n" + Bob->LogText(); }

    std::string IncomingPath(const std::string& relative) const {
        return BobPath + "/Incoming Files/" + relative;
    }

    TempFolder Root;
    std::string AlicePath;
    std::string BobPath;
    const uint16_t AlicesPort = FreePort();         // where her tool listens, when apart
    std::unique_ptr<VirtualAdapters> BobsAdapters;  // his tool, when apart
    VirtualAdapters Adapters;                       // hers, and his unless apart
    std::unique_ptr<Station> Alice;
    std::unique_ptr<Station> Bob;
};

}  // namespace kb::test
