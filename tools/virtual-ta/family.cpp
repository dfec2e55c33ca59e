#include "virtual-ta/family.h"

#include <algorithm>

namespace kb::virtual_ta {

namespace {

// Banners. The program tells the families apart by substrings of these texts,
// so no family may carry another's marks: "960" only in the BitSURFR's, the
// ZyXEL model numbers only in the ZyXELs', "3C882" only in the 3Com's, and no
// banner holds a speed such as 9600 that would contain one of them.
const std::vector<Family> Families = {
    {"bitsurfr",
     FamilyKind::BitSurfr,
     "BitSURFR Pro",
     {"960"},
     {"BitSURFR Pro Version 1.31"},
     {"BitSURFR Pro ISDN Terminal Adapter", "V.120 and AIMUX, 2B+D"}},
    {"adtran-xr",
     FamilyKind::AdTran,
     "AdTran Express XR",
     {"ADTRAN EXPRESS XR ISDN Terminal Adapter", "Firmware Rev. B.07"},
     {"Firmware Rev. B.07"},
     {"EXPRESS XR S/T interface"}},
    {"adtran-xrt",
     FamilyKind::AdTran,
     "AdTran Express XRT",
     {"ADTRAN EXPRESS XRT ISDN Terminal Adapter", "Firmware Rev. B.07"},
     {"Firmware Rev. B.07"},
     {"EXPRESS XRT U interface"}},
    {"zyxel-2864",
     FamilyKind::Zyxel,
     "ZyXEL Elite 2864I",
     {"ZyXEL Elite 2864I", "ISDN V 2.17"},
     {"V 2.17"},
     {"Elite ISDN firmware V 2.17"}},
    {"zyxel-omninet",
     FamilyKind::Zyxel,
     "ZyXEL Omni.net",
     {"ZyXEL omni.net 1292", "ISDN V 1.05"},
     {"V 1.05"},
     {"omni.net ISDN firmware V 1.05"}},
    {"zyxel-ta128",
     FamilyKind::Zyxel,
     "ZyXEL Omni TA128",
     {"ZyXEL omni TA128 1282", "ISDN V 2.13"},
     {"V 2.13"},
     {"omni TA128 ISDN firmware V 2.13"}},
    {"3com",
     FamilyKind::ThreeCom,
     "3Com Impact IQ",
     {"3Com Impact IQ ISDN External 3C882"},
     {"Impact IQ firmware 5.14"},
     {"Impact IQ ISDN, V.120"}},
};

// Commands every family knows: the ones the program uses, and the rest of
// the common Hayes set that terminal programs put into their init strings
// (speaker, flow control, stored profiles). Of the latter the tool keeps the
// values and shows them with &V; nothing it simulates depends on them.
const char* const Common[] = {"A",  "D",  "E",  "H",  "I",  "L",  "M",  "N",  "O",
                              "Q",  "S",  "V",  "X",  "Y",  "Z",  "&A", "&C", "&D",
                              "&F", "&K", "&N", "&Q", "&S", "&V", "&W", "&Y"};

const char* const BitSurfrCommands[] = {"W", "\\Q", "%A", "&M", "&R", "@M", "@B", "@P", "!N"};
const char* const AdTranCommands[] = {"\\Q", "SS"};
const char* const ZyxelCommands[] = {"B", "&H", "&E", "&O", "&J", "&Z"};
const char* const ThreeComCommands[] = {"W", "\\Q", "$B"};

template <size_t N>
bool Holds(const char* const (&list)[N], std::string_view command) {
    return std::find(std::begin(list), std::end(list), command) != std::end(list);
}

}  // namespace

const Family* FindFamily(std::string_view name) {
    for (const Family& family : Families) {
        if (name == family.Name) {
            return &family;
        }
    }
    return nullptr;
}

std::string FamilyNameList() {
    std::string list;
    for (const Family& family : Families) {
        if (!list.empty()) {
            list += " | ";
        }
        list += family.Name;
    }
    return list;
}

const std::vector<Family>& AllFamilies() {
    return Families;
}

void DefaultSettings(FamilyKind kind, Settings& settings) {
    settings.clear();
    // Echo on, verbose result codes, result codes not suppressed.
    settings["E"] = "1";
    settings["V"] = "1";
    settings["Q"] = "0";
    // Auto-answer off, "+" as escape character, CR, LF and BS as line
    // characters, and a guard time of 25 fiftieths of a second around "+++".
    settings["S0"] = "0";
    settings["S2"] = "43";
    settings["S3"] = "13";
    settings["S4"] = "10";
    settings["S5"] = "8";
    settings["S12"] = "25";
    // Dropping DTR hangs up.
    settings["&D"] = "2";
    switch (kind) {
        case FamilyKind::BitSurfr:
            settings["%A2"] = "2";  // V.120
            settings["%A4"] = "0";  // 64K
            break;
        case FamilyKind::AdTran:
            settings["S53"] = "3";  // 64K
            settings["S54"] = "6";  // V.120
            break;
        case FamilyKind::Zyxel:
            settings["B"] = "20";  // V.120
            settings["&E"] = "0";  // 64K
            settings["&J"] = "0";  // one B channel
            settings["&K"] = "0";  // no V.42bis
            break;
        case FamilyKind::ThreeCom:
            settings["S60"] = "64";
            break;
    }
}

bool FactoryProfile(FamilyKind kind, int n, Settings& settings) {
    if (kind == FamilyKind::AdTran) {
        // The AdTran keeps five factory profiles; 3 is V.120 and 4 AIMUX.
        if (n < 0 || n > 4) {
            return false;
        }
        DefaultSettings(kind, settings);
        settings["S54"] = n == 4 ? "2" : "6";
        return true;
    }
    if (n != 0) {
        return false;
    }
    DefaultSettings(kind, settings);
    return true;
}

bool FamilyKnows(FamilyKind kind, std::string_view command) {
    if (Holds(Common, command)) {
        return true;
    }
    switch (kind) {
        case FamilyKind::BitSurfr:
            return Holds(BitSurfrCommands, command);
        case FamilyKind::AdTran:
            return Holds(AdTranCommands, command);
        case FamilyKind::Zyxel:
            return Holds(ZyxelCommands, command);
        case FamilyKind::ThreeCom:
            return Holds(ThreeComCommands, command);
    }
    return false;
}

namespace {

std::string Get(const Settings& settings, const char* name) {
    const auto found = settings.find(name);
    return found == settings.end() ? std::string() : found->second;
}

}  // namespace

LineSetup SetupOf(FamilyKind kind, const Settings& settings) {
    LineSetup setup;
    switch (kind) {
        case FamilyKind::BitSurfr:
            if (Get(settings, "%A2") == "3") {
                setup.Protocol = "AIMUX";
                setup.Bundle = Bundling::Aimux;
            }
            setup.Is56k = Get(settings, "%A4") == "1";
            break;
        case FamilyKind::AdTran:
            if (Get(settings, "S54") == "2") {
                setup.Protocol = "AIMUX";
                setup.Bundle = Bundling::Aimux;
            }
            setup.Is56k = Get(settings, "S53") == "2";
            break;
        case FamilyKind::Zyxel:
            setup.Protocol = Get(settings, "B") == "0" ? "X.75" : "V.120";
            setup.Is56k = Get(settings, "&E") == "1";
            setup.Bundle = Get(settings, "&J") == "3" ? Bundling::TwoB : Bundling::None;
            setup.V42bis = Get(settings, "&K") == "44";
            break;
        case FamilyKind::ThreeCom:
            setup.Is56k = Get(settings, "S60") == "56";
            break;
    }
    return setup;
}

std::string Describe(const LineSetup& setup) {
    std::string text = setup.Protocol;
    text += setup.Is56k ? " 56K" : " 64K";
    if (setup.Bundle == Bundling::TwoB) {
        text += " 2B";
    }
    if (setup.V42bis) {
        text += " V.42bis";
    }
    return text;
}

}  // namespace kb::virtual_ta
