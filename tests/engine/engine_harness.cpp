#include "engine_harness.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#include "engine/receiving_session_test_hooks.h"
#include "engine/recovery.h"
#include "engine/sessions.h"
#include "engine/wire.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "stores/paths.h"
#include "stores/preferences.h"
#include "stores/status_log.h"

// ---------------------------------------------------------------------------

void RecordingWindow::Note(const std::string& call) {
    std::lock_guard<std::mutex> guard(lock_);
    calls_.push_back(call);
}

bool RecordingWindow::Called(const std::string& call) const {
    std::lock_guard<std::mutex> guard(lock_);
    return std::find(calls_.begin(), calls_.end(), call) != calls_.end();
}

void RecordingWindow::RecomputeSendTotal() {
    NoWindow::RecomputeSendTotal();
    Note("RecomputeSendTotal");
}

void RecordingWindow::AddFolderToSendList(const std::string& path, const std::string& name) {
    Note("AddFolderToSendList(" + path + "," + name + ")");
}

// ---------------------------------------------------------------------------

std::string LetterBytes(size_t size) {
    std::string bytes(size, 'a');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>('a' + (i * 7 + i / 13) % 26);
    }
    return bytes;
}

std::string ListFor(const std::vector<peer::File>& files) {
    std::string entries;
    uint32_t total = 0;
    for (const peer::File& file : files) {
        const uint32_t length = peer::StreamLength(file.Bytes.size());
        entries += peer::Entry(file.Name, file.Kind, length, length);
        total += length;
    }
    return "H100\r\n" + peer::Header(static_cast<uint32_t>(files.size()), total) + entries;
}

std::string BodyAt(uint32_t dataLength, int16_t section, uint32_t receiveRemaining) {
    FileEntry position;
    SetEntryLengths(position, dataLength);
    position.CreatorCode = DefaultCreatorCode;
    position.TypeCode = DefaultTypeCode;
    position.NextBlock = static_cast<int16_t>(section * 16);
    position.BlocksDone = position.NextBlock;
    position.BytesDone = static_cast<uint32_t>(section) * SectionWireBytes;
    const RecoveryBody body = MakeRecoveryBody(8192, receiveRemaining, position);
    return std::string(reinterpret_cast<const char*>(&body), sizeof body);
}

// ---------------------------------------------------------------------------

void EngineHarness::SetUp() {
    SetLogLineSink([this](const std::string& line) {
        {
            std::lock_guard<std::mutex> guard(logLock_);
            log_.push_back(line);
        }
        logged_.notify_all();
    });
    SetFreeSpaceQuery([] { return uint64_t{1} << 40; });
    BuildPaths(root_.Path());
    CreateFolder(IncomingPath);
    far_.LinkAs(root_.Path(), 1);
    ASSERT_EQ(CommPortCreate(), 1);
    SelectPortNumber(1);
    SelectPortBaud(115200);
    ASSERT_NE(CommPortOpen(), 0);
    ASSERT_EQ(EnableHardwareHandshake(), 1);
    ThePreferences.AdapterModel = ModelBitSURFR;
    EngineStartup();
    TheMainWindow = &window_;
    TheEngine.CommThreadRun = true;
    AdapterFound = 1;
    SetLinePolling(1);
    commThread_ = StartThread(CommThread, nullptr, ThreadPriority::Normal, false);
    ASSERT_TRUE(commThread_ != nullptr);
}

void EngineHarness::TearDown() {
    TheEngine.CommThreadRun = false;
    InterruptPortWait();
    JoinThread(commThread_);
    StopFeeder();
    SetLinePolling(0);
    AdapterFound = 0;
    EngineShutdown();
    TheMainWindow = nullptr;
    CommPortDestroy();
    SetFreeSpaceQuery(nullptr);
    SetLogLineSink(nullptr);
    TheEngine.LinkState = LinkIdle;
    TheEngine.WeSend = false;
    TheEngine.SendCount = 0;
    TheEngine.SendRemaining = 0;
    TheEngine.ReceiveCount = 0;
    TheEngine.ReceiveListSize = 0;
    TheEngine.RetrievePending = false;
    TheEngine.PickupSend = false;
    TheEngine.BlockIndex = 0;
    TheEngine.TransferStartTime = 0;
}

std::string EngineHarness::AnswerCommand(int timeoutMs) {
    std::string command = TakeUntil("\r", timeoutMs);
    if (!command.empty() && command.back() == '\r') {
        command.pop_back();
        far_.Send(command + "\r\r\nOK\r\n");
    }
    return command;
}

bool EngineHarness::AnswerProfile(int timeoutMs) {
    const std::string before = TakeUntil("AT\\Q", timeoutMs);
    if (before.size() < 4 || before.substr(before.size() - 4) != "AT\\Q") {
        return false;
    }
    const std::string rest = TakeUntil("\r", timeoutMs);
    far_.Send("AT\\Q" + rest + "\r\nOK\r\n");
    return !rest.empty() && rest.back() == '\r';
}

void EngineHarness::AnswerHangUp() {
    EXPECT_EQ(TakeUntil("+++", 5000), "+++");
    far_.Send("\r\nOK\r\n");
    EXPECT_EQ(AnswerCommand(), "ATH");
    // The incoming profile goes back to the adapter.
    EXPECT_EQ(AnswerCommand().substr(0, 4), "AT\\Q");
}

bool EngineHarness::WaitForState(int16_t state, int timeoutMs) const {
    return WaitUntil([state] { return TheEngine.LinkState.load() == state; }, timeoutMs);
}

bool EngineHarness::WaitUntil(const std::function<bool()>& condition, int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool EngineHarness::WaitForLog(const std::string& line, int timeoutMs) {
    std::unique_lock<std::mutex> guard(logLock_);
    return logged_.wait_for(guard, std::chrono::milliseconds(timeoutMs), [&] {
        return std::find(log_.begin(), log_.end(), line) != log_.end();
    });
}

std::vector<std::string> EngineHarness::Log() const {
    std::lock_guard<std::mutex> guard(logLock_);
    return log_;
}

bool EngineHarness::Logged(const std::string& line) const {
    const std::vector<std::string> lines = Log();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

void EngineHarness::ConnectAsAnswerer() {
    Send("\r\nRING\r\n");
    EXPECT_EQ(TakeUntil("\r", 3000), "ATA\r");
    Send("\r\nCONNECT 115200\r\n");
    ASSERT_TRUE(WaitForState(LinkConnected));
    EXPECT_TRUE(WaitForLog("Connected 115200"));
}

void EngineHarness::ConnectAsReceiver() {
    ConnectAsAnswerer();
    Send("SYNCON\r\n");
    EXPECT_EQ(Take(8), "RCVCON\r\n");
}

void EngineHarness::ConnectAsCaller() {
    TheEngine.WeSend = true;
    TheEngine.LinkState = LinkDialing;
    Send("\r\nCONNECT 115200\r\n");
    EXPECT_EQ(Take(8), "SYNCON\r\n");
    ASSERT_TRUE(WaitForState(LinkConnected));
}

void EngineHarness::ConnectAndTakeList(size_t entries) {
    ConnectAsCaller();
    Send("RCVCON\r\n");
    EXPECT_EQ(Take(6 + 28 + 56 * entries).substr(0, 6), "H100\r\n");
}

std::string EngineHarness::MakeFile(const std::string& name, const std::string& bytes) {
    const std::string path = root_ / name;
    WriteWholeFile(path, bytes);
    return path;
}

void EngineHarness::AddToSendList(const std::string& path, const std::string& name) {
    // As the window does it: while no pass of the communications thread runs.
    PortConversation conversation;
    const int16_t count = TheEngine.SendCount.load();
    FileEntry& entry = TheEngine.SendList[count];
    entry = FileEntry{};
    entry.DisplayName.Set(name);
    entry.FilePath.Set(path);
    SetEntryLengths(entry, static_cast<uint32_t>(DataLengthForSize(ReadWholeFile(path).size())));
    entry.CreatorCode = DefaultCreatorCode;
    entry.TypeCode = DefaultTypeCode;
    TheEngine.SendCount = static_cast<int16_t>(count + 1);
    TheEngine.SendRemaining += entry.TotalLength;
}

std::string EngineHarness::Incoming(const std::string& name) const {
    return IncomingPath + "/" + name;
}
