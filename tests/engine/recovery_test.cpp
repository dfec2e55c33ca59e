// A section that fails its check is sent again within the call, from the
// position the receiver names, on both sides.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "engine/recovery.h"
#include "engine/session_threads.h"
#include "engine/wire.h"
#include "engine_harness.h"
#include "platform/files.h"

namespace {

using ReceiverRecoveryTest = EngineHarness;
using SenderRecoveryTest = EngineHarness;

RecoveryBody BodyOf(const std::string& bytes) {
    return RecordFromBytes<RecoveryBody>(bytes.data());
}

}  // namespace

TEST_F(ReceiverRecoveryTest, ABadThirdSectionIsAskedForFromItsStart) {
    SetFreeSpaceQuery([] { return uint64_t{1} << 30; });
    const std::string bytes = PatternBytes(3 * SectionFileBytes + 100, 5);
    const uint32_t length = static_cast<uint32_t>(DataLengthForSize(bytes.size()));
    ConnectAsAnswerer();
    Send("SYNCON\r\n");
    Take(8);
    Send("H100\r\n" + WireHeader(1, length) + WireEntry("long.bin", 0, length));
    EXPECT_EQ(Take(6), "ACK3\r\n");

    const std::string stream = DataStreamOf(bytes);
    std::string damaged = stream;
    damaged[2 * SectionWireBytes + 5000] ^= 0x40;
    Send(damaged);
    EXPECT_EQ(Take(12), "FILERECOVR\r\n");
    const RecoveryBody body = BodyOf(Take(80));
    FileEntry position;
    const RecoveryPosition session = ApplyRecoveryBody(body, position);
    EXPECT_EQ(position.NextBlock, 32);
    EXPECT_EQ(position.BlocksDone, 32);
    EXPECT_EQ(position.BytesDone, 2 * SectionWireBytes);
    EXPECT_EQ(position.DataLength, length);
    EXPECT_EQ(session.ExpectedBlock, 8192);
    EXPECT_EQ(session.ReceiveRemaining, length - 2 * SectionWireBytes);
    // "dosa" travels with its bytes reversed.
    EXPECT_EQ(std::memcmp(&body.CreatorCode, "asod", 4), 0);
    EXPECT_EQ(Take(10, 2000), "CONTSEND\r\n");
    EXPECT_TRUE(WaitForState(LinkRecovery));
    EXPECT_TRUE(Logged("Packet byte error 2."));
    // Only the good sections are on the disk.
    File file;
    ASSERT_TRUE(file.Open(Incoming("long.bin"), File::Mode::Read));
    EXPECT_EQ(file.Length(), 2 * int64_t{SectionFileBytes});
    file.Close();

    Send("SENDRECOVR\r\n" + stream.substr(2 * SectionWireBytes));
    EXPECT_EQ(Take(6), "ACK2\r\n");
    EXPECT_EQ(ReadWholeFile(Incoming("long.bin")), bytes);
}

TEST_F(SenderRecoveryTest, TheSenderGoesBackToTheNamedSectionAndOnToTheEnd) {
    const std::string bytes = LetterBytes(3 * SectionFileBytes + 10);
    AddToSendList(MakeFile("r.txt", bytes), "r.txt");
    const uint32_t length = static_cast<uint32_t>(DataLengthForSize(bytes.size()));
    const std::string stream = DataStreamOf(bytes);
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 56);
    Send("ACK3\r\n");
    EXPECT_EQ(Take(2 * SectionWireBytes), stream.substr(0, 2 * SectionWireBytes));

    // The second section failed: what is still on its way is thrown away.
    Send("FILERECOVR\r\n" + BodyAt(length, 1, length - SectionWireBytes));
    EXPECT_TRUE(WaitForState(LinkRecovery));
    while (!TakeFor(150).empty()) {
    }
    EXPECT_EQ(TheEngine.SendRemaining.load(), length - SectionWireBytes);
    Send("CONTSEND\r\n");
    EXPECT_EQ(Take(12), "SENDRECOVR\r\n");
    EXPECT_EQ(Take(stream.size() - SectionWireBytes), stream.substr(SectionWireBytes));
    EXPECT_TRUE(WaitForState(LinkFileSent));

    // The last section fails after the feeder has parked: CONTSEND wakes it.
    Send("FILERECOVR\r\n" + BodyAt(length, 3, 12));
    EXPECT_TRUE(WaitForState(LinkRecovery));
    Send("CONTSEND\r\n");
    EXPECT_EQ(Take(12), "SENDRECOVR\r\n");
    EXPECT_EQ(Take(12), stream.substr(3 * SectionWireBytes));
    EXPECT_TRUE(WaitForState(LinkFileSent));
    Send("ACK2\r\n");
    AnswerHangUp();
    EXPECT_TRUE(WaitForState(LinkIdle));
}

TEST_F(SenderRecoveryTest, ABodyOutsideTheFileEndsTheCall) {
    const std::string bytes = LetterBytes(1000);
    AddToSendList(MakeFile("s.txt", bytes), "s.txt");
    ConnectAsCaller();
    Send("RCVCON\r\n");
    Take(6 + 28 + 56);
    Send("ACK3\r\n");
    EXPECT_EQ(Take(1002), DataStreamOf(bytes));
    EXPECT_TRUE(WaitForState(LinkFileSent));
    // A position sixteen blocks into a file that has none.
    Send("FILERECOVR\r\n" + BodyAt(1002, 1, 0));
    AnswerHangUp();
    EXPECT_TRUE(WaitForState(LinkIdle));
    EXPECT_FALSE(FeederRunning());
}
