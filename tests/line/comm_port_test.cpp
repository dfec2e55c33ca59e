#include "line/comm_port.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "line_fixture.h"
#include "platform/files.h"
#include "support/byte_pipe.h"
#include "support/process_state.h"
#include "support/test_data.h"

namespace kb::test {

using namespace kb::line;
using namespace kb::platform;

namespace {

// An installation whose COM1 is a pseudo-terminal with the test as the far end,
// opened at 115200 bps with RTS/CTS as a call would run.
class CommPortTest : public LineTest {
protected:
    void SetUp() override {
        LineTest::SetUp();
        far_.LinkAs(root_.Path(), 1);
        OpenPort(1, 115200);
    }

    FarEnd far_;
    char buffer_[TokenBufferSize] = {};
};

}  // namespace

TEST_F(CommPortTest, CommandsEndInCarriageReturnAloneAndATokenLeavesWhatFollowsQueued) {
    const std::string longest(254, 'A');
    line_.SendCommand(longest.c_str());
    EXPECT_EQ(far_.Receive(255, 2000), longest + "\r");
    const std::string tooLong(255, 'B');
    line_.SendCommand(tooLong.c_str());
    line_.SendBytes("\x00\xFF", 2);
    EXPECT_EQ(far_.Receive(3, 300), std::string("\x00\xFF", 2)) << "nothing of the refused command";

    // A token is found, and what follows it stays queued.
    far_.Send(std::string("noise\0 ACK3\r\n", 13) + "\xFF\xAA\x55");
    char* token = line_.ReadUntilToken("ACK3", 2000, buffer_);
    ASSERT_NE(token, nullptr);
    EXPECT_STREQ(buffer_, "noise ACK3") << "the NUL is dropped, the read stops at the token";
    EXPECT_EQ(token, buffer_ + 6);
    uint8_t rest[5];
    EXPECT_EQ(line_.ReadBlock(rest, 5, 500), 5u);
    EXPECT_EQ(std::memcmp(rest, "\r\n\xFF\xAA\x55", 5), 0);
}

// A silent line times out with the buffer untouched and costs no processor;
// the limit of 1023 bytes on a reply counts only real bytes.
TEST_F(CommPortTest, ASilentLineCostsNothingAndTheLineLimitCountsOnlyRealBytes) {
    std::strcpy(buffer_, "previous reply OK\r\n");
    const double before = ThreadCpuMs();
    EXPECT_EQ(line_.ReadUntilOk(4000, buffer_), nullptr);
    EXPECT_LT(ThreadCpuMs() - before, 50.0);
    EXPECT_STREQ(buffer_, "previous reply OK\r\n") << "nothing was read, nothing written";
    EXPECT_EQ(output_.Count("Serial Limit Reached"), 0);

    // NULs do not count towards the limit: 1019 letters, 2000 NULs, then the
    // token's last byte is the 1023rd real byte and is still found.
    std::string reply(1019, 'x');
    reply += std::string(2000, '\0');
    reply += "OK\r\n";
    far_.Send(reply);
    ASSERT_NE(line_.ReadUntilOk(4000, buffer_), nullptr);
    EXPECT_EQ(std::strlen(buffer_), 1023u);
    // One byte more, and the limit told once a call: the hostile peer's test.
}

TEST_F(CommPortTest, TheQueueHoldsThreeBlocksABlockReadWaitsOutATrickleAndSoDoesADrain) {
    const std::string stream = RandomBytes(5 * 8192, 5);
    std::thread sender([&] { far_.Send(stream); });
    std::string got;
    uint8_t block[8192];
    // Let the queue fill before reading, then take block after block.
    PollUntil([&] { return line_.PortQueueCount(PortQueue::Input) >= 3 * 8192; },
              std::chrono::seconds(10));
    EXPECT_EQ(line_.PortQueueCount(PortQueue::Input), 3u * 8192u);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(line_.ReadBlock(block, sizeof block, 2000), sizeof block) << "block " << i;
        got.append(reinterpret_cast<char*>(block), sizeof block);
    }
    sender.join();
    EXPECT_TRUE(got == stream);
    EXPECT_EQ(output_.Count("Read Buffer Timeout"), 0);

    // A block read waits while a trickle goes on, then delivers what came.
    // 8 chunks 60 ms apart take longer than the 400 ms limit; only silence ends it.
    std::thread trickle([&] {
        for (int i = 0; i < 8; ++i) {
            far_.Send(std::string(10, static_cast<char>('a' + i)));
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
        }
    });
    const uint32_t trickled = line_.ReadBlock(block, sizeof block, 400);
    trickle.join();
    EXPECT_EQ(trickled, 80u);
    EXPECT_EQ(block[0], 'a');
    EXPECT_EQ(block[79], 'h');
    EXPECT_EQ(output_.Count("Read Buffer Timeout"), 1);

    EXPECT_EQ(line_.ReadBlock(block, 16, 100), 0u) << "nothing received, nothing delivered";
    EXPECT_EQ(output_.Count("Read Buffer Timeout"), 2);

    // A drain returns only after the line has been quiet.
    std::atomic<bool> sending{true};
    std::thread dribble([&] {
        for (int i = 0; i < 30; ++i) {
            far_.Send("z");
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        sending.store(false);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    line_.DrainInput(150);
    EXPECT_FALSE(sending.load()) << "returned while bytes were still arriving";
    dribble.join();
    EXPECT_EQ(line_.PortQueueCount(PortQueue::Input), 0u);
}

// A port that another program holds, or whose lock another living process
// holds, counts as missing, quietly. The port's lock file is there exactly
// while the port is open, and a close of a closed port does no harm; a lock
// folder that takes no file leaves the port usable, said once.
TEST_F(CommPortTest, ABusyPortFailsQuietlyTheLockFileFollowsThePortAndAFolderWithoutOneIsSaidOnce) {
    SerialDevice other;
    line_.CommPortClose();
    ASSERT_TRUE(other.Open(far_.DevicePath()));
    EXPECT_EQ(line_.CommPortOpen(), 0);
    EXPECT_EQ(line_.Port()->IsOpen.load(), 0);
    other.Close();

    TempFolder locks;
    const EnvironmentValue lockFolder("KESTRELBOUND_LOCK_DIR", locks.Path());
    ASSERT_NE(line_.CommPortOpen(), 0);
    const std::string lockPath = line_.Port()->Lock.Path();
    ASSERT_TRUE(PathExists(lockPath)) << lockPath;
    EXPECT_EQ(line_.CommPortClose(), 1);
    EXPECT_EQ(line_.CommPortClose(), 1);
    EXPECT_EQ(line_.Port()->IsOpen.load(), 0);
    EXPECT_FALSE(PathExists(lockPath));

    WriteWholeFile(lockPath, std::to_string(::getppid()) + "\n");
    EXPECT_EQ(line_.CommPortOpen(), 0);
    EXPECT_EQ(line_.Port()->IsOpen.load(), 0);
    EXPECT_TRUE(Messages().empty());
    EXPECT_EQ(ReadWholeFile(lockPath), std::to_string(::getppid()) + "\n");

    const std::string missing = root_ / "no-such-folder";
    const EnvironmentValue noFolder("KESTRELBOUND_LOCK_DIR", missing);
    for (int open = 0; open < 2; ++open) {
        line_.CommPortClose();
        EXPECT_NE(line_.CommPortOpen(), 0);
    }
    line_.SendCommand("AT");
    EXPECT_NE(far_.ReceiveUntil("AT\r", 2000).find("AT\r"), std::string::npos);
    EXPECT_EQ(
        output_.Count("Cannot write lock files in " + missing + "; ports are used without them."),
        1);
}

// Before its port record is made a line does nothing with a port. A port
// number names a link in the installation, or a serial device. A line handed
// a device of its own works on that device alone: its port opens on a name
// no serial device could open, and its bytes, reads and waits go through the
// device, whose input ends a wait as it comes.
TEST(CommPortRecord, ALineWithoutARecordDoesNothingAndOneHandedADeviceWorksOnItAlone) {
    TempFolder root;
    Installation stores(root.Path());
    BytePipe pipe;
    TestClock clock;
    Line line(stores, clock, [&pipe] { return pipe.MakeDevice(); });
    ASSERT_EQ(line.Port(), nullptr);
    EXPECT_EQ(line.CommPortClose(), 0);
    EXPECT_EQ(line.CommPortDestroy(), 0);
    EXPECT_EQ(line.CommPortOpen(), 0);
    EXPECT_EQ(line.PortQueueCount(PortQueue::Input), 0u);
    char buffer[TokenBufferSize] = {};
    EXPECT_EQ(line.ReadLine(10, buffer), nullptr);

    EXPECT_EQ(CommPortDevicePath(root.Path(), 3), "/dev/ttyS2");
    FarEnd far;
    far.LinkAs(root.Path(), 3);
    EXPECT_EQ(CommPortDevicePath(root.Path(), 3), root / "COM3");

    File name;
    ASSERT_TRUE(name.Open(root / "COM1", File::Mode::CreateReadWrite));
    name.Close();
    ASSERT_TRUE(line.CommPortCreate());
    ASSERT_TRUE(line.CommPortOpen());
    line.SendCommand("AT");
    EXPECT_EQ(pipe.Take(), "AT\r");
    std::thread answer([&pipe] { pipe.Put("noise\r\nOK\r\n"); });
    EXPECT_NE(line.ReadUntilOk(30000, buffer), nullptr);
    answer.join();
    line.InterruptPortWait();
    EXPECT_EQ(line.WaitForPortInput(30000), WaitResult::Interrupted);
    line.CommPortClose();
    EXPECT_FALSE(line.CommPortWrite("AT\r", 3));
}

}  // namespace kb::test
