// The adapter families that the tool can play, and what sets them apart: the
// texts they give about themselves, the commands they know, their factory
// settings, and how their settings turn into the set-up of a call.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kb::virtual_ta {

enum class FamilyKind { BitSurfr, AdTran, Zyxel, ThreeCom };

struct Family {
    const char* Name;  // as written on the command line
    FamilyKind Kind;
    const char* Product;  // the model, for the help text and the trace
    // Lines of information text for "ATI0", "ATI3" and "ATI8".
    std::vector<const char*> Identity0;
    std::vector<const char*> Identity3;
    std::vector<const char*> Identity8;
};

// The family of a command-line name, or null.
const Family* FindFamily(std::string_view name);
// Every command-line name, for messages: "bitsurfr | adtran-xr | ...".
std::string FamilyNameList();
// All families, in the order of the command line's list.
const std::vector<Family>& AllFamilies();

// An adapter's settings: the value of each command it keeps, by the command's
// name in capitals ("S12", "&J", "%A2", "@P2", "B"), as decimal text or as
// the letter given.
using Settings = std::map<std::string, std::string>;

// Settings at power-on and after ATZ.
void DefaultSettings(FamilyKind kind, Settings& settings);
// Loads factory profile n ("AT&Fn"). False if the family has no such profile.
[[nodiscard]] bool FactoryProfile(FamilyKind kind, int n, Settings& settings);

// True if the family knows a command of this name. Names are as in Settings,
// without the register number: "E", "S", "&D", "\Q", "%A", "@P", "!N", "$B".
bool FamilyKnows(FamilyKind kind, std::string_view command);

// Whether a two-channel call is possible, and of which kind: the two ends of
// a call bundle their channels only if both speak the same bundling.
enum class Bundling { None, Aimux, TwoB };

// The set-up of calls that an adapter's settings make.
struct LineSetup {
    const char* Protocol = "V.120";
    bool Is56k = false;
    Bundling Bundle = Bundling::None;
    bool V42bis = false;
};

LineSetup SetupOf(FamilyKind kind, const Settings& settings);
// "V.120 64K", "AIMUX 56K", "X.75 64K 2B V.42bis", ...
std::string Describe(const LineSetup& setup);

}  // namespace kb::virtual_ta
