// What a program learns from an adapter in command mode, learnt by the
// program's own line layer: whether the adapter is found, and takes every
// set-up the program makes for its family and refuses the others'. (Which
// family and variant the program takes it for, and the number it reads, the
// end-to-end detection test checks, through the whole program.)
// Then the speeds at which each family understands its port, and the speed
// commands that move it.

#include <algorithm>
#include <utility>

#include "line/adapter_family.h"
#include "line/line.h"
#include "platform/clock.h"
#include "resources/resource.h"
#include "stores/installation.h"
#include "vta_harness.h"

namespace kb::test {

using namespace kb::line;
using namespace kb::resources;

namespace {

struct Choice {
    const char* Family;
    int16_t Model;
};

// Named by its family in the test's name and wherever a failure prints it.
void PrintTo(const Choice& choice, std::ostream* os) {
    *os << choice.Family;
}

const Choice Choices[] = {
    {"bitsurfr", ModelBitSURFR}, {"adtran-xr", ModelAdTran},    {"adtran-xrt", ModelAdTran},
    {"zyxel-2864", ModelZyXEL},  {"zyxel-omninet", ModelZyXEL}, {"zyxel-ta128", ModelZyXEL},
    {"3com", Model3Com}};

// Of each family, one set-up that only its own family understands.
const struct {
    int16_t Model;
    const char* SetUp;
} OwnSetUps[] = {
    {ModelBitSURFR, "AT\\Q3%A2=3&M0%A4=1S0=0S12=25&D0&C1W1E1"},
    {ModelAdTran, "AT&F4\\Q3&D0X1S0=0S12=25S53=2S54=2S15=1"},
    {ModelZyXEL, "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1&J3&K44"},
    {Model3Com, "AT$B0E1"},
};

class AdapterChoice : public VirtualTaTest, public testing::WithParamInterface<Choice> {};

TEST_P(AdapterChoice, IsFoundAndTakesOnlyItsFamilysSetUps) {
    const Choice& choice = GetParam();
    Start({folder_ / ("COM1=" + std::string(choice.Family) + ":4930123456789")});

    // The program at its start: it identifies the adapter at 9600 bps, reads
    // the adapter's number and sends its incoming profile.
    stores::Installation stores(folder_.Path());
    stores.Prefs.AdapterModel = Model3Com + 1;
    platform::MonotonicClock clock;
    Line line(stores, clock);
    ASSERT_TRUE(line.CommPortCreate());
    line.SelectPortNumber(1);
    line.SelectPortBaud(9600);
    EXPECT_TRUE(line.IdentifyAdapter());
    EXPECT_TRUE(line.InitializeIncoming()) << "the incoming profile was refused";
    // Every profile the program builds for the adapter is taken: each
    // protocol, at 56K and 64K, with each pair of the channel options, on a
    // port fast enough for AIMUX.
    line.SpeedClass.store(2);
    for (const int16_t protocol : {ProtocolV120, ProtocolAimux, ProtocolX75}) {
        for (int16_t options = 0; options < 4; ++options) {
            SCOPED_TRACE(testing::Message() << ProtocolNames[protocol] << " " << options);
            stores.Prefs.IncomingProtocol = protocol;
            stores.Prefs.Incoming56K = static_cast<int16_t>(options & 1);
            stores.Prefs.Incoming2B = static_cast<int16_t>(options >> 1);
            stores.Prefs.IncomingV42 = static_cast<int16_t>((options ^ (options >> 1)) & 1);
            EXPECT_TRUE(line.InitializeIncoming());
        }
    }
    const std::string query = CurrentProduct(stores.Prefs).NumberQuery;
    line.CommPortDestroy();

    FarEnd& port = Port("COM1");
    EXPECT_EQ(port.Command(query).rfind(query + "\r\r\n", 0), 0u) << "the query is echoed";
    // What only other families understand is refused, and the number
    // queries of the others give no number.
    for (const auto& [model, setUp] : OwnSetUps) {
        if (model == choice.Model) {
            continue;
        }
        EXPECT_EQ(port.Command(setUp), setUp + std::string("\r\r\nERROR\r\n")) << model;
        const AdapterFamily& other = FamilyOf(model);
        for (int i = 0; i < other.ProductCount && model != Model3Com; ++i) {
            // (S51, the 3Com's, is an ordinary register elsewhere.)
            const std::string otherQuery = other.Products[i].NumberQuery;
            EXPECT_EQ(port.Command(otherQuery), otherQuery + "\r\r\nERROR\r\n") << model;
        }
    }
    // The family's last command, which the program leaves on, is echoed and
    // taken.
    const std::string closing(LoadResourceString(ProfileStringBase + choice.Model + 5));
    port.Send(closing + "\r");
    // Only the silence of a closing command without a result code is waited out.
    const bool answers = FamilyOf(choice.Model).AnswersClosingCommand;
    EXPECT_EQ(answers ? port.ReceiveUntil("OK\r\n", 2000) : port.ReceiveFor(300),
              closing + "\r" + (answers ? "\r\nOK\r\n" : ""))
        << "the 3Com's has no result code";
}

INSTANTIATE_TEST_SUITE_P(VirtualTa, AdapterChoice, testing::ValuesIn(Choices),
                         [](const testing::TestParamInfo<Choice>& info) {
                             std::string name = info.param.Family;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

using VirtualTaCommandMode = VirtualTaTest;

TEST_F(VirtualTaCommandMode, EchoAndResultCodesFollowEAndV) {
    Start({folder_ / "COM1=zyxel-2864:5551000"});
    FarEnd& port = Port("COM1", 57600);
    EXPECT_EQ(port.Command("ATE0"), "ATE0\r\r\nOK\r\n") << "the echo stops after the line";
    // Each reply is read to its known end, not waited out: a stray byte after
    // one stands at the head of the next, which is compared whole.
    port.Send("ATV0\r");
    EXPECT_EQ(port.Receive(2, 2000), "0\r") << "numeric result codes, no echo";
    port.Send("ATXJ\r");
    EXPECT_EQ(port.Receive(2, 2000), "4\r");
    port.Send("ATE1V1\r");
    EXPECT_EQ(port.ReceiveUntil("OK\r\n", 2000), "\r\nOK\r\n");
    // Bytes that start no command line are ignored without an echo.
    port.Send("hello\r\n");
    port.Send("xyzAT\r");
    EXPECT_EQ(port.ReceiveUntil("OK\r\n", 2000), "AT\r\r\nOK\r\n");
    // An "A" alone, ended by CR, is echoed and runs nothing.
    port.Send("A\r");
    EXPECT_EQ(port.Receive(2, 2000), "A\r");
    EXPECT_EQ(port.Command("AT"), "AT\r\r\nOK\r\n");
    // A line may be corrected with backspace, back to its "AT".
    port.Send("ATQ\b\bE1\r");
    EXPECT_EQ(port.ReceiveUntil("OK\r\n", 2000), "ATQ\bE1\r\r\nOK\r\n");
    EXPECT_EQ(port.Command("AT"), "AT\r\r\nOK\r\n");
}

// What terminal programs send at their start is taken by every family, blanks
// and all; &V shows what was set, and "A/" repeats a line without a CR.
TEST_F(VirtualTaCommandMode, EveryFamilyTakesTheInitStringsOfTerminalPrograms) {
    const char* const families[] = {"bitsurfr", "adtran-xr", "zyxel-2864", "3com"};
    Start({folder_ / "bitsurfr=bitsurfr:5551000", folder_ / "adtran-xr=adtran-xr:5551001",
           folder_ / "zyxel-2864=zyxel-2864:5551002", folder_ / "3com=3com:5551003"});
    for (const char* family : families) {
        SCOPED_TRACE(family);
        FarEnd& port = Port(family);
        for (const char* taken : {"AT S7=45 S0=0 L1 V1 X4 &c1 E1 Q0",  // minicom's default
                                  "ATZ", "AT&F", "ATM1L3", "AT&K3", "AT&Q5 &A1 &N0 &S1 &Y0 N1 Y0",
                                  "AT S 7 = 44", "ATI2"}) {
            EXPECT_EQ(port.Command(taken), taken + std::string("\r\r\nOK\r\n"));
        }
        for (const char* refused : {"AT S300=1", "ATM4", "ATY9"}) {
            EXPECT_EQ(port.Command(refused), refused + std::string("\r\r\nERROR\r\n"));
        }
        for (char i = '1'; i <= '9'; ++i) {
            const std::string reply = port.Command(std::string("ATI") + i);
            EXPECT_EQ(reply.substr(reply.size() - 4), "OK\r\n") << reply;
        }
        const std::string profile = port.Command("AT&V");
        for (const char* setting : {"S07:044", "S00:000", "L3", "M1", "&K3", "&Q5", "&D2"}) {
            EXPECT_NE(profile.find(setting), std::string::npos) << setting << " in " << profile;
        }
        port.Send("A/");
        EXPECT_EQ(port.ReceiveUntil("OK\r\n", 2000), "A/" + profile.substr(5));
    }
}

// True if an "AT" at this speed gets its OK; an adapter that does not
// understand the speed must not answer at all.
bool Answers(FarEnd& port, uint32_t speed) {
    port.SetSpeed(speed);
    port.Send("AT\r");
    const std::string reply = port.ReceiveUntil("OK\r\n", 400);
    EXPECT_TRUE(reply.empty() || reply == "AT\r\r\nOK\r\n") << speed << ": " << reply;
    return reply == "AT\r\r\nOK\r\n";
}

// The speed of each port: an adapter understands its port only at the speeds
// its family runs at, and the families' speed commands move it.
using VirtualTaPortSpeeds = VirtualTaTest;

// Each adapter as it starts, tried at speeds in this order: nothing heard at
// a speed it does not understand stays behind to spoil the next try.
TEST_F(VirtualTaPortSpeeds, EachFamilyUnderstandsItsPortOnlyAtItsOwnSpeedsWhereItsCommandsMoveIt) {
    const struct {
        const char* Adapter;
        std::vector<std::pair<uint32_t, bool>> Answers;
    } adapters[] = {
        {"zyxel-ta128:1,max-speed=57600",
         {{9600, true}, {57600, true}, {115200, false}, {230400, false}, {57600, true}}},
        {"zyxel-2864:2",
         {{9600, true}, {57600, true}, {115200, true}, {230400, true}, {9600, true}}},
        {"bitsurfr:3", {{57600, true}, {115200, true}, {230400, false}}},
        {"3com:4", {{115200, true}, {230400, false}, {9600, true}}},
        {"adtran-xr:5", {{9600, true}, {115200, true}, {230400, false}}},
        {"adtran-xrt:6,dip230400", {{9600, false}, {115200, false}, {230400, true}}},
    };
    std::vector<std::string> arguments;
    for (const auto& adapter : adapters) {
        arguments.push_back(folder_ /
                            ("COM" + std::to_string(arguments.size() + 1) + "=" + adapter.Adapter));
    }
    Start(arguments);
    for (size_t i = 0; i < std::size(adapters); ++i) {
        SCOPED_TRACE(adapters[i].Adapter);
        FarEnd& port = Port("COM" + std::to_string(i + 1), 9600);
        for (const auto& [speed, answers] : adapters[i].Answers) {
            EXPECT_EQ(Answers(port, speed), answers) << speed;
        }
    }

    // Then the BitSURFR and the 3Com, COM3 and COM4. The BitSURFR answers its
    // speed command at the old speed; the 3Com gives no result code, and the
    // program moves its port right behind the command. Up at 230400 either
    // understands nothing else, until the command back or the closing command
    // takes it to where a new start begins.
    const struct {
        const char* Family;
        const char* Up;
        const char* Back;
        const char* Closing;
        bool Answered;
    } families[] = {
        {"bitsurfr", "AT@P2=230400", "AT@P2=115200", "AT@P2=9600S25=5", true},
        {"3com", "AT$B230400", "AT$B0", "AT$B0E1", false},
    };
    for (size_t i = 0; i < std::size(families); ++i) {
        const auto& family = families[i];
        SCOPED_TRACE(family.Family);
        FarEnd& port = *ports_[i + 2];
        const auto move = [&](const std::string& command, uint32_t from, uint32_t to) {
            port.SetSpeed(from);
            if (family.Answered) {
                EXPECT_EQ(port.Command(command), command + "\r\r\nOK\r\n") << "at the old speed";
                port.SetSpeed(to);
            } else {
                port.Send(command + "\r");
                port.SetSpeed(to);
                EXPECT_EQ(port.ReceiveFor(300).find("OK"), std::string::npos) << "no result code";
            }
        };
        for (const char* back : {family.Back, family.Closing}) {
            move(family.Up, 115200, 230400);
            EXPECT_TRUE(Answers(port, 230400));
            EXPECT_FALSE(Answers(port, 115200));
            move(back, 230400, 115200);
            EXPECT_TRUE(Answers(port, 115200)) << back;
            EXPECT_FALSE(Answers(port, 230400)) << back;
        }
        EXPECT_TRUE(Answers(port, 9600));
    }
}

}  // namespace

}  // namespace kb::test
