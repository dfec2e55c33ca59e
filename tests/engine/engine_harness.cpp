#include "engine_harness.h"

#include "platform/files.h"

namespace kb::test {

using namespace kb::engine;
using namespace kb::line;
using namespace kb::platform;

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

FileEntry EntryForFile(const std::string& name, const std::string& path, uint64_t size) {
    FileEntry entry;
    entry.DisplayName.Set(name);
    entry.FilePath.Set(path);
    SetEntryLengths(entry, static_cast<uint32_t>(DataLengthForSize(size)));
    entry.CreatorCode = DefaultCreatorCode;
    entry.TypeCode = DefaultTypeCode;
    return entry;
}

void EngineHarness::SetUp() {
    SetFreeSpaceQuery(engine_, [] { return uint64_t{1} << 40; });
    ASSERT_TRUE(CreateFolder(stores_.Paths.IncomingPath));
    far_.LinkAs(root_.Path(), 1);
    ASSERT_TRUE(line_.CommPortCreate());
    line_.SelectPortNumber(1);
    line_.SelectPortBaud(115200);
    ASSERT_NE(line_.CommPortOpen(), 0);
    ASSERT_EQ(line_.EnableHardwareHandshake(), 1);
    stores_.Prefs.AdapterModel = ModelBitSURFR;
    SetEngineLine(engine_, line_);
    EngineStartup(engine_, stores_);
    line_.AdapterFound = 1;
    line_.SetLinePolling(1);
    commThread_ = StartCommThread(engine_);
    ASSERT_TRUE(commThread_ != nullptr);
}

void EngineHarness::TearDown() {
    StopCommThread(engine_);
    line_.InterruptPortWait();
    JoinThread(commThread_);
    StopFeeder(engine_);
    EngineShutdown(engine_);
    line_.CommPortDestroy();
}

void EngineHarness::JumpClock(uint32_t ms) {
    clock_.MoveOn(ms);
    line_.InterruptPortWait();
}

std::string EngineHarness::AnswerCommand(int timeoutMs) {
    std::string command = TakeUntil("\r", timeoutMs);
    if (!command.empty() && command.back() == '\r') {
        command.pop_back();
        far_.Send(command + "\r\r\nOK\r\n");
    }
    return command;
}

void EngineHarness::BackToIdle() {
    ASSERT_TRUE(Comes("AT\\Q", 6000));
    const std::string rest = TakeUntil("\r", 6000);
    far_.Send("AT\\Q" + rest + "\r\nOK\r\n");
    EXPECT_TRUE(!rest.empty() && rest.back() == '\r');
    EXPECT_TRUE(WaitForState(LinkState::Idle));
}

void EngineHarness::AnswerHangUp(bool behindData) {
    if (behindData) {
        EXPECT_TRUE(Comes("+++"));
    } else {
        EXPECT_EQ(TakeUntil("+++", 5000), "+++");
    }
    far_.Send("\r\nOK\r\n");
    EXPECT_EQ(AnswerCommand(), "ATH");
    BackToIdle();
}

void EngineHarness::AnswerLostLine(int timeoutMs) {
    EXPECT_EQ(AnswerCommand(timeoutMs), "AT");
    BackToIdle();
}

void EngineHarness::DropLine() {
    Send("\r\nNO CARRIER\r\n");
    BackToIdle();
}

void EngineHarness::ConnectAsReceiver() {
    Send("\r\nRING\r\n");
    EXPECT_EQ(TakeUntil("\r", 3000), "ATA\r");
    Send("\r\nCONNECT 115200\r\n");
    ASSERT_TRUE(WaitForState(LinkState::Connected));
    EXPECT_TRUE(WaitForLog("Connected 115200"));
    Send("SYNCON\r\n");
    EXPECT_EQ(Take(8), "RCVCON\r\n");
}

void EngineHarness::ConnectAsCaller() {
    engine_.Call.Role = Role::Sender;
    engine_.Call.LinkState = LinkState::Dialing;
    Send("\r\nCONNECT 115200\r\n");
    EXPECT_EQ(Take(8), "SYNCON\r\n");
    ASSERT_TRUE(WaitForState(LinkState::Connected));
}

void EngineHarness::ConnectAndTakeList(size_t entries) {
    ConnectAsCaller();
    Send("RCVCON\r\n");
    EXPECT_EQ(Take(6 + 28 + 56 * entries).substr(0, 6), "H100\r\n");
}

std::string EngineHarness::ChooseFile(const std::string& name, const std::string& bytes) {
    const std::string path = root_ / name;
    WriteWholeFile(path, bytes);
    // As the window does it: while no pass of the communications thread runs.
    PortConversation conversation(line_);
    EXPECT_TRUE(engine_.SendList.Add(EntryForFile(name, path, bytes.size())));
    return path;
}

}  // namespace kb::test
