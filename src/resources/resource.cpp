#include "resources/resource.h"

namespace kb::resources {

namespace {

// In these texts a backslash is a backslash.
constexpr std::string_view Profiles[] = {
    // BitSURFR, 102-111
    R"(AT\Q3%A2=2%A4=1S0=0S12=25&D0&C1W1E1)",
    R"(AT\Q3%A2=2%A4=0S0=0S12=25&D0&C1W1E1)",
    R"(AT\Q3%A2=3&M0%A4=1S0=0S12=25&D0&C1W1E1)",
    R"(AT\Q3%A2=3&M0%A4=0S0=0S12=25&D0&C1W1E1@M2=P@B0=2&R1)",
    "AT",
    "AT@P2=9600S25=5",
    "AT",
    "AT",
    "AT",
    "AT",
    // AdTran, 112-121
    R"(AT&F3\Q3&D0X1S0=0S12=25S53=2S54=6)",
    R"(AT&F3\Q3&D0X1S0=0S12=25S53=3S54=6)",
    R"(AT&F4\Q3&D0X1S0=0S12=25S53=2S54=2S15=1)",
    R"(AT&F4\Q3&D0X1S0=0S12=25S53=3S54=2S15=1)",
    "AT",
    "AT",
    "AT",
    "AT",
    "AT",
    "AT",
    // ZyXEL, 122-131
    "AT&H3&D0&C1&E1&S0Q0E1V1B20&O2S0=0X1",
    "AT&H3&D0&C1&E0&S0Q0E1V1B20&O2S0=0X1",
    "AT",
    "AT",
    "AT",
    "AT&O0E1",
    "AT&H3&D0&C1&E1&S0Q0E1V1B00&O2S0=0X1",
    "AT&H3&D0&C1&E0&S0Q0E1V1B00&O2S0=0X1",
    "AT",
    "AT",
    // 3Com, 132-137
    R"(AT\Q3S0=0&D0&C1W1E1S71=2S73=1S74=256S75=0S60=56)",
    R"(AT\Q3S0=0&D0&C1W1E1S71=2S73=0S74=253S75=0S60=64)",
    "AT",
    "AT",
    "AT",
    "AT$B0E1",
};

static_assert(std::size(Profiles) == ProfileStringLast - ProfileStringBase + 1);

}  // namespace

std::string_view LoadResourceString(int id) {
    if (id < ProfileStringBase || id > ProfileStringLast) {
        return {};
    }
    return Profiles[id - ProfileStringBase];
}

}  // namespace kb::resources
