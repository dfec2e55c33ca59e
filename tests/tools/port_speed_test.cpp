// The speed of each port: an adapter understands its port only at the speeds
// its family runs at, and the families' speed commands move it.
#include <gtest/gtest.h>

#include "vta_harness.h"

namespace {

class VirtualTaPortSpeeds : public VirtualTaTest {
protected:
    void StartOne(const std::string& adapter) {
        Start({folder_ / adapter});
        port_ = &Port("COM1", 9600);
    }
    // True if an "AT" at this speed gets its OK.
    bool Answers(uint32_t speed) {
        port_->SetSpeed(speed);
        port_->Send("AT\r");
        const std::string reply = port_->ReceiveFor(400);
        EXPECT_TRUE(reply.empty() || reply == "AT\r\r\nOK\r\n") << speed << ": " << reply;
        return reply == "AT\r\r\nOK\r\n";
    }

    FarEnd* port_ = nullptr;
};

TEST_F(VirtualTaPortSpeeds, AboveItsMaxSpeedAnAdapterHearsNothing) {
    StartOne("COM1=zyxel-ta128:5551000,max-speed=57600");
    EXPECT_TRUE(Answers(9600));
    EXPECT_TRUE(Answers(57600));
    EXPECT_FALSE(Answers(115200));
    EXPECT_FALSE(Answers(230400));
    EXPECT_TRUE(Answers(57600)) << "nothing heard at the wrong speed has stuck";
}

TEST_F(VirtualTaPortSpeeds, AZyxelFollowsThePortAllTheWay) {
    StartOne("COM1=zyxel-2864:5551000");
    for (uint32_t speed : {9600u, 57600u, 115200u, 230400u, 9600u}) {
        EXPECT_TRUE(Answers(speed)) << speed;
    }
}

TEST_F(VirtualTaPortSpeeds, ABitSurfrMovesTo230400OnlyWhenToldAndBack) {
    StartOne("COM1=bitsurfr:5551000");
    EXPECT_TRUE(Answers(57600));
    EXPECT_TRUE(Answers(115200));
    EXPECT_FALSE(Answers(230400));
    port_->SetSpeed(115200);
    EXPECT_EQ(port_->Command("AT@P2=230400"), "AT@P2=230400\r\r\nOK\r\n") << "OK at the old speed";
    EXPECT_FALSE(Answers(115200));
    EXPECT_TRUE(Answers(230400));
    EXPECT_EQ(port_->Command("AT@P2=115200"), "AT@P2=115200\r\r\nOK\r\n");
    EXPECT_TRUE(Answers(115200));
    EXPECT_FALSE(Answers(230400));
    // The last command at exit takes it back to where a new start begins.
    EXPECT_TRUE(Answers(115200));
    EXPECT_EQ(port_->Command("AT@P2=230400"), "AT@P2=230400\r\r\nOK\r\n");
    port_->SetSpeed(230400);
    EXPECT_EQ(port_->Command("AT@P2=9600S25=5"), "AT@P2=9600S25=5\r\r\nOK\r\n");
    EXPECT_TRUE(Answers(9600));
}

TEST_F(VirtualTaPortSpeeds, A3ComMovesOnItsSpeedCommandWithoutAReply) {
    StartOne("COM1=3com:5551000");
    EXPECT_TRUE(Answers(115200));
    EXPECT_FALSE(Answers(230400));
    // As the program does it: the command at the old speed, and the port
    // moved right behind it, with no wait for an answer.
    port_->SetSpeed(115200);
    port_->Send("AT$B230400\r");
    port_->SetSpeed(230400);
    port_->ReceiveFor(100);
    EXPECT_TRUE(Answers(230400));
    EXPECT_FALSE(Answers(115200));
    port_->SetSpeed(230400);
    port_->Send("AT$B0E1\r");
    port_->SetSpeed(115200);
    EXPECT_EQ(port_->ReceiveFor(300).find("OK"), std::string::npos) << "no result code";
    EXPECT_TRUE(Answers(115200));
    EXPECT_TRUE(Answers(9600));
}

TEST_F(VirtualTaPortSpeeds, AnAdTranRunsAt230400OnlyWithItsSwitchAndThenOnlyThere) {
    {
        StartOne("COM1=adtran-xr:5551000");
        EXPECT_TRUE(Answers(9600));
        EXPECT_TRUE(Answers(115200));
        EXPECT_FALSE(Answers(230400));
    }
    StartOne("COM1=adtran-xrt:5551000,dip230400");
    EXPECT_FALSE(Answers(9600));
    EXPECT_FALSE(Answers(115200));
    EXPECT_TRUE(Answers(230400));
    EXPECT_EQ(port_->Command("ATI0").find("ADTRAN EXPRESS XRT"), 7u);
}

}  // namespace
