#include "line/adapter.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <thread>

#include "line/port_speed.h"
#include "line_fixture.h"
#include "platform/key_state.h"
#include "support/test_data.h"

namespace kb::test {

using namespace kb::line;
using namespace kb::platform;

namespace {

// An exchange keeps the whole reply and puts polling back as it was, also
// after conversations that overlap, and takes the port from a reader that
// waits on it.
TEST_F(LineTest, ExchangesAndConversationsPutPollingBackAndTakeThePortFromAWaitingReader) {
    Attach(1, [](const std::string& command, uint32_t) {
        return command == "ATQ" ? EchoOnly(command) : Answer(command, {"line one"});
    });
    OpenPort(1, 115200);

    std::strcpy(line_.TokenBuffer,
                "an older reply that is longer than the new one and stays behind");
    ASSERT_TRUE(line_.SendAndWaitOk("ATI3"));
    EXPECT_STREQ(line_.TokenBuffer, "ATI3\r\r\nline one\r\n\r\nOK\r\n")
        << "the echo and every line of the reply, read from the buffer's first byte";
    EXPECT_EQ(line_.LinePollingEnabled.load(), false);

    line_.SetLinePolling(true);
    ASSERT_TRUE(line_.SendAndWaitOkShort("ATI4"));
    EXPECT_EQ(line_.LinePollingEnabled.load(), true) << "polling goes back on after the exchange";
    EXPECT_FALSE(line_.SendAndWaitOkShort("ATQ")) << "an echo without OK is a failure";
    EXPECT_EQ(line_.LinePollingEnabled.load(), true) << "also after a failed one";
    EXPECT_EQ(adapters_[0]->CommandTexts(), (Texts{"ATI3", "ATI4", "ATQ"}));

    // An exchange takes the port from a reader that waits on it. A stand-in for the communications
    // thread: it holds the read lock for each pass in which polling is on, and sleeps long waits
    // that only a wake ends.
    std::atomic<bool> stop{false};
    std::atomic<int> passes{0};
    std::thread reader([&] {
        while (!stop.load()) {
            if (line_.LinePollingEnabled.load()) {
                std::lock_guard<std::recursive_mutex> guard(line_.PortReadLock);
                passes.fetch_add(1);
                line_.WaitForPortInput(30000);
            } else {
                line_.WaitForPortWake(30000);
            }
        }
    });
    EXPECT_TRUE(PollUntil([&] { return passes.load() > 0; }, std::chrono::seconds(10)));
    // The reader sits in a long wait holding the lock; the exchange must wake
    // it rather than wait out its time.
    auto exchange = std::async(std::launch::async, [this] { return line_.SendAndWaitOk("AT"); });
    EXPECT_EQ(exchange.wait_for(std::chrono::seconds(10)), std::future_status::ready)
        << "the reader was not woken";
    EXPECT_TRUE(exchange.get());
    EXPECT_EQ(line_.LinePollingEnabled.load(), true);
    stop.store(true);
    line_.InterruptPortWait();
    reader.join();

    // Conversations that overlap leave the polling flag right.
    line_.SetLinePolling(true);
    std::optional<PortConversation> first(std::in_place, line_);
    EXPECT_EQ(line_.LinePollingEnabled.load(), false);
    std::optional<PortConversation> second(std::in_place, line_);
    first.reset();
    EXPECT_EQ(line_.LinePollingEnabled.load(), false)
        << "the second conversation is still under way";
    second.reset();
    EXPECT_EQ(line_.LinePollingEnabled.load(), true) << "back as it was before the first began";

    // A change asked for during a conversation is the value it ends with.
    {
        PortConversation conversation(line_);
        line_.SetLinePolling(false);
        EXPECT_EQ(line_.LinePollingEnabled.load(), false);
    }
    EXPECT_EQ(line_.LinePollingEnabled.load(), false);
    {
        PortConversation conversation(line_);
        line_.SetLinePolling(true);
        EXPECT_EQ(line_.LinePollingEnabled.load(), false) << "the port stays held until the end";
    }
    EXPECT_EQ(line_.LinePollingEnabled.load(), true);

    // Another thread's conversation waits for this one's lock, and the flag
    // comes back only when both are over.
    std::optional<PortConversation> mine(std::in_place, line_);
    std::atomic<bool> otherHadPort{false};
    std::thread other([&] {
        PortConversation theirs(line_);
        otherHadPort.store(true);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(otherHadPort.load());
    mine.reset();
    other.join();
    EXPECT_TRUE(otherHadPort.load());
    EXPECT_EQ(line_.LinePollingEnabled.load(), true);
}

struct IdentityCase {
    const char* Name;
    Texts Identity0;
    Texts Identity8;
    bool ExpectedResult;
    int16_t ExpectedModel;
    int16_t ExpectedVariant;
    std::set<std::string> Unanswered = {};
};

// The marks each family shows as the virtual adapters give them are the
// detection tests'; here the other model numbers, the near misses and a
// reply without its OK.
TEST_F(LineTest, IdentificationTellsEachFamilyAndVariantByItsMarks) {
    const IdentityCase cases[] = {
        {"BitSURFR", {"960"}, {"BitSURFR Pro ISDN"}, true, ModelBitSURFR, 7},
        {"960 without BitSURFR", {"960"}, {"some other TA"}, false, ModelBitSURFR, 7},
        {"960 before the ZyXEL marks", {"960 2864"}, {"BitSURFR"}, true, ModelBitSURFR, 7},
        {"2864 with 1291", {"ZyXEL 1291 2864"}, {}, true, ModelZyXEL, 1},
        {"Omni.net 1291", {"ZyXEL 1291"}, {}, true, ModelZyXEL, 2},
        {"Omni.net 1293", {"ZyXEL 1293"}, {}, true, ModelZyXEL, 2},
        {"TA128 1281", {"ZyXEL 1281"}, {}, true, ModelZyXEL, 3},
        {"TA128 1283", {"ZyXEL 1283"}, {}, true, ModelZyXEL, 3},
        {"no mark", {"Generic ISDN TA", "adtran express xr"}, {}, false, Model3Com + 1, 7},
        {"an ati0 without OK", {"ZyXEL 2864"}, {}, false, Model3Com + 1, 7, {"ati0"}},
    };
    ScriptedAdapter& adapter = Attach(2, RespondAs(AdapterScript{}));
    line_.SelectPortNumber(2);
    for (const IdentityCase& c : cases) {
        SCOPED_TRACE(c.Name);
        adapter.SetResponder(RespondAs(
            {.Identity0 = c.Identity0, .Identity8 = c.Identity8, .Unanswered = c.Unanswered}));
        adapter.ClearCommands();
        line_.AdapterFound.store(false);
        stores_.Prefs.AdapterModel = Model3Com + 1;
        stores_.Prefs.AdapterVariant = 7;
        EXPECT_EQ(line_.IdentifyAdapter(), c.ExpectedResult);
        EXPECT_EQ(line_.AdapterFound.load(), c.ExpectedResult);
        EXPECT_EQ(stores_.Prefs.AdapterModel, c.ExpectedModel);
        EXPECT_EQ(stores_.Prefs.AdapterVariant, c.ExpectedVariant);
        Texts sent = {"atv1", "ati0"};
        if (!c.Identity8.empty()) {
            sent.push_back("ati8");
        }
        EXPECT_EQ(adapter.CommandTexts(), sent);
        EXPECT_TRUE(line_.Port()->IsOpen.load()) << "the port stays open either way";
    }
}

TEST_F(LineTest, ShiftSearchesAgainFromTheFirstPortAtTheSearchSpeed) {
    stores_.Prefs.ComPort = 3;
    stores_.Prefs.MaxPortSpeed = 57600;
    stores_.Prefs.AdapterModel = ModelZyXEL;
    stores_.Prefs.AdapterVariant = 1;
    SetKeyStateQuery([](Key key) { return key == Key::Shift; });
    ScriptedAdapter& adapter = Attach(1, RespondAs(ThreeComScript()));

    EXPECT_EQ(line_.FindAdapter(), AdapterSearch::WaitingForCalls);
    EXPECT_EQ(stores_.Prefs.ComPort, 1);
    EXPECT_EQ(Logged().front(), "Searching Comm Port 1");
    const std::vector<ReceivedCommand> commands = adapter.Commands();
    ASSERT_FALSE(commands.empty());
    EXPECT_EQ(commands[0].Speed, 9600u);
    // The family found is the one the caption names.
    EXPECT_EQ(line_.OwnNumberCaption(), "Your ISDN Number: 5553882     3ComImpact IQ");
    // The speed is tested anew: a choice shows only once 230400 bps is saved.
    EXPECT_EQ(PortSpeedChoice(stores_.Prefs), SpeedChoice::At230400);
}

// A saved port and speed are taken up again without a search or a speed
// test: the speed command, where the family has one, goes out at the old
// speed; an AdTran saved at 230400 is taken as set there by its DIP switch.
// An adapter that answers only at 230400 bps, as a killed program leaves a
// 3Com, is found there and told back to 115200 first.
TEST_F(LineTest, QuickStartGoesToTheSavedPortAndSpeed) {
    struct QuickCase {
        const char* Name;
        int Port;
        uint32_t SavedMax;
        uint32_t Selected;
        int16_t Model;
        AdapterScript Script;
        std::string Commands;  // the first few, as "text@speed"
        std::string Logged;    // the first lines of the log
    };
    // The reply names the XRT; this route does not identify again.
    AdapterScript xrtAsSaved = AdtranScript();
    xrtAsSaved.NumberQuery = "ATSS62?";
    AdapterScript threeComLeft = ThreeComScript();
    threeComLeft.LeftAt230400 = true;
    threeComLeft.CommandBack = "AT$B0";
    threeComLeft.Unanswered = {"AT$B0"};
    const QuickCase cases[] = {
        {"BitSURFR at 115200", 2, 230400, 115200, ModelBitSURFR, BitsurfrScript(),
         "atv1@115200 | ati0@115200 | ati8@115200 | AT!N1?@115200",
         "Port speed set to 115200 bps."},
        {"BitSURFR at 230400", 4, 230400, 230400, ModelBitSURFR, BitsurfrScript(),
         "atv1@115200 | ati0@115200 | ati8@115200 | AT@P2=230400@115200",
         "Port speed set to 230400 bps."},
        {"AdTran switched to 230400", 3, 115200, 230400, ModelAdTran, xrtAsSaved,
         "AT@230400 | atv1@230400 | ati0@230400 | ATSS62?@230400",
         "Port speed set to 230400 bps. | Initializing Incoming: V.120 - 64K"},
        {"3Com left at 230400", 2, 230400, 230400, Model3Com, threeComLeft,
         "atv1@115200 | atv1@230400 | ati0@230400",
         "ISDN TA found at 230400 bps. | Port speed set to 230400 bps."},
    };
    for (const QuickCase& c : cases) {
        SCOPED_TRACE(c.Name);
        stores_.Prefs = Preferences{};
        stores_.Prefs.ComPort = static_cast<int16_t>(c.Port);
        stores_.Prefs.MaxPortSpeed = c.SavedMax;
        stores_.Prefs.SelectedPortSpeed = c.Selected;
        stores_.Prefs.AdapterModel = c.Model;
        ClearLogged();
        ScriptedAdapter& adapter = Attach(c.Port, RespondAs(c.Script));

        EXPECT_EQ(line_.FindAdapter(), AdapterSearch::WaitingForCalls);
        EXPECT_EQ(line_.AdapterFound.load(), true);
        EXPECT_EQ(line_.SpeedClass.load(), 2);
        EXPECT_EQ(stores_.Prefs.AdapterVariant, 0);
        EXPECT_EQ(adapter.Far().Speed(), c.Selected);
        // 230400 bps saved as the top, and the speed chosen below it.
        EXPECT_EQ(PortSpeedChoice(stores_.Prefs),
                  c.Selected == 230400 ? SpeedChoice::At230400 : SpeedChoice::At115200);
        EXPECT_EQ(line_.LinePollingEnabled.load(), true);
        const std::vector<ReceivedCommand> all = adapter.Commands();
        const size_t shown = std::min(all.size(), CommandCount(c.Commands));
        EXPECT_EQ(Described({all.begin(), all.begin() + shown}, c.Commands), c.Commands);
        EXPECT_EQ(Joined(Logged()).substr(0, c.Logged.size()), c.Logged);
        if (c.Model == ModelBitSURFR) {
            EXPECT_EQ(line_.OwnNumberCaption(), "Your ISDN Number: 5552001     BitSURFR Pro");
        }
        line_.SetLinePolling(false);
        line_.CommPortClose();
    }
}

// A port that cannot be opened identifies nothing: the quick start's
// failures below and the comm port's busy port show it.
TEST_F(LineTest, FailuresOfTheQuickStart) {
    // The DIP-switch route on a port that cannot be opened: no message and
    // no line, as the whole of each, below, shows.
    stores_.Prefs.ComPort = 2;
    stores_.Prefs.MaxPortSpeed = 230400;
    stores_.Prefs.SelectedPortSpeed = 230400;
    stores_.Prefs.AdapterModel = ModelAdTran;
    EXPECT_EQ(line_.FindAdapter(), AdapterSearch::NotFound);

    // Any other saved port that does not answer: the message, the line, and
    // no search of the other ports.
    stores_.Prefs.AdapterModel = ModelZyXEL;
    Attach(1, RespondAs(ZyxelScript()));
    EXPECT_EQ(line_.FindAdapter(), AdapterSearch::NotFound);
    EXPECT_EQ(Messages(), (Texts{NoAdapterMessage}));
    EXPECT_EQ(Logged(), (Texts{"ISDN TA not found."}));
    EXPECT_EQ(line_.AdapterFound.load(), false);
    EXPECT_EQ(line_.LinePollingEnabled.load(), false);
    EXPECT_TRUE(adapters_[0]->Commands().empty());
}

// Two lines in one process share nothing: each keeps its own port, adapter,
// number, token buffer and hand-over of the port, while the other one works.
TEST_F(LineTest, TwoLinesSideBySideKeepEachItsOwnState) {
    Attach(1, RespondAs(BitsurfrScript()));
    Attach(2, RespondAs(ThreeComScript()));
    // Its own preferences and log, over the same folder and its ports.
    Installation otherStores(root_.Path());
    TestClock otherClock;
    Line other(otherStores, otherClock);
    ASSERT_TRUE(other.CommPortCreate());

    line_.SelectPortNumber(1);
    line_.SelectPortBaud(9600);
    ASSERT_TRUE(line_.IdentifyAdapter());
    line_.SpeedClass.store(2);
    ASSERT_TRUE(line_.InitializeIncoming());
    line_.SetLinePolling(true);
    const std::string reply = line_.TokenBuffer;
    // Its polling flag, number, token buffer and port are told apart below.
    EXPECT_FALSE(other.AdapterFound.load());
    EXPECT_EQ(other.SpeedClass.load(), 0);
    EXPECT_EQ(other.RateEstimate.load(), 0);

    other.SelectPortNumber(2);
    other.SelectPortBaud(9600);
    ASSERT_TRUE(other.IdentifyAdapter());
    ASSERT_TRUE(other.InitializeIncoming());
    {
        PortConversation conversation(other);
        EXPECT_TRUE(line_.LinePollingEnabled.load()) << "the other line's conversation";
    }
    EXPECT_TRUE(line_.AdapterFound.load());
    EXPECT_TRUE(line_.LinePollingEnabled.load());
    EXPECT_FALSE(other.LinePollingEnabled.load());
    EXPECT_EQ(line_.TokenBuffer, reply);
    EXPECT_EQ(line_.OwnNumberCaption(), "Your ISDN Number: 5552001     BitSURFR Pro");
    EXPECT_EQ(other.OwnNumberCaption(), "Your ISDN Number: 5553882     3ComImpact IQ");
    EXPECT_EQ(line_.Port()->PortNumber, 1);
    EXPECT_EQ(other.Port()->PortNumber, 2);
    EXPECT_TRUE(line_.Port()->IsOpen.load());

    // Each line times its own reads: short reads that keep starting on the
    // other line do not hold off the end of a longer read on this one.
    std::atomic<bool> readEnded{false};
    std::atomic<bool> otherStopped{false};
    std::thread otherReads([&] {
        char buffer[TokenBufferSize];
        for (int i = 0; i < 60 && !readEnded.load(); ++i) {
            static_cast<void>(other.ReadLine(50, buffer));
        }
        otherStopped = true;
    });
    char buffer[TokenBufferSize];
    EXPECT_EQ(line_.ReadLine(300, buffer), nullptr);
    EXPECT_FALSE(otherStopped.load()) << "the read ended only once the other line was done";
    readEnded = true;
    otherReads.join();
}

}  // namespace

}  // namespace kb::test
