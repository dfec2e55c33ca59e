// A station and an independent implementation of the protocol (the peer),
// each on a virtual adapter of its own, the peer's port opened by the test.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "harness.h"
#include "support/installation.h"
#include "support/wire_peer.h"

class PeerAndStation : public ::testing::Test {
protected:
    void SetUp() override {
        stationPath_ = MakeInstallation(root_, "station");
        adapters_ = std::make_unique<VirtualAdapters>(
            std::vector<std::string>{stationPath_ + "/COM1=bitsurfr:5552002",
                                     root_ / "peer-port=zyxel-2864:5553003"},
            std::vector<std::string>{"--rate", "0"});
        station_ = std::make_unique<Station>(stationPath_);
        ASSERT_TRUE(station_->WaitForLog("Initializing Incoming"));
        port_ = std::make_unique<FarEnd>(root_ / "peer-port");
        ASSERT_NE(port_->Command("AT").find("OK\r\n"), std::string::npos);
    }

    std::string Incoming(const std::string& relative) const {
        return ReadWholeFile(stationPath_ + "/Incoming Files/" + relative);
    }

    // Every path under the test's folder that is not inside "Incoming Files".
    std::set<std::string> PathsOutsideIncoming() const {
        std::set<std::string> paths;
        const std::string incoming = stationPath_ + "/Incoming Files/";
        for (const auto& item : std::filesystem::recursive_directory_iterator(root_.Path())) {
            const std::string path = item.path().string();
            if (path.rfind(incoming, 0) != 0) {
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
