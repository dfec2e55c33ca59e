// A station and an independent implementation of the protocol (the peer),
// each on a virtual adapter of its own, the peer's port opened by the test.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "harness.h"
#include "platform/files.h"
#include "support/installation.h"
#include "support/wire_peer.h"

namespace kb::test {

// The files that came to the peer are those the station sent, in order, or
// in any order when they are a folder's, which goes as the folder lists it.
// Compared whole, so that a failure does not print the data.
inline void ExpectArrived(std::vector<peer::File> arrived, const std::vector<peer::File>& sent,
                          bool anyOrder = false) {
    if (anyOrder) {
        std::sort(arrived.begin(), arrived.end(),
                  [](const peer::File& a, const peer::File& b) { return a.Name < b.Name; });
    }
    EXPECT_TRUE(arrived == sent) << arrived.size() << " of " << sent.size() << " files arrived";
}

class PeerAndStation : public ::testing::Test {
protected:
    void SetUp() override {
        stationPath_ = MakeInstallation(root_, "station");
        adapters_ = std::make_unique<VirtualAdapters>(
            std::vector<std::string>{stationPath_ + "/COM1=bitsurfr:5552002",
                                     root_ / "peer-port=zyxel-2864:5553003"},
            std::vector<std::string>{"--rate", "0"});
        station_ = WaitingStation(stationPath_);
        port_ = std::make_unique<FarEnd>(root_ / "peer-port");
        ASSERT_NE(port_->Command("AT").find("OK\r\n"), std::string::npos);
    }

    // The station calls the peer, which answers; what it sends is already
    // in its list.
    void CallThePeer() {
        ASSERT_TRUE(station_->Address("Peer", "5553003"));
        ASSERT_EQ(station_->Command("send"), "ok");
        ASSERT_TRUE(port_->Answer(30000));
    }

    // Sample files of these bytes, chosen for the station to send.
    void Choose(const std::vector<peer::File>& files) {
        for (const peer::File& file : files) {
            ASSERT_EQ(
                station_->Command("choose " + root_.MakeFile("samples/" + file.Name, file.Bytes)),
                "ok");
        }
    }

    // The station hangs up on the peer and is idle again; what the peer
    // heard up to the NO CARRIER.
    std::string StationHangsUp() {
        const std::string heard = port_->ReceiveUntil("NO CARRIER", 15000);
        EXPECT_NE(heard.find("NO CARRIER"), std::string::npos);
        EXPECT_TRUE(station_->WaitForLog("Disconnected")) << LogText();
        EXPECT_EQ(station_->Command("wait-state idle 30"), "ok");
        return heard;
    }

    // The peer calls the station, sends it the files, in the folder if one is
    // named, and hangs up.
    void PeerSends(const std::vector<peer::File>& files, const std::string& folder = "") {
        ASSERT_TRUE(port_->Dial("5552002"));
        EXPECT_EQ(peer::SendSession(*port_, files, folder), "") << LogText();
        EndCall();
    }

    // The peer calls the station and exchanges SYNCON and RCVCON.
    void Call() {
        ASSERT_TRUE(port_->Dial("5552002"));
        Resync();
    }

    // SYNCON until RCVCON answers: the station still hears tokens. A refusal
    // throws away what waits in its input, which may take a SYNCON sent right
    // behind the refusal with it, so one is sent again after a while.
    void Resync() {
        for (int attempt = 0; attempt < 10; ++attempt) {
            port_->Send("SYNCON\r\n");
            if (port_->ReceiveUntil("RCVCON\r\n", 1000).find("RCVCON\r\n") != std::string::npos) {
                return;
            }
        }
        FAIL() << "SYNCON is no longer answered\n" << LogText();
    }

    // The peer hangs up, if the station has not already, and the station is
    // idle again.
    void EndCall() {
        EXPECT_TRUE(port_->HangUp());
        ASSERT_TRUE(station_->WaitForLog("Disconnected")) << LogText();
        ASSERT_EQ(station_->Command("wait-state idle 30"), "ok");
    }

    std::string LogText() const { return station_->LogText(); }
    std::string Incoming(const std::string& relative) const {
        return ReadWholeFile(stationPath_ + "/Incoming Files/" + relative);
    }

    // Every path under the test's folder that is not inside "Incoming Files",
    // nor the station's record of a file kept for a resume, which a receive
    // writes.
    std::set<std::string> PathsOutsideIncoming() const {
        std::set<std::string> paths;
        const std::string incoming = stationPath_ + "/Incoming Files/";
        const std::string resume = stationPath_ + "/kestrelbound_resume";
        for (const auto& item : std::filesystem::recursive_directory_iterator(root_.Path())) {
            const std::string path = item.path().string();
            if (path.rfind(incoming, 0) != 0 && path != resume) {
                paths.insert(path);
            }
        }
        return paths;
    }

    TempFolder root_;
    std::string stationPath_;
    std::unique_ptr<VirtualAdapters> adapters_;
    std::unique_ptr<Station> station_;
    std::unique_ptr<FarEnd> port_;
};

}  // namespace kb::test
