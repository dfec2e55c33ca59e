// Pick-up folders: the holder's answers to a retrieve, and the hot folder that
// goes out once it has stopped changing. The folder put on the send list and
// its files on the wire are the stations' pick-up tests'.

#include <thread>

#include "engine/dialing.h"
#include "engine/pickup.h"
#include "engine/sessions.h"
#include "engine_harness.h"
#include "platform/files.h"
#include "stores/directory.h"

namespace kb::test {

using namespace kb::engine;
using namespace kb::platform;
using namespace kb::stores;

namespace {

class PickUpTest : public EngineHarness {
protected:
    void SetUp() override {
        EngineHarness::SetUp();
        ASSERT_TRUE(CreateFolder(stores_.Paths.PickUpPath));
    }

    // A record with a pick-up folder holding the given files. As the window
    // edits the directory: between two passes of the communications thread,
    // which reads it for a retrieve request.
    void AddRecord(const std::string& name, const std::string& number, bool hot,
                   const std::vector<std::string>& files) {
        PortConversation conversation(line_);
        Correspondent& record = stores_.Directory[stores_.Directory.Count.load()];
        SetFieldText(record.FirmName, name);
        SetFieldText(record.IsdnNumber, number);
        record.HasPickUp = 1;
        record.HotSend = hot ? 1 : 0;
        EXPECT_TRUE(CreateFolder(stores_.Paths.PickUpPath + "/" + name));
        EXPECT_TRUE(CreateFolder(stores_.Paths.PickUpPath + "/" + name + "/Sent Files"));
        for (const std::string& file : files) {
            WriteWholeFile(stores_.Paths.PickUpPath + "/" + name + "/" + file, file);
        }
        stores_.Directory.Count = static_cast<int16_t>(stores_.Directory.Count.load() + 1);
    }
};

}  // namespace

// The answers and their log lines are the end-to-end tests'; here the
// holder's state after a folder that holds nothing to send, and a sent file's
// move to "Sent Files".
TEST_F(PickUpTest, TheHolderAnswersARequestForAnEmptyFolderAndMovesASentFileToSentFiles) {
    AddRecord("Empty", "030 5555+7777", false, {});
    ConnectAsReceiver();
    // 5555, in its 32-byte field, matches the record, whose folder holds
    // only "Sent Files".
    Send("RETRIEVE\r\n5555" + std::string(28, '\0'));
    EXPECT_EQ(Take(13), "NOFILEAVAIL\r\n");
    EXPECT_TRUE(WaitForLog("No files to be retrieved."));
    EXPECT_EQ(engine_.Call.LinkState.load(), LinkState::Connected);
    EXPECT_EQ(engine_.Call.Role.load(), Role::Receiver);

    // A file sent moves to "Sent Files", replacing an older one.
    AddRecord("P", "1", false, {"f.txt"});
    const std::string folder = stores_.Paths.PickUpPath + "/P";
    WriteWholeFile(folder + "/Sent Files/f.txt", "old");
    MoveToSentFiles(folder + "/f.txt");
    EXPECT_FALSE(PathExists(folder + "/f.txt"));
    EXPECT_EQ(ReadWholeFile(folder + "/Sent Files/f.txt"), "f.txt");
}

TEST_F(PickUpTest, AHotFolderGoesOutOnceItsTotalHasStoodStill) {
    AddRecord("Hot", "123", true, {"one.txt", "three.txt"});
    EXPECT_EQ(HotFolderDue(engine_), std::nullopt);  // the total of the two files is noted
    EXPECT_EQ(stores_.Directory[0].HotBytes, 16u);
    // During a call nothing is looked at, and nothing goes out. The call is
    // as fresh as one just connected, so the running engine's silence limit
    // does not hang it up meanwhile.
    engine_.Call.LastRxTime = clock_.NowMs();
    engine_.Call.LinkState = LinkState::Connected;
    EXPECT_EQ(HotFolderDue(engine_), std::nullopt);
    EXPECT_EQ(stores_.Directory[0].HotBytes, 16u);
    engine_.Call.LinkState = LinkState::Idle;
    // A call that rings in starts the count again.
    Send("\r\nRING\r\n");
    EXPECT_EQ(TakeUntil("\r", 3000), "ATA\r");
    EXPECT_EQ(HotFolderDue(engine_), std::nullopt);
    EXPECT_EQ(stores_.Directory[0].HotBytes, 16u);
    EXPECT_EQ(HotFolderDue(engine_), 0);  // unchanged since the last look: it goes out
    EXPECT_EQ(stores_.Directory[0].HotBytes, 0u);
    // A dial that finds the line busy leaves the folder as it was, and two
    // looks later it dials again.
    for (int dial = 0; dial < 2; ++dial) {
        if (dial > 0) {
            EXPECT_EQ(HotFolderDue(engine_), std::nullopt);
            EXPECT_EQ(HotFolderDue(engine_), 0);
        }
        std::thread place([this] { SendHotFolder(engine_, CallRequest{"123", "Hot", 0, {}}); });
        std::string command;
        for (int answered = 0; answered < 8 && command.rfind("ATD", 0) != 0; ++answered) {
            command = AnswerCommand();
        }
        place.join();
        EXPECT_EQ(command, "ATD123");
        Send("\r\nBUSY\r\n");
        BackToIdle();
    }
    EXPECT_EQ(LinesHolding(Log(), {"Calling Hot", "Busy"}),
              (std::vector<std::string>{"Calling Hot", "Busy", "Calling Hot", "Busy"}));
    // A record without a number is not dialled, and its message is the only
    // one shown.
    SendHotFolder(engine_, CallRequest{});
    EXPECT_TRUE(engine_.PickupSend.load());
    EXPECT_EQ(Messages(),
              std::vector<std::string>{"Please select a correspondent in your Directory."});
}

}  // namespace kb::test
