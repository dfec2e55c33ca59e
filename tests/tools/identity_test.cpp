// What a program learns from an adapter in command mode: its family and model
// from "ati0" and "ati8", its own number from the family's number query, and
// whether it takes the family's set-up strings. The readers below follow the
// program's own rules for those replies and share nothing with the tool.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vta_harness.h"

namespace {

// The program's view of an adapter: AdapterModel and AdapterVariant.
struct Identity {
    bool Found = false;
    int Model = -1;
    int Variant = -1;
};

bool Holds(const std::string& text, const char* mark) {
    return text.find(mark) != std::string::npos;
}

// The identification of a port that answered "atv1": the reply to "ati0"
// decides, and "ati8" is asked only when "960" was in it.
Identity Identify(FarEnd& port) {
    Identity identity;
    const std::string ati0 = port.Command("ati0", 1000);
    if (!Holds(ati0, "OK\r\n")) {
        return identity;
    }
    if (Holds(ati0, "960")) {
        const std::string ati8 = port.Command("ati8", 4000);
        identity.Model = 0;
        identity.Found = Holds(ati8, "OK\r\n") && Holds(ati8, "BitSURFR");
        return identity;
    }
    if (Holds(ati0, "ADTRAN EXPRESS XR")) {
        identity.Found = true;
        identity.Model = 10;
        identity.Variant = Holds(ati0, "ADTRAN EXPRESS XRT") ? 1 : 0;
        return identity;
    }
    for (const char* mark : {"2864", "1291", "1292", "1293", "1281", "1282", "1283"}) {
        if (Holds(ati0, mark)) {
            identity.Found = true;
            identity.Model = 20;
            if (Holds(ati0, "2864")) {
                identity.Variant = 1;
            } else if (Holds(ati0, "1291") || Holds(ati0, "1292") || Holds(ati0, "1293")) {
                identity.Variant = 2;
            } else {
                identity.Variant = 3;
            }
            return identity;
        }
    }
    if (Holds(ati0, "3C882")) {
        identity.Found = true;
        identity.Model = 30;
    }
    return identity;
}

// The number readers, one per family, each given the whole exchange of its
// query up to the OK, echo included.

// BitSURFR: from the third byte before "OK" backwards over digits.
std::string BitSurfrNumber(const std::string& exchange) {
    const size_t ok = exchange.find("OK");
    if (ok == std::string::npos || ok < 3) {
        return "";
    }
    size_t start = ok - 3;
    size_t end = start + 1;
    if (!std::isdigit(static_cast<unsigned char>(exchange[start]))) {
        return "";
    }
    while (start > 0 && std::isdigit(static_cast<unsigned char>(exchange[start - 1]))) {
        --start;
    }
    return exchange.substr(start, end - start);
}

// AdTran and 3Com: what follows the first CR LF, up to the next CR.
std::string FirstLineNumber(const std::string& exchange) {
    const size_t crlf = exchange.find("\r\n");
    if (crlf == std::string::npos) {
        return "";
    }
    const size_t cr = exchange.find('\r', crlf + 2);
    if (cr == std::string::npos) {
        return "";
    }
    return exchange.substr(crlf + 2, cr - crlf - 2);
}

// ZyXEL: what follows "MultiAuto):(" up to ")".
std::string ZyxelNumber(const std::string& exchange) {
    const std::string marker = "MultiAuto):(";
    const size_t at = exchange.find(marker);
    if (at == std::string::npos) {
        return "";
    }
    const size_t close = exchange.find(')', at + marker.size());
    if (close == std::string::npos) {
        return "";
    }
    return exchange.substr(at + marker.size(), close - at - marker.size());
}

struct Choice {
    const char* Family;
    int Model;
    int Variant;  // -1 where the family has none
    const char* NumberQuery;
    std::string (*Reader)(const std::string&);
    std::vector<const char*> Profiles;  // the family's set-up strings
    const char* Foreign;                // one of them that only its own family understands
};

void PrintTo(const Choice& choice, std::ostream* os) {
    *os << choice.Family;
}

const std::vector<const char*> BitSurfrProfiles = {
    "AT\\Q3%A2=2%A4=1S0=0S12=25&D0&C1W1E1",
    "AT\\Q3%A2=2%A4=0S0=0S12=25&D0&C1W1E1",
    "AT\\Q3%A2=3&M0%A4=1S0=0S12=25&D0&C1W1E1",
    "AT\\Q3%A2=3&M0%A4=0S0=0S12=25&D0&C1W1E1@M2=P@B0=2&R1",
    "AT",
    "AT@P2=9600S25=5",
};
const std::vector<const char*> AdTranProfiles = {
    "AT&F3\\Q3&D0X1S0=0S12=25S53=2S54=6",
    "AT&F3\\Q3&D0X1S0=0S12=25S53=3S54=6",
    "AT&F4\\Q3&D0X1S0=0S12=25S53=2S54=2S15=1",
    "AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1",
    "AT",
};
const std::vector<const char*> ZyxelProfiles = {
    "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1&J0&K00",
    "AT&H3&D0&C1&E0&S0Q0E1V1B20&O2S0=0X1&J3&K44",
    "AT&H3&D0&C1&E1&S0Q0E1V1B00&O2S0=0X1&J3&K00",
    "AT&H3&D0&C1&E0&S0Q0E1V1B00&O2S0=0X1&J0&K44",
    "AT&O0E1",
    "AT",
};
const std::vector<const char*> ThreeComProfiles = {
    "AT\\Q3S0=0&D0&C1W1E1S71=2S73=1S74=256S75=0S60=56",
    "AT\\Q3S0=0&D0&C1W1E1S71=2S73=0S74=253S75=0S60=64",
    "AT$B0E1",  // no result code: the 3Com moves its port at once
    "AT",
};

const Choice Choices[] = {
    {"bitsurfr", 0, -1, "AT!N1?", BitSurfrNumber, BitSurfrProfiles,
     "AT\\Q3%A2=3&M0%A4=1S0=0S12=25&D0&C1W1E1"},
    {"adtran-xr", 10, 0, "ATSS62?", FirstLineNumber, AdTranProfiles,
     "AT&F4\\Q3&D0X1S0=0S12=25S53=2S54=2S15=1"},
    {"adtran-xrt", 10, 1, "ATSS63?", FirstLineNumber, AdTranProfiles,
     "AT&F4\\Q3&D0X1S0=0S12=25S53=2S54=2S15=1"},
    {"zyxel-2864", 20, 1, "AT&ZI?", ZyxelNumber, ZyxelProfiles,
     "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1&J3&K44"},
    {"zyxel-omninet", 20, 2, "AT&ZI?", ZyxelNumber, ZyxelProfiles,
     "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1&J3&K44"},
    {"zyxel-ta128", 20, 3, "AT&ZI?", ZyxelNumber, ZyxelProfiles,
     "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1&J3&K44"},
    {"3com", 30, -1, "ATS51?", FirstLineNumber, ThreeComProfiles, "AT$B0E1"},
};

const char* const Number = "4930123456789";

class AdapterChoice : public VirtualTaTest, public testing::WithParamInterface<Choice> {};

TEST_P(AdapterChoice, IsIdentifiedAndGivesItsNumberInFull) {
    const Choice& choice = GetParam();
    Start({folder_ / "COM1=" + choice.Family + ":" + Number});
    FarEnd& port = Port("COM1", 9600);

    EXPECT_EQ(port.Command("atv1"), "atv1\r\r\nOK\r\n");
    EXPECT_EQ(port.Command("ATE1V1"), "ATE1V1\r\r\nOK\r\n");
    const Identity identity = Identify(port);
    EXPECT_TRUE(identity.Found);
    EXPECT_EQ(identity.Model, choice.Model);
    if (choice.Variant >= 0) {
        EXPECT_EQ(identity.Variant, choice.Variant);
    }

    const std::string exchange = port.Command(choice.NumberQuery, 4000);
    EXPECT_EQ(exchange.substr(0, std::string(choice.NumberQuery).size() + 1),
              std::string(choice.NumberQuery) + "\r")
        << "the query is echoed";
    EXPECT_EQ(choice.Reader(exchange), Number) << exchange;
}

TEST_P(AdapterChoice, RepliesCarryOnlyTheMarksOfTheirOwnFamily) {
    const Choice& choice = GetParam();
    Start({folder_ / ("COM1=" + std::string(choice.Family) + ":5551000")});
    FarEnd& port = Port("COM1", 9600);
    const std::string replies = port.Command("ati0") + port.Command("ati8") + port.Command("ati3");
    struct Mark {
        const char* Text;
        int Model;
    };
    const Mark marks[] = {{"960", 0},   {"BitSURFR", 0}, {"ADTRAN EXPRESS XR", 10},
                          {"2864", 20}, {"1291", 20},    {"1292", 20},
                          {"1293", 20}, {"1281", 20},    {"1282", 20},
                          {"1283", 20}, {"3C882", 30}};
    for (const Mark& mark : marks) {
        if (mark.Model != choice.Model) {
            EXPECT_FALSE(Holds(replies, mark.Text)) << mark.Text << " in " << replies;
        }
    }
    if (choice.Model == 20) {
        // One model number of its own, none of the other ZyXELs.
        int own = 0;
        for (const char* mark : {"2864", "1291", "1292", "1293", "1281", "1282", "1283"}) {
            own += Holds(replies, mark) ? 1 : 0;
        }
        EXPECT_EQ(own, 1) << replies;
    }
}

TEST_P(AdapterChoice, TakesItsFamilysSetUpStringsAndRefusesOthers) {
    const Choice& choice = GetParam();
    Start({folder_ / ("COM1=" + std::string(choice.Family) + ":5551000")});
    FarEnd& port = Port("COM1", 115200);
    for (const char* profile : choice.Profiles) {
        if (std::string(profile).find("$B") != std::string::npos) {
            port.Send(std::string(profile) + "\r");
            EXPECT_EQ(port.ReceiveFor(300), std::string(profile) + "\r") << "echo and no result";
            continue;
        }
        EXPECT_EQ(port.Command(profile), std::string(profile) + "\r\r\nOK\r\n");
    }
    // What only other families understand is refused, and the number
    // queries of the others give no number.
    for (const Choice& other : Choices) {
        if (other.Model == choice.Model) {
            continue;
        }
        const std::string profile = other.Foreign;
        EXPECT_EQ(port.Command(profile), profile + "\r\r\nERROR\r\n") << other.Family;
        if (other.Model != 30) {  // S51 is an ordinary register elsewhere
            const std::string query = other.NumberQuery;
            EXPECT_EQ(port.Command(query), query + "\r\r\nERROR\r\n") << other.Family;
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
