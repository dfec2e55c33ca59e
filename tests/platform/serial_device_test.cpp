#include "platform/serial_device.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "platform/pseudo_terminal.h"
#include "support/far_end.h"
#include "support/process_state.h"
#include "support/test_data.h"

namespace kb::test {

using namespace kb::platform;

namespace {

// A port open on a pseudo-terminal whose far end the test plays.
class SerialDeviceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(port_.Open(far_.DevicePath())); }

    FarEnd far_;
    SerialDevice port_;
};

}  // namespace

TEST_F(SerialDeviceTest, PurgeStopsAHeldWriteSettingsReachTheDeviceAndWaitsEndAsTheyShould) {
    ASSERT_TRUE(port_.Configure(SerialSettings{}));  // the far end never reads
    far_.Send("stale reply\r\n");
    ASSERT_EQ(port_.WaitForInput(2000), WaitResult::Input);
    const std::string big(1 << 20, 'x');
    std::atomic<int> result{-1};
    std::thread writer(
        [&] { result.store(port_.Write(big.data(), static_cast<uint32_t>(big.size())) ? 1 : 0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(result.load(), -1) << "the write is held back";
    port_.Purge();
    writer.join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_EQ(port_.InputCount(), 0u) << "the stale reply went with the write";
    // The port works on after a purge.
    EXPECT_TRUE(port_.Write("AT\r", 3));
    EXPECT_NE(far_.ReceiveUntil("AT\r", 2000).find("AT\r"), std::string::npos);

    // A refused setting keeps the old one.
    SerialSettings settings;
    settings.BaudRate = 115200;
    settings.RtsCtsFlow = true;
    ASSERT_TRUE(port_.Configure(settings));
    EXPECT_EQ(far_.Speed(), 115200u);

    SerialSettings odd = settings;
    odd.BaudRate = 12345;
    EXPECT_FALSE(port_.Configure(odd));
    odd.BaudRate = 230400;
    odd.StopBits = 1;  // one and a half: no such setting here
    EXPECT_FALSE(port_.Configure(odd));
    EXPECT_EQ(far_.Speed(), 115200u) << "a refused change leaves the old speed";

    settings.BaudRate = 230400;
    EXPECT_TRUE(port_.Configure(settings));
    EXPECT_EQ(far_.Speed(), 230400u);

    // Waits end on input, on an interruption, or on time.
    port_.Interrupt();
    EXPECT_EQ(port_.WaitForInput(5000), WaitResult::Interrupted) << "a kept interruption";
    EXPECT_EQ(port_.WaitForInput(20), WaitResult::TimedOut);

    std::thread interrupter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        port_.Interrupt();
    });
    EXPECT_EQ(port_.WaitForInput(5000), WaitResult::Interrupted);
    interrupter.join();

    far_.Send("RING\r\n");
    EXPECT_EQ(port_.WaitForInput(5000), WaitResult::Input);
    EXPECT_EQ(port_.InputCount(), 6u);
}

// A call's data may bring an XOFF and then stop: the write must not wait for
// an XON that never comes.
TEST_F(SerialDeviceTest, UnderXonXoffAWriteHeldBackByAnXoffIsQueuedAndGoesOutWithTheFlowChanged) {
    SerialSettings settings;
    settings.XonXoffFlow = true;
    ASSERT_TRUE(port_.Configure(settings));
    far_.Send(std::string(1, '\x13') + "data");
    // The XOFF has been acted on once the data behind it is in.
    ASSERT_EQ(port_.WaitForInput(2000), WaitResult::Input);
    std::atomic<int> result{-1};
    std::thread writer([&] { result.store(port_.Write("atv1\r", 5) ? 1 : 0); });
    PollUntil([&] { return result.load() != -1; }, std::chrono::seconds(10));
    const int written = result.load();
    if (written == -1) {
        port_.Purge();  // lets a write that would wait for ever go
    }
    writer.join();
    ASSERT_EQ(written, 1);
    EXPECT_EQ(port_.OutputCount(), 5u);
    settings.XonXoffFlow = false;
    settings.RtsCtsFlow = true;
    ASSERT_TRUE(port_.Configure(settings));
    EXPECT_EQ(far_.ReceiveUntil("atv1\r", 2000), "atv1\r");
}

TEST(SerialDevice, AWaitOnADeadLineCostsNoProcessor) {
    PseudoTerminal terminal;
    ASSERT_TRUE(OpenPseudoTerminal(terminal));
    SerialDevice port;
    ASSERT_TRUE(port.Open(terminal.SlavePath));
    ASSERT_TRUE(port.Configure(SerialSettings{}));
    // With every other side closed the device reports a hang-up on each poll.
    ::close(terminal.SlaveKeeper);
    ::close(terminal.Master);
    terminal.SlaveKeeper = terminal.Master = -1;
    const double before = ThreadCpuMs();
    EXPECT_EQ(port.WaitForInput(500), WaitResult::TimedOut);
    EXPECT_LT(ThreadCpuMs() - before, 50.0);
    port.Close();
}

}  // namespace kb::test
