// The speed of each port: an adapter understands its port only at the speeds
// its family runs at, and the families' speed commands move it.
#include <gtest/gtest.h>

#include <utility>

#include "vta_harness.h"

namespace kb::test {

namespace {

class VirtualTaPortSpeeds : public VirtualTaTest {
protected:
    // True if an "AT" at this speed gets its OK; an adapter that does not
    // understand the speed must not answer at all.
    static bool Answers(FarEnd& port, uint32_t speed) {
        port.SetSpeed(speed);
        port.Send("AT\r");
        const std::string reply = port.ReceiveUntil("OK\r\n", 400);
        EXPECT_TRUE(reply.empty() || reply == "AT\r\r\nOK\r\n") << speed << ": " << reply;
        return reply == "AT\r\r\nOK\r\n";
    }
};

// Each adapter as it starts, tried at speeds in this order: nothing heard at
// a speed it does not understand stays behind to spoil the next try.
TEST_F(VirtualTaPortSpeeds, EachFamilyUnderstandsItsPortOnlyAtItsOwnSpeeds) {
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
}

// The BitSURFR answers its speed command at the old speed; the 3Com gives no
// result code, and the program moves its port right behind the command. Up at
// 230400 either understands nothing else, until the command back or the
// closing command takes it to where a new start begins.
TEST_F(VirtualTaPortSpeeds, TheSpeedCommandsMoveAnAdapterTo230400AndBack) {
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
    Start({folder_ / "COM1=bitsurfr:1", folder_ / "COM2=3com:2"});
    for (size_t i = 0; i < std::size(families); ++i) {
        const auto& family = families[i];
        SCOPED_TRACE(family.Family);
        FarEnd& port = Port("COM" + std::to_string(i + 1));
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
