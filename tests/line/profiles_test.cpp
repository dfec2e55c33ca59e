#include "line/profiles.h"

#include <cstring>

#include "line_fixture.h"

namespace kb::test {

using namespace kb::line;

namespace {

// An adapter found on COM1 at 115200 bps.
class ProfileTest : public LineTest {
protected:
    void Found(int16_t model, int16_t variant, int16_t speedClass) {
        stores_.Prefs.AdapterModel = model;
        stores_.Prefs.AdapterVariant = variant;
        line_.AdapterFound.store(true);
        line_.SpeedClass.store(speedClass);
    }
    // The last command the adapter received.
    static std::string LastCommand(ScriptedAdapter& adapter) {
        const Texts commands = adapter.CommandTexts();
        return commands.empty() ? std::string() : commands.back();
    }
};

struct NumberCase {
    const char* Name;
    int16_t Model;
    int16_t Variant;
    std::string Query;
    std::string Reply;
    std::string Shown;  // "" when the reply gives no number
    std::string Number;
};

// Every family's caption for a plain number is the detection tests'; here the
// zeros behind a number and the replies that give none.
TEST_F(ProfileTest, EachFamilysNumberIsReadAsItWritesItAndEachProfileFollowsItsSettings) {
    const std::string longNumber = "1234567890123456789012345678901234567890";
    const NumberCase cases[] = {
        {"BitSURFR", ModelBitSURFR, 0, "AT!N1?", "AT!N1?\r\r\n5552001\r\nOK\r\n",
         "Your ISDN Number: 5552001     BitSURFR Pro", "5552001"},
        {"BitSURFR without digits", ModelBitSURFR, 0, "AT!N1?", "AT!N1?\r\r\nOK\r\n",
         std::string("Your ISDN Number: ") + "     BitSURFR Pro", ""},
        {"BitSURFR with a blank behind the digits", ModelBitSURFR, 0, "AT!N1?",
         "AT!N1?\r\r\n5552001 \r\nOK\r\n", std::string("Your ISDN Number: ") + "     BitSURFR Pro",
         ""},
        {"AdTran with a number too long", ModelAdTran, 0, "ATSS62?",
         "ATSS62?\r\r\n" + longNumber + "\r\n\r\nOK\r\n",
         "Your ISDN Number: " + longNumber.substr(0, 31) + "     AdTran Express XR",
         longNumber.substr(0, 31)},
        {"ZyXEL without the mark", ModelZyXEL, 1, "AT&ZI?",
         "AT&ZI?\r\r\n(Multi):(5552864)\r\nOK\r\n", "", ""},
        {"ZyXEL without the closing bracket", ModelZyXEL, 1, "AT&ZI?",
         "AT&ZI?\r\r\n(MultiAuto):(5552864\r\nOK\r\n", "", ""},
        {"3Com with no CR behind the number", Model3Com, 0, "ATS51?", "ATS51?OK\r\n", "", ""},
    };
    ScriptedAdapter& adapter = Attach(1, RespondAs(AdapterScript{}));
    OpenPort(1, 115200);
    for (const NumberCase& c : cases) {
        SCOPED_TRACE(c.Name);
        adapter.SetResponder([c](const std::string& command, uint32_t) {
            return command == c.Query ? c.Reply : Answer(command);
        });
        Found(c.Model, c.Variant, 2);
        std::memset(line_.LocalNumber, 'x', sizeof line_.LocalNumber);
        adapter.ClearCommands();

        EXPECT_TRUE(line_.InitializeIncoming());
        ASSERT_FALSE(adapter.CommandTexts().empty());
        EXPECT_EQ(adapter.CommandTexts()[0], c.Query) << "the number is asked before the profile";
        EXPECT_EQ(line_.OwnNumberCaption(), c.Shown);
        if (c.Shown.empty()) {
            EXPECT_EQ(std::string(line_.LocalNumber, sizeof line_.LocalNumber),
                      std::string(32, 'x'))
                << "a reply without a number leaves it as it was";
            continue;
        }
        std::string expected(c.Number);
        expected.resize(32, '\0');
        EXPECT_EQ(std::string(line_.LocalNumber, sizeof line_.LocalNumber), expected)
            << "the number, with zeros behind it";
    }

    // The first incoming profile of each family: the protocol saved, unless the
    // adapter on this port does not offer it, and the channel options of the
    // families that have them; and the outgoing profile of the settings chosen
    // for a call.
    struct ProfileCase {
        const char* Name;
        bool Outgoing;
        int16_t Model;
        int16_t Variant;
        int16_t SpeedClass;
        int16_t Protocol;  // saved as IncomingProtocol, or chosen for the call
        bool At56k;
        bool TwoChannels;
        bool Compression;
        int16_t ProtocolAfter;  // IncomingProtocol after an incoming set-up
        uint16_t Rate;
        std::string Command;  // "" where another case has the family's strings
        std::string Logged;   // the lines, joined
    };
    const std::string zyxelOff = " | 2B channel connection OFF | V.42bis compression OFF";
    const ProfileCase profiles[] = {
        {"ZyXEL with both options", false, ModelZyXEL, 1, 2, 0, false, true, true, 0, 32000,
         "AT&H3&D0&C1&E0&S0Q0E1V1B20&O2S0=0X1&J3&K44",
         "Initializing Incoming: V.120 - 64K | 2B channel connection ON | V.42bis compression ON"},
        {"ZyXEL X.75 at 56K", false, ModelZyXEL, 3, 2, 2, true, false, false, 2, 7000,
         "AT&H3&D0&C1&E1&S0Q0E1V1B00&O2S0=0X1&J0&K00",
         "Initializing Incoming: X.75 - 56K" + zyxelOff},
        {"BitSURFR on a slow port with AIMUX saved", false, ModelBitSURFR, 0, 1, 1, false, true,
         true, 0, 8000, "AT\\Q3%A2=2%A4=0S0=0S12=25&D0&C1W1E1",
         "Initializing Incoming: V.120 - 64K"},
        {"BitSURFR on a fast port", false, ModelBitSURFR, 0, 2, 1, false, false, false, 1, 16000,
         "", "Initializing Incoming: AIMUX - 64K"},
        {"AdTran with X.75 saved", false, ModelAdTran, 1, 2, 2, false, false, false, 0, 8000, "",
         "Initializing Incoming: V.120 - 64K"},
        {"Omni.net with X.75 saved", false, ModelZyXEL, 2, 2, 2, false, false, false, 0, 8000, "",
         "Initializing Incoming: V.120 - 64K" + zyxelOff},
        {"Elite with AIMUX saved", false, ModelZyXEL, 1, 2, 1, false, false, false, 0, 8000, "",
         "Initializing Incoming: V.120 - 64K" + zyxelOff},
        {"3Com with X.75 saved", false, Model3Com, 0, 2, 2, false, false, false, 0, 8000, "",
         "Initializing Incoming: V.120 - 64K"},
        {"ZyXEL X.75 with 2B, outgoing", true, ModelZyXEL, 3, 2, ProtocolX75, false, true, false, 0,
         16000, "AT&H3&D0&C1&E0&S0Q0E1V1B00&O2S0=0X1&J3&K00",
         "Initializing Outgoing: X.75 - 64K | 2B channel connection ON | V.42bis compression OFF"},
        {"AdTran AIMUX at 56K, outgoing, its 2B box without effect", true, ModelAdTran, 0, 2,
         ProtocolAimux, true, true, false, 0, 14000, "AT&F4\\Q3&D0X1S0=0S12=25S53=2S54=2S15=1",
         "Initializing Outgoing: AIMUX - 56K"},
        {"AdTran V.120, outgoing", true, ModelAdTran, 0, 2, ProtocolV120, false, false, false, 0,
         8000, "AT&F3\\Q3&D0X1S0=0S12=25S53=3S54=6", "Initializing Outgoing: V.120 - 64K"},
        {"3Com with X.75 asked for, outgoing", true, Model3Com, 0, 2, ProtocolX75, false, false,
         false, 0, 8000, "AT\\Q3S0=0&D0&C1W1E1S71=2S73=0S74=253S75=0S60=64",
         "Initializing Outgoing: V.120 - 64K"},
    };
    adapter.SetResponder(RespondAs(ZyxelScript()));
    for (const ProfileCase& c : profiles) {
        SCOPED_TRACE(c.Name);
        stores_.Prefs = Preferences{};
        Found(c.Model, c.Variant, c.SpeedClass);
        ClearLogged();
        if (c.Outgoing) {
            line_.InitializeOutgoing(
                {static_cast<LineProtocol>(c.Protocol), c.At56k, c.TwoChannels, c.Compression});
        } else {
            stores_.Prefs.IncomingProtocol = c.Protocol;
            stores_.Prefs.Incoming56K = c.At56k ? 1 : 0;
            stores_.Prefs.Incoming2B = c.TwoChannels ? 1 : 0;
            stores_.Prefs.IncomingV42 = c.Compression ? 1 : 0;
            EXPECT_TRUE(line_.InitializeIncoming());
            EXPECT_EQ(stores_.Prefs.IncomingProtocol, c.ProtocolAfter);
        }
        EXPECT_EQ(Joined(Logged()), c.Logged);
        EXPECT_EQ(line_.RateEstimate.load(), c.Rate);
        if (!c.Command.empty()) {
            EXPECT_EQ(LastCommand(adapter), c.Command);
        }
        EXPECT_TRUE(Messages().empty());
    }
}

// A later set-up drains the line first and ignores its result; the first
// one of a run says that it failed, with the number read all the same. The
// closing command waits for its OK except on the 3Com.
TEST_F(ProfileTest, OnlyTheFirstSetUpReportsAFailureLaterOnesDrainTheLineAndTheLastCommandGoes) {
    Found(ModelAdTran, 1, 2);
    stores_.Prefs.IncomingProtocol = 1;
    AdapterScript script = AdtranScript();
    script.Unanswered = {"AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1"};
    ScriptedAdapter& adapter = Attach(1, RespondAs(script));
    OpenPort(1, 115200);
    // Stale input that must not be taken for the reply.
    adapter.Far().Send("\r\nRING\r\n");

    line_.ReinitializeIncoming();
    EXPECT_EQ(LastCommand(adapter), "AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1");
    EXPECT_EQ(line_.RateEstimate.load(), 16000);
    EXPECT_STREQ(line_.TokenBuffer, "AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1\r")
        << "the stale lines were thrown away before the command went out";
    EXPECT_TRUE(Messages().empty()) << "a later set-up that fails is not reported";
    EXPECT_EQ(Logged(),
              (Texts{"------------------------------", "Reinitializing Incoming: AIMUX - 64K"}));
    EXPECT_FALSE(line_.InitializeIncoming());
    EXPECT_EQ(Messages(), (Texts{"Communications read time out during Startup."}));
    EXPECT_EQ(line_.OwnNumberCaption(), "Your ISDN Number: 5552063     AdTran Express XRT");

    // A 3Com whose record still holds the X.75 of another adapter sends its
    // V.120 profile.
    stores_.Prefs.AdapterModel = Model3Com;
    stores_.Prefs.IncomingProtocol = 2;
    stores_.Prefs.Incoming56K = 1;
    ClearLogged();
    line_.ReinitializeIncoming();
    EXPECT_EQ(LastCommand(adapter), "AT\\Q3S0=0&D0&C1W1E1S71=2S73=1S74=256S75=0S60=56");
    EXPECT_EQ(line_.RateEstimate.load(), 7000);

    // The closing command: the 3Com's goes out with its reply not read, the
    // others' wait for their OK.
    adapter.ClearCommands();
    line_.TokenBuffer[0] = '\0';
    line_.SendClosingCommand();
    EXPECT_EQ(line_.TokenBuffer[0], '\0') << "the 3Com's command is sent and its reply not read";
    ASSERT_TRUE(adapter.WaitForCommands(1, 2000));
    line_.DrainInput(200);
    stores_.Prefs.AdapterModel = ModelZyXEL;
    line_.SendClosingCommand();
    EXPECT_STREQ(line_.TokenBuffer, "AT&O0E1\r\r\nOK\r\n");
    EXPECT_EQ(adapter.CommandTexts(), (Texts{"AT$B0E1", "AT&O0E1"}));

    // Without an adapter nothing goes out, neither a set-up nor a closing
    // command of either kind.
    line_.AdapterFound.store(false);
    adapter.ClearCommands();
    ClearLogged();
    line_.ReinitializeIncoming();
    line_.SendClosingCommand();
    stores_.Prefs.AdapterModel = Model3Com;
    line_.SendClosingCommand();
    EXPECT_FALSE(adapter.WaitForCommands(1, 200)) << "nothing goes to a port without an adapter";
    EXPECT_TRUE(Logged().empty());
}

}  // namespace

}  // namespace kb::test
