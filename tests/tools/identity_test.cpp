// What an adapter tells in command mode: its family's marks in "ati0" and
// "ati8" and no other's, its own number to its family's query; and whether it
// takes its family's set-up strings and refuses the others'. That the program
// tells each family by these is shown by the end-to-end detection test.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "line/adapter_family.h"
#include "resources/resource.h"
#include "vta_harness.h"

namespace {

struct Choice {
    const char* Family;
    int16_t Model;
    const char* NumberQuery;
    const char* Foreign;  // a set-up that only its own family understands
};

void PrintTo(const Choice& choice, std::ostream* os) {
    *os << choice.Family;
}

const Choice Choices[] = {
    {"bitsurfr", ModelBitSURFR, "AT!N1?", "AT\\Q3%A2=3&M0%A4=1S0=0S12=25&D0&C1W1E1"},
    {"adtran-xr", ModelAdTran, "ATSS62?", "AT&F4\\Q3&D0X1S0=0S12=25S53=2S54=2S15=1"},
    {"adtran-xrt", ModelAdTran, "ATSS63?", "AT&F4\\Q3&D0X1S0=0S12=25S53=2S54=2S15=1"},
    {"zyxel-2864", ModelZyXEL, "AT&ZI?", "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1&J3&K44"},
    {"zyxel-omninet", ModelZyXEL, "AT&ZI?", "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1&J3&K44"},
    {"zyxel-ta128", ModelZyXEL, "AT&ZI?", "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1&J3&K44"},
    {"3com", Model3Com, "ATS51?", "AT$B0E1"},
};

// The family's set-up strings as the program sends them: its slots of the
// string table, the ZyXELs' with each of their channel options behind.
std::vector<std::string> Profiles(int16_t model) {
    static const char* const Options[] = {"&J0&K00", "&J3&K44", "&J3&K00", "&J0&K44"};
    std::vector<std::string> profiles;
    for (int slot = 0; slot < 10 && ProfileStringBase + model + slot <= ProfileStringLast; ++slot) {
        std::string profile(LoadResourceString(ProfileStringBase + model + slot));
        if (model == ModelZyXEL && profile.rfind("AT&H3", 0) == 0) {
            profile += Options[slot % 4];
        }
        profiles.push_back(profile);
    }
    return profiles;
}

// The marks that the program tells the families apart by, each with its
// family; the ZyXELs' are their model numbers.
const struct {
    const char* Text;
    int16_t Model;
} Marks[] = {
    {"960", ModelBitSURFR}, {"BitSURFR", ModelBitSURFR}, {"ADTRAN EXPRESS XR", ModelAdTran},
    {"2864", ModelZyXEL},   {"1291", ModelZyXEL},        {"1292", ModelZyXEL},
    {"1293", ModelZyXEL},   {"1281", ModelZyXEL},        {"1282", ModelZyXEL},
    {"1283", ModelZyXEL},   {"3C882", Model3Com}};

class AdapterChoice : public VirtualTaTest, public testing::WithParamInterface<Choice> {};

TEST_P(AdapterChoice, ShowsOnlyItsMarksGivesItsNumberAndTakesOnlyItsFamilysSetUps) {
    const Choice& choice = GetParam();
    const std::string number = "4930123456789";
    Start({folder_ / ("COM1=" + std::string(choice.Family) + ":" + number)});

    FarEnd& port = Port("COM1");
    const std::string query = choice.NumberQuery;
    const std::string reply = port.Command(query);
    EXPECT_EQ(reply.rfind(query + "\r\r\n", 0), 0u) << "the query is echoed";
    EXPECT_NE(reply.find(number), std::string::npos) << reply;
    // No reply carries another family's mark, and a ZyXEL's only its own
    // model number.
    const std::string replies = port.Command("ati0") + port.Command("ati8") + port.Command("ati3");
    int zyxelModels = 0;
    for (const auto& [text, model] : Marks) {
        const bool held = replies.find(text) != std::string::npos;
        EXPECT_FALSE(held && model != choice.Model) << text << " in " << replies;
        zyxelModels += held && model == ModelZyXEL ? 1 : 0;
    }
    EXPECT_EQ(zyxelModels, choice.Model == ModelZyXEL ? 1 : 0) << replies;

    for (const std::string& profile : Profiles(choice.Model)) {
        if (profile.find("$B") != std::string::npos) {
            // The 3Com moves its port at once: no result code.
            port.Send(profile + "\r");
            EXPECT_EQ(port.ReceiveFor(300), profile + "\r") << "echo and no result";
            continue;
        }
        EXPECT_EQ(port.Command(profile), profile + "\r\r\nOK\r\n");
    }
    // What only other families understand is refused, and the number
    // queries of the others give no number.
    for (const Choice& other : Choices) {
        if (other.Model == choice.Model) {
            continue;
        }
        const std::string profile = other.Foreign;
        EXPECT_EQ(port.Command(profile), profile + "\r\r\nERROR\r\n") << other.Family;
        if (other.Model != Model3Com) {  // S51 is an ordinary register elsewhere
            const std::string otherQuery = other.NumberQuery;
            EXPECT_EQ(port.Command(otherQuery), otherQuery + "\r\r\nERROR\r\n") << other.Family;
        }
    }
    EXPECT_EQ(port.Command("ATY9"), "ATY9\r\r\nERROR\r\n");
    // Case does not matter, and neither do blanks between commands.
    EXPECT_EQ(port.Command("at e1 v1"), "at e1 v1\r\r\nOK\r\n");
}

std::string ChoiceName(const testing::TestParamInfo<Choice>& info) {
    std::string name = info.param.Family;
    for (char& c : name) {
        if (c == '-') {
            c = '_';
        }
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(VirtualTa, AdapterChoice, testing::ValuesIn(Choices), ChoiceName);

using VirtualTaCommandMode = VirtualTaTest;

TEST_F(VirtualTaCommandMode, EchoAndResultCodesFollowEAndV) {
    Start({folder_ / "COM1=zyxel-2864:5551000"});
    FarEnd& port = Port("COM1", 57600);
    EXPECT_EQ(port.Command("ATE0"), "ATE0\r\r\nOK\r\n") << "the echo stops after the line";
    port.Send("ATV0\r");
    EXPECT_EQ(port.ReceiveFor(300), "0\r") << "numeric result codes, no echo";
    port.Send("ATXYZ\r");
    EXPECT_EQ(port.ReceiveFor(300), "4\r");
    port.Send("ATE1V1\r");
    EXPECT_EQ(port.ReceiveFor(300), "\r\nOK\r\n");
    // Bytes that start no command line are ignored without an echo.
    port.Send("hello\r\n");
    EXPECT_EQ(port.ReceiveFor(300), "");
    port.Send("xyzAT\r");
    EXPECT_EQ(port.ReceiveFor(300), "AT\r\r\nOK\r\n");
    // An "A" alone, ended by CR, is echoed and runs nothing.
    port.Send("A\r");
    EXPECT_EQ(port.ReceiveFor(300), "A\r");
    EXPECT_EQ(port.Command("AT"), "AT\r\r\nOK\r\n");
    // A line may be corrected with backspace, back to its "AT".
    port.Send("ATQ\b\bE1\r");
    EXPECT_EQ(port.ReceiveFor(300), "ATQ\bE1\r\r\nOK\r\n");
}

}  // namespace
