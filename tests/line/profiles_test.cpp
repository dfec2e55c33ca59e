#include "line/profiles.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <mutex>

#include "line/adapter.h"
#include "line/comm_port.h"
#include "line_fixture.h"
#include "platform/control_model.h"
#include "platform/event_loop.h"
#include "resources/resource.h"
#include "stores/preferences.h"

namespace {

using Texts = std::vector<std::string>;

// An adapter found on COM1 at 115200 bps that answers every command with OK.
class ProfileTest : public LineTest {
protected:
    void Found(int16_t model, int16_t variant, int16_t speedClass) {
        ThePreferences.AdapterModel = model;
        ThePreferences.AdapterVariant = variant;
        AdapterFound.store(1);
        SpeedClass.store(speedClass);
    }
    ScriptedAdapter& Adapter(AdapterScript script) {
        ScriptedAdapter& adapter = Attach(1, RespondAs(std::move(script)));
        OpenPort(1, 115200);
        return adapter;
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
    std::string Shown;  // "" when the line keeps its state
    std::string Number;
};

TEST_F(ProfileTest, EachFamilysNumberIsReadAsItWritesIt) {
    const std::string longNumber = "1234567890123456789012345678901234567890";
    const NumberCase cases[] = {
        {"BitSURFR", ModelBitSURFR, 0, "AT!N1?", "AT!N1?\r\r\n5552001\r\nOK\r\n",
         "Your ISDN Number: 5552001     BitSURFR Pro", "5552001"},
        {"BitSURFR without digits", ModelBitSURFR, 0, "AT!N1?", "AT!N1?\r\r\nOK\r\n",
         std::string("Your ISDN Number: ") + "     BitSURFR Pro", ""},
        {"BitSURFR with a blank behind the digits", ModelBitSURFR, 0, "AT!N1?",
         "AT!N1?\r\r\n5552001 \r\nOK\r\n", std::string("Your ISDN Number: ") + "     BitSURFR Pro",
         ""},
        {"AdTran XR", ModelAdTran, 0, "ATSS62?", "ATSS62?\r\r\n5552062\r\n\r\nOK\r\n",
         "Your ISDN Number: 5552062     AdTran Express XR", "5552062"},
        {"AdTran XRT", ModelAdTran, 1, "ATSS63?", "ATSS63?\r\r\n5552063\r\n\r\nOK\r\n",
         "Your ISDN Number: 5552063     AdTran Express XRT", "5552063"},
        {"AdTran with a number too long", ModelAdTran, 0, "ATSS62?",
         "ATSS62?\r\r\n" + longNumber + "\r\n\r\nOK\r\n",
         "Your ISDN Number: " + longNumber.substr(0, 31) + "     AdTran Express XR",
         longNumber.substr(0, 31)},
        {"Elite 2864i", ModelZyXEL, 1, "AT&ZI?", "AT&ZI?\r\r\nISDN (MultiAuto):(5552864)\r\nOK\r\n",
         "Your ISDN Number: 5552864     ZyXEL Elite 2864i", "5552864"},
        {"Omni.net", ModelZyXEL, 2, "AT&ZI?", "AT&ZI?\r\r\n(MultiAuto):(5551292)\r\nOK\r\n",
         "Your ISDN Number: 5551292     ZyXEL Omni.net", "5551292"},
        {"Omni TA128", ModelZyXEL, 3, "AT&ZI?", "AT&ZI?\r\r\n(MultiAuto):(5551282)\r\nOK\r\n",
         "Your ISDN Number: 5551282     ZyXEL Omni TA128", "5551282"},
        {"ZyXEL without the mark", ModelZyXEL, 1, "AT&ZI?",
         "AT&ZI?\r\r\n(Multi):(5552864)\r\nOK\r\n", "", ""},
        {"ZyXEL without the closing bracket", ModelZyXEL, 1, "AT&ZI?",
         "AT&ZI?\r\r\n(MultiAuto):(5552864\r\nOK\r\n", "", ""},
        {"3Com", Model3Com, 0, "ATS51?", "ATS51?\r\r\n5553882\r\n\r\nOK\r\n",
         "Your ISDN Number: 5553882     3ComImpact IQ", "5553882"},
        {"3Com with no CR behind the number", Model3Com, 0, "ATS51?", "ATS51?OK\r\n", "", ""},
    };
    // The adapter's thread outlives this body, so what it reads is shared.
    struct Reply {
        std::mutex Lock;
        std::string Text;
    };
    const auto reply = std::make_shared<Reply>();
    ScriptedAdapter& adapter = Attach(1, [reply](const std::string&, uint32_t) {
        std::lock_guard<std::mutex> guard(reply->Lock);
        return reply->Text;
    });
    OpenPort(1, 115200);
    for (const NumberCase& c : cases) {
        SCOPED_TRACE(c.Name);
        {
            std::lock_guard<std::mutex> guard(reply->Lock);
            reply->Text = c.Reply;
        }
        Found(c.Model, c.Variant, 2);
        Controls().SetText(IDC_OWN_NUMBER, "Your ISDN Number: ");
        Controls().Enable(IDC_OWN_NUMBER, false);
        std::memset(LocalNumber, 'x', sizeof LocalNumber);
        adapter.ClearCommands();

        ShowLocalNumber();
        EXPECT_EQ(adapter.CommandTexts(), (Texts{c.Query}));
        if (c.Shown.empty()) {
            EXPECT_EQ(Controls().Text(IDC_OWN_NUMBER), "Your ISDN Number: ");
            EXPECT_FALSE(Controls().Enabled(IDC_OWN_NUMBER));
            EXPECT_EQ(std::string(LocalNumber, sizeof LocalNumber), std::string(32, 'x'))
                << "a reply without a number leaves it as it was";
            continue;
        }
        EXPECT_EQ(Controls().Text(IDC_OWN_NUMBER), c.Shown);
        EXPECT_TRUE(Controls().Enabled(IDC_OWN_NUMBER));
        std::string expected(c.Number);
        expected.resize(32, '\0');
        EXPECT_EQ(std::string(LocalNumber, sizeof LocalNumber), expected)
            << "the number, with zeros behind it";
    }

    // Without an adapter nothing is asked and the line goes dark.
    AdapterFound.store(0);
    Controls().Enable(IDC_OWN_NUMBER, true);
    adapter.ClearCommands();
    ShowLocalNumber();
    EXPECT_FALSE(Controls().Enabled(IDC_OWN_NUMBER));
    EXPECT_TRUE(adapter.CommandTexts().empty());
}

TEST_F(ProfileTest, ZyxelIncomingProfileCarriesBothChannelOptions) {
    Found(ModelZyXEL, 1, 2);
    ThePreferences.Incoming2B = 1;
    ThePreferences.IncomingV42 = 1;
    ThePreferences.IgnoreHotFolders = 1;
    ScriptedAdapter& adapter = Adapter(ZyxelScript("2864"));

    InitializeIncoming();
    EXPECT_EQ(adapter.CommandTexts(),
              (Texts{"AT&ZI?", "AT&H3&D0&C1&E0&S0Q0E1V1B20&O2S0=0X1&J3&K44"}));
    EXPECT_EQ(RateEstimate.load(), 32000);
    EXPECT_EQ(Logged(), (Texts{"Initializing Incoming: V.120 - 64K", "2B channel connection ON",
                               "V.42bis compression ON"}));
    EXPECT_TRUE(MainLoop().TimerRunning(TimerHotFolders));
    EXPECT_TRUE(Messages().empty());

    EXPECT_EQ(RowTexts(IDC_PROTOCOL), (Texts{"V.120", "X.75"}));
    EXPECT_EQ(RowTexts(IDC_IN_PROTOCOL), (Texts{"V.120", "X.75"}));
    for (int id : {IDC_2B, IDC_V42, IDC_IN_2B, IDC_IN_V42}) {
        EXPECT_TRUE(Controls().Shown(id)) << id;
    }
    EXPECT_TRUE(Controls().Checked(IDC_IN_2B));
    EXPECT_TRUE(Controls().Checked(IDC_IN_V42));
    EXPECT_FALSE(Controls().Checked(IDC_IN_56K));
    EXPECT_TRUE(Controls().Checked(IDC_IGNORE_HOT));
    EXPECT_EQ(Controls().Selection(IDC_IN_PROTOCOL), 0);
    EXPECT_EQ(Controls().Selection(IDC_PROTOCOL), 0);
    EXPECT_EQ(Controls().Selection(IDC_CARRIER), 0);
}

TEST_F(ProfileTest, ZyxelX75IsRowOneAndItsOwnSlots) {
    Found(ModelZyXEL, 3, 2);
    ThePreferences.IncomingProtocol = 2;
    ThePreferences.Incoming56K = 1;
    ScriptedAdapter& adapter = Adapter(ZyxelScript("1282"));

    InitializeIncoming();
    EXPECT_EQ(Controls().Selection(IDC_IN_PROTOCOL), 1);
    EXPECT_EQ(Controls().RowText(IDC_IN_PROTOCOL, 1), "X.75");
    EXPECT_EQ(LastCommand(adapter), "AT&H3&D0&C1&E1&S0Q0E1V1B00&O2S0=0X1&J0&K00");
    EXPECT_EQ(RateEstimate.load(), 7000);
    EXPECT_EQ(Logged(), (Texts{"Initializing Incoming: X.75 - 56K", "2B channel connection OFF",
                               "V.42bis compression OFF"}));
    EXPECT_EQ(ThePreferences.IncomingProtocol, 2);

    // Outgoing, row 1 is X.75 too, and the outgoing boxes count.
    Controls().Select(IDC_PROTOCOL, 1);
    Controls().Check(IDC_56K, false);
    Controls().Check(IDC_2B, true);
    Controls().Check(IDC_V42, false);
    Controls().Check(IDC_IN_V42, true);
    ClearLogged();
    InitializeOutgoing();
    EXPECT_EQ(LastCommand(adapter), "AT&H3&D0&C1&E0&S0Q0E1V1B00&O2S0=0X1&J3&K00");
    EXPECT_EQ(RateEstimate.load(), 16000);
    EXPECT_EQ(Logged(), (Texts{"Initializing Outgoing: X.75 - 64K", "2B channel connection ON",
                               "V.42bis compression OFF"}));
}

TEST_F(ProfileTest, ProtocolListsFollowTheFamily) {
    struct ListCase {
        const char* Name;
        int16_t Model;
        int16_t Variant;
        int16_t SpeedClass;
        int16_t SavedProtocol;
        Texts Rows;
        int16_t ProtocolAfter;
        int Selection;
    };
    const ListCase cases[] = {
        {"BitSURFR on a slow port", ModelBitSURFR, 0, 1, 1, {"V.120"}, 0, 0},
        {"BitSURFR on a fast port", ModelBitSURFR, 0, 2, 1, {"V.120", "AIMUX"}, 1, 1},
        {"AdTran with X.75 saved", ModelAdTran, 1, 2, 2, {"V.120", "AIMUX"}, 0, 0},
        {"Omni.net offers V.120 alone", ModelZyXEL, 2, 2, 2, {"V.120"}, 0, 0},
        {"Elite with AIMUX saved", ModelZyXEL, 1, 2, 1, {"V.120", "X.75"}, 0, 0},
        {"3Com with X.75 saved", Model3Com, 0, 2, 2, {"V.120"}, 0, 0},
    };
    for (const ListCase& c : cases) {
        SCOPED_TRACE(c.Name);
        MakeWindowControls();
        ThePreferences = Preferences{};
        Found(c.Model, c.Variant, c.SpeedClass);
        ThePreferences.IncomingProtocol = c.SavedProtocol;
        ThePreferences.Incoming2B = 1;
        ApplyAdapterToWindow();
        EXPECT_EQ(RowTexts(IDC_PROTOCOL), c.Rows);
        EXPECT_EQ(RowTexts(IDC_IN_PROTOCOL), c.Rows);
        EXPECT_EQ(ThePreferences.IncomingProtocol, c.ProtocolAfter);
        EXPECT_EQ(Controls().Selection(IDC_IN_PROTOCOL), c.Selection);
        const bool zyxel = c.Model == ModelZyXEL;
        EXPECT_EQ(Controls().Shown(IDC_IN_2B), zyxel);
        EXPECT_EQ(Controls().Shown(IDC_2B), zyxel);
        EXPECT_TRUE(Controls().Checked(IDC_IN_2B)) << "set from the record in every family";
    }
}

TEST_F(ProfileTest, OtherFamiliesGetNoChannelOptions) {
    Found(ModelBitSURFR, 0, 1);
    ThePreferences.IncomingProtocol = 1;
    ThePreferences.Incoming2B = 1;
    ThePreferences.IncomingV42 = 1;
    ScriptedAdapter& adapter = Adapter(BitsurfrScript());

    InitializeIncoming();
    EXPECT_EQ(LastCommand(adapter), "AT\\Q3%A2=2%A4=0S0=0S12=25&D0&C1W1E1");
    EXPECT_EQ(RateEstimate.load(), 8000);
    EXPECT_EQ(Logged(), (Texts{"Initializing Incoming: V.120 - 64K"}));

    // A 3Com whose record still holds the X.75 of another adapter sends
    // its V.120 profile.
    SpeedClass.store(2);
    ThePreferences.AdapterModel = Model3Com;
    ThePreferences.IncomingProtocol = 2;
    ThePreferences.Incoming56K = 1;
    ClearLogged();
    ReinitializeIncoming();
    EXPECT_EQ(LastCommand(adapter), "AT\\Q3S0=0&D0&C1W1E1S71=2S73=1S74=256S75=0S60=56");
    EXPECT_EQ(RateEstimate.load(), 7000);
    EXPECT_EQ(Logged(),
              (Texts{"------------------------------", "Reinitializing Incoming: V.120 - 56K"}));
}

TEST_F(ProfileTest, OutgoingProfileFollowsTheOutgoingControls) {
    Found(ModelAdTran, 0, 2);
    ScriptedAdapter& adapter = Adapter(AdtranScript(false));
    ApplyAdapterToWindow();

    Controls().Select(IDC_PROTOCOL, 1);
    Controls().Check(IDC_56K, true);
    Controls().Check(IDC_2B, true);
    InitializeOutgoing();
    EXPECT_EQ(LastCommand(adapter), std::string(LoadResourceString(114)));
    EXPECT_EQ(LastCommand(adapter), "AT&F4\\Q3&D0X1S0=0S12=25S53=2S54=2S15=1");
    EXPECT_EQ(RateEstimate.load(), 14000);

    // No row chosen is V.120.
    Controls().Select(IDC_PROTOCOL, -1);
    Controls().Check(IDC_56K, false);
    InitializeOutgoing();
    EXPECT_EQ(LastCommand(adapter), "AT&F3\\Q3&D0X1S0=0S12=25S53=3S54=6");
    EXPECT_EQ(RateEstimate.load(), 8000);
    EXPECT_EQ(Logged(),
              (Texts{"Initializing Outgoing: AIMUX - 56K", "Initializing Outgoing: V.120 - 64K"}));
}

TEST_F(ProfileTest, LaterIncomingSetUpDrainsTheLineFirstAndIgnoresItsResult) {
    Found(ModelAdTran, 1, 2);
    ThePreferences.IncomingProtocol = 1;
    AdapterScript script = AdtranScript(true);
    script.Unanswered = {"AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1"};
    ScriptedAdapter& adapter = Adapter(script);
    // Stale input that must not be taken for the reply.
    adapter.Far().Send("\r\nRING\r\n");

    ReinitializeIncoming();
    EXPECT_EQ(LastCommand(adapter), "AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1");
    EXPECT_EQ(RateEstimate.load(), 16000);
    EXPECT_STREQ(TokenBuffer, "AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1\r")
        << "the stale lines were thrown away before the command went out";
    EXPECT_TRUE(Messages().empty()) << "a later set-up that fails is not reported";
    EXPECT_EQ(Logged(),
              (Texts{"------------------------------", "Reinitializing Incoming: AIMUX - 64K"}));

    // Without an adapter nothing goes out.
    AdapterFound.store(0);
    adapter.ClearCommands();
    ClearLogged();
    ReinitializeIncoming();
    EXPECT_TRUE(adapter.CommandTexts().empty());
    EXPECT_TRUE(Logged().empty());
}

TEST_F(ProfileTest, FirstIncomingSetUpThatFailsIsReportedAndStartsNoTimer) {
    Found(Model3Com, 0, 2);
    AdapterScript script = ThreeComScript();
    script.Unanswered = {"AT\\Q3S0=0&D0&C1W1E1S71=2S73=0S74=253S75=0S60=64"};
    Adapter(script);

    InitializeIncoming();
    EXPECT_EQ(Messages(), (Texts{"Communications read time out during Startup."}));
    EXPECT_FALSE(MainLoop().TimerRunning(TimerHotFolders));
    EXPECT_EQ(Controls().Text(IDC_OWN_NUMBER), "Your ISDN Number: 5553882     3ComImpact IQ");
}

TEST_F(ProfileTest, ClosingCommandWaitsForOkExceptOnThe3Com) {
    Found(Model3Com, 0, 2);
    ScriptedAdapter& adapter = Adapter(ThreeComScript());
    SendClosingCommand();
    EXPECT_EQ(TokenBuffer[0], '\0') << "the 3Com's command is sent and its reply not read";
    ASSERT_TRUE(adapter.WaitForCommands(1, 2000));
    DrainInput(200);

    ThePreferences.AdapterModel = ModelZyXEL;
    SendClosingCommand();
    EXPECT_STREQ(TokenBuffer, "AT&O0E1\r\r\nOK\r\n");
    EXPECT_EQ(adapter.CommandTexts(), (Texts{"AT$B0E1", "AT&O0E1"}));

    AdapterFound.store(0);
    adapter.ClearCommands();
    SendClosingCommand();
    ThePreferences.AdapterModel = Model3Com;
    SendClosingCommand();
    EXPECT_FALSE(adapter.WaitForCommands(1, 200)) << "nothing goes to a port without an adapter";
}

}  // namespace
