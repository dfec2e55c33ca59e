#include "line/port_speed.h"

#include "line_fixture.h"

namespace kb::test {

using namespace kb::line;

namespace {

class PortSpeedTest : public LineTest {
protected:
    // An adapter found on port n by the search, silent above its top speed:
    // the port at 9600 bps unless given.
    ScriptedAdapter& FoundAt(int port, int16_t model, AdapterScript script,
                             uint32_t topSpeed = 230400, uint32_t portSpeed = 9600) {
        script.MaxSpeed = topSpeed;
        stores_.Prefs.AdapterModel = model;
        line_.AdapterFound.store(true);
        ScriptedAdapter& adapter = Attach(port, RespondAs(std::move(script)));
        OpenPort(port, portSpeed);
        return adapter;
    }
};

TEST_F(PortSpeedTest, AdtranWithItsSwitchAt230400SkipsTheLadder) {
    stores_.Prefs.SelectedPortSpeed = 230400;
    ScriptedAdapter& adapter = FoundAt(1, ModelAdTran, AdtranScript());
    line_.QualifyPortSpeed();
    EXPECT_FALSE(adapter.WaitForCommands(1, 200));
    EXPECT_TRUE(Logged().empty());
    EXPECT_EQ(stores_.Prefs.MaxPortSpeed, 9600u);
}

TEST_F(PortSpeedTest, PortThatAnswersAt57600ButNotAt115200) {
    ScriptedAdapter& adapter = FoundAt(2, ModelZyXEL, ZyxelScript(), 57600);

    line_.QualifyPortSpeed();
    const std::string expected =
        "ATE1V1@9600 | AT@57600 | AT@57600 | AT@57600 | AT@57600 | AT@57600 | AT@115200";
    EXPECT_EQ(Described(adapter.Commands(), expected), expected);
    EXPECT_EQ(Messages(), (Texts{"Error testing connection at 115200 bps."}));
    EXPECT_EQ(stores_.Prefs.MaxPortSpeed, 57600u);
    EXPECT_EQ(line_.SpeedClass.load(), 1);
    EXPECT_EQ(adapter.Far().Speed(), 115200u) << "the port is left where the test failed";
}

TEST_F(PortSpeedTest, ThreeComThatFailsAt230400IsSentBack) {
    ScriptedAdapter& adapter = FoundAt(3, Model3Com, ThreeComScript(), 115200);

    line_.QualifyPortSpeed();
    ASSERT_TRUE(adapter.WaitForCommands(14, 2000));
    const Texts commands = adapter.CommandTexts();
    EXPECT_EQ(Texts(commands.end() - 3, commands.end()), (Texts{"AT$B230400", "AT", "AT$B0"}));
    EXPECT_EQ(Messages(), (Texts{"Error testing connection at 230400 bps."}));
    EXPECT_EQ(stores_.Prefs.MaxPortSpeed, 115200u);
    EXPECT_EQ(line_.SpeedClass.load(), 2);
    EXPECT_EQ(adapter.Far().Speed(), 115200u);
    EXPECT_EQ(Logged().back(), "Testing 230400 bps...");
}

TEST_F(PortSpeedTest, MenuMovesOfEachFamily) {
    struct MoveCase {
        const char* Name;
        int16_t Model;
        AdapterScript Script;
        std::string Up;  // the commands, as Described gives them
        std::string Down;
    };
    const MoveCase cases[] = {
        {"BitSURFR", ModelBitSURFR, BitsurfrScript(), "AT@P2=230400@115200 | AT@230400",
         "AT@P2=115200@230400 | AT@115200"},
        {"3Com", Model3Com, ThreeComScript(), "AT$B230400@any", "AT$B0@any"},
        {"ZyXEL", ModelZyXEL, ZyxelScript(), "AT@230400", "AT@115200"},
        {"AdTran", ModelAdTran, AdtranScript(), "AT@230400", "AT@115200"},
    };
    const Texts switchMessages = {
        "Please move DIP switch 1 to the OFF (up) position\ron the back of the AdTran ISDN "
        "Terminal Adapter.",
        "Please move DIP switch 1 to the ON (down) position\ron the back of the AdTran ISDN "
        "Terminal Adapter."};
    int port = 1;
    for (const MoveCase& c : cases) {
        SCOPED_TRACE(c.Name);
        ClearLogged();
        stores_.Prefs.MaxPortSpeed = 230400;
        ScriptedAdapter& adapter = FoundAt(port++, c.Model, c.Script, 230400, 115200);
        line_.SetLinePolling(true);
        // While the message about the switch waits for the user, the port
        // has moved and nothing has been sent yet.
        std::vector<std::pair<uint32_t, size_t>> atMessage;
        output_.OnMessage = [&](const std::string&) {
            atMessage.push_back({adapter.Far().Speed(), adapter.Commands().size()});
        };

        for (const auto& [speed, commands] :
             {std::pair{230400u, c.Up}, std::pair{115200u, c.Down}}) {
            adapter.ClearCommands();
            line_.ChangePortSpeed(speed);
            ASSERT_TRUE(adapter.WaitForCommands(CommandCount(commands), 2000));
            EXPECT_EQ(Described(adapter.Commands(), commands), commands);
            EXPECT_EQ(line_.Port()->BaudRate.load(), speed);
            EXPECT_EQ(adapter.Far().Speed(), speed);
            EXPECT_EQ(stores_.Prefs.SelectedPortSpeed, speed);
            EXPECT_TRUE(line_.LinePollingEnabled.load());
        }
        EXPECT_EQ(Logged(), (Texts{"Port speed changed to 230400 bps.",
                                   "Port speed changed to 115200 bps."}));
        EXPECT_EQ(Messages(), c.Model == ModelAdTran ? switchMessages : Texts{});
        if (c.Model == ModelAdTran) {
            const std::vector<std::pair<uint32_t, size_t>> expected = {{230400, 0}, {115200, 0}};
            EXPECT_EQ(atMessage, expected);
        }
        output_.OnMessage = nullptr;
        line_.CommPortClose();
    }
}

}  // namespace

}  // namespace kb::test
