// A station's idea of its line against its adapter's after the station was
// killed in the middle of a file.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "two_stations.h"

namespace kb::test {

using namespace kb::platform;

namespace {

using peer::SectionData;

// The bytes of a file on the disk so far, 0 while it is not there.
uintmax_t SizeOnDisk(const std::string& path) {
    std::error_code absent;
    const uintmax_t size = std::filesystem::file_size(path, absent);
    return absent ? 0 : size;
}

}  // namespace

// Alice on a BitSURFR and Bob on an AdTran, both set up for AIMUX: two
// channels, Alice's adapter at 230400 bps, where a BitSURFR stays until it is
// told otherwise, and Bob's at 115200. A killed station leaves its adapter
// so, and in the call, since the profiles have it ignore DTR. Started again,
// it finds the adapter and hangs that call up; the station that survived
// hears NO CARRIER and ends its call. Sent again, the file is taken up where
// it stopped, also by a receiver that was killed and started again: only the
// rest of it crosses the line. Meanwhile nothing on the receiver's disk looks
// whole that is not: the file under its marker, nothing of the file that had
// not begun, the empty file that came whole with the list.
TEST(KilledStation, RestartedItHangsUpTheCallItsAdapterHeldAndTheResendGoesOnWhereItStopped) {
    AliceAndBob line("adtran-xr", {"--rate", "128000"});
    const auto setUp = [&line] {
        ASSERT_TRUE(line.Alice->Address("Bob", "555-2002"));
        ASSERT_EQ(line.Alice->Command("protocol AIMUX"), "ok");
        ASSERT_EQ(line.Bob->Command("in-protocol AIMUX"), "ok");
    };
    setUp();
    struct Case {
        const char* What;
        bool KillReceiver;
    };
    for (const Case c : {Case{"the receiver killed", true}, Case{"the sender killed", false}}) {
        SCOPED_TRACE(c.What);
        const std::string name = c.KillReceiver ? "first.bin" : "second.bin";
        const std::string part = line.IncomingPath(name + ".part");
        std::vector<peer::File> files = {
            {name, RandomBytes(4 * SectionData, c.KillReceiver ? 41 : 42)}};
        if (c.KillReceiver) {
            files.push_back({"note.txt", RandomBytes(500, 43)});
            files.push_back({"empty.dat", ""});
        }
        line.Choose(files);
        ASSERT_EQ(line.Alice->Command("send"), "ok");
        // A whole section on Bob's disk and in his record, written since the
        // part last grew, and three more to come.
        const auto sectionKept = [&] {
            std::error_code absent;
            const auto recorded =
                std::filesystem::last_write_time(line.BobPath + "/kestrelbound_resume", absent);
            return !absent && SizeOnDisk(part) >= SectionData &&
                   recorded >= std::filesystem::last_write_time(part);
        };
        ASSERT_TRUE(PollUntil(sectionKept, std::chrono::seconds(30)));

        std::unique_ptr<Station>& killed = c.KillReceiver ? line.Bob : line.Alice;
        std::unique_ptr<Station>& survivor = c.KillReceiver ? line.Alice : line.Bob;
        const std::string folder = c.KillReceiver ? line.BobPath : line.AlicePath;
        ASSERT_EQ(killed->Stop(SIGKILL), 128 + SIGKILL);
        ASSERT_TRUE(PathExists(part));
        EXPECT_LT(SizeOnDisk(part), 4 * SectionData);
        EXPECT_FALSE(PathExists(line.IncomingPath(name)));
        if (c.KillReceiver) {
            EXPECT_FALSE(PathExists(line.IncomingPath("note.txt")));
            EXPECT_FALSE(PathExists(line.IncomingPath("note.txt.part")));
            EXPECT_TRUE(PathExists(line.IncomingPath("empty.dat")));
        }
        killed = WaitingStation(folder);
        // Whichever end comes first hangs up: the restarted station, or the
        // survivor at a limit of its own (a receiver's after five seconds of
        // silence). Alice's adapter is found at 230400 bps either way.
        EXPECT_LE(killed->Count("Hung up a call left on the ISDN TA."), 1) << killed->LogText();
        EXPECT_EQ(killed->Count("ISDN TA found at 230400 bps."), c.KillReceiver ? 0 : 1)
            << killed->LogText();
        EXPECT_TRUE(killed->Messages().empty());
        ASSERT_TRUE(survivor->WaitForLog("Reinitializing Incoming")) << survivor->LogText();
        ASSERT_EQ(line.Alice->Command("wait-state idle 30"), "ok");
        ASSERT_EQ(line.Bob->Command("wait-state idle 30"), "ok");
        // The resume starts where the part now stops: past a whole section.
        EXPECT_GE(SizeOnDisk(part), SectionData);

        setUp();
        if (!c.KillReceiver) {
            line.Choose(files);
        }
        ASSERT_NO_FATAL_FAILURE(line.SendThrough());
        EXPECT_EQ(line.Bob->Count("Recovering File: " + name), 1) << line.Bob->LogText();
        EXPECT_EQ(line.Alice->Count("Sending Recovered File: " + name), 1);
        for (const peer::File& file : files) {
            ExpectSameBytes(line.IncomingPath(file.Name), file.Bytes);
        }
        EXPECT_FALSE(PathExists(part));
    }
}

}  // namespace kb::test
