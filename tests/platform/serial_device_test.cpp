#include "platform/serial_device.h"

#include <gtest/gtest.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>

#include "platform/pseudo_terminal.h"
#include "support/far_end.h"
#include "support/temp_folder.h"

namespace {

std::string RandomBytes(size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    for (char& c : bytes) {
        c = static_cast<char>(generator() & 0xFF);
    }
    return bytes;
}

double ThreadCpuMs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1000.0 + static_cast<double>(t.tv_nsec) / 1e6;
}

}  // namespace

TEST(SerialDevice, OpenIsExclusiveAndRefusesWhatIsNoTerminal) {
    FarEnd far;
    TempFolder root;
    SerialDevice first;
    SerialDevice second;
    ASSERT_TRUE(first.Open(far.DevicePath()));
    EXPECT_FALSE(second.Open(far.DevicePath())) << "a port in use must look busy";
    first.Close();
    EXPECT_TRUE(second.Open(far.DevicePath())) << "a closed port is free again";
    EXPECT_FALSE(first.Open(root / "missing"));
    WriteWholeFile(root / "plain", "x");
    EXPECT_FALSE(first.Open(root / "plain"));
}

TEST(SerialDevice, SettingsReachTheDeviceAndRefusalsKeepTheOld) {
    FarEnd far;
    SerialDevice port;
    ASSERT_TRUE(port.Open(far.DevicePath()));
    SerialSettings settings;
    settings.baudRate = 115200;
    settings.rtsCtsFlow = true;
    ASSERT_TRUE(port.Configure(settings));
    EXPECT_EQ(far.Speed(), 115200u);

    SerialSettings odd = settings;
    odd.baudRate = 12345;
    EXPECT_FALSE(port.Configure(odd));
    odd.baudRate = 230400;
    odd.stopBits = 1;  // one and a half: no such setting here
    EXPECT_FALSE(port.Configure(odd));
    EXPECT_EQ(far.Speed(), 115200u) << "a refused change leaves the old speed";

    settings.baudRate = 230400;
    EXPECT_TRUE(port.Configure(settings));
    EXPECT_EQ(far.Speed(), 230400u);
}

TEST(SerialDevice, InputQueueHoldsItsFullSizeAndLosesNothing) {
    FarEnd far;
    SerialDevice port;
    ASSERT_TRUE(port.Open(far.DevicePath()));
    SerialSettings settings;
    settings.baudRate = 115200;
    settings.rtsCtsFlow = true;
    ASSERT_TRUE(port.Configure(settings));

    const std::string sent = RandomBytes(100000, 7);
    std::thread sender([&] { far.Send(sent); });
    // The queue fills to its size and no further, whatever more the far end
    // has for it: the rest waits in the kernel and in the sender.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (port.InputCount() < SerialDevice::kQueueSize &&
           std::chrono::steady_clock::now() < deadline) {
        port.WaitForInput(100);
    }
    EXPECT_EQ(port.InputCount(), SerialDevice::kQueueSize);

    std::string got;
    char buffer[8192];
    while (got.size() < sent.size() && std::chrono::steady_clock::now() < deadline) {
        if (port.InputCount() >= sizeof buffer || port.InputCount() + got.size() == sent.size()) {
            const uint32_t n = port.Read(buffer, sizeof buffer);
            got.append(buffer, n);
        } else {
            port.WaitForInput(100);
        }
    }
    sender.join();
    EXPECT_TRUE(got == sent) << "got " << got.size() << " of " << sent.size() << " bytes";
}

TEST(SerialDevice, PurgeStopsAWriteThatTheFarEndHoldsBack) {
    FarEnd far;  // never reads
    SerialDevice port;
    ASSERT_TRUE(port.Open(far.DevicePath()));
    ASSERT_TRUE(port.Configure(SerialSettings{}));
    const std::string big(1 << 20, 'x');
    std::atomic<int> result{-1};
    std::thread writer(
        [&] { result.store(port.Write(big.data(), static_cast<uint32_t>(big.size())) ? 1 : 0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(result.load(), -1) << "the write is held back";
    port.Purge();
    writer.join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_EQ(port.InputCount(), 0u);
    // The port works on after a purge.
    EXPECT_TRUE(port.Write("AT\r", 3));
    EXPECT_EQ(far.ReceiveUntil("AT\r", 2000).substr(0, 0), "");
}

TEST(SerialDevice, WaitsEndOnInputOnInterruptOrOnTime) {
    FarEnd far;
    SerialDevice port;
    ASSERT_TRUE(port.Open(far.DevicePath()));
    ASSERT_TRUE(port.Configure(SerialSettings{}));

    port.Interrupt();
    EXPECT_EQ(port.WaitForInput(5000), WaitResult::Interrupted) << "a kept interruption";
    EXPECT_EQ(port.WaitForInput(20), WaitResult::TimedOut);

    std::thread interrupter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        port.Interrupt();
    });
    EXPECT_EQ(port.WaitForInput(5000), WaitResult::Interrupted);
    interrupter.join();

    far.Send("RING\r\n");
    EXPECT_EQ(port.WaitForInput(5000), WaitResult::Input);
    EXPECT_EQ(port.InputCount(), 6u);
}

TEST(SerialDevice, AWaitOnADeadLineCostsNoProcessor) {
    PseudoTerminal terminal;
    ASSERT_TRUE(OpenPseudoTerminal(terminal));
    SerialDevice port;
    ASSERT_TRUE(port.Open(terminal.slavePath));
    ASSERT_TRUE(port.Configure(SerialSettings{}));
    // With every other side closed the device reports a hang-up on each poll.
    ::close(terminal.slaveKeeper);
    ::close(terminal.master);
    terminal.slaveKeeper = terminal.master = -1;
    const double before = ThreadCpuMs();
    EXPECT_EQ(port.WaitForInput(500), WaitResult::TimedOut);
    EXPECT_LT(ThreadCpuMs() - before, 50.0);
    port.Close();
}
