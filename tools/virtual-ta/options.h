// The command line of virtual-ta.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "family.h"

// One adapter: PATH=FAMILY:NUMBER[,OPTION...].
struct AdapterSpec {
    std::string path;  // where the link to its pseudo-terminal goes
    const Family* family = nullptr;
    std::string number;          // its own ISDN number, digits
    uint32_t maxSpeed = 230400;  // above this port speed it understands nothing
    bool dip230400 = false;      // AdTran with DIP switch 1 set for 230400
    bool noDialTone = false;     // its line is unplugged
};

enum class FaultKind { Corrupt, Drop };

// --fault KIND:NUMBER:OFFSET. A fault acts once; acted records that it has.
struct FaultSpec {
    FaultKind kind = FaultKind::Corrupt;
    std::string number;
    uint64_t offset = 0;
    bool acted = false;
};

struct Options {
    std::vector<AdapterSpec> adapters;
    uint64_t rate = 8000;  // bytes per second per B channel each way; 0 unthrottled
    std::vector<FaultSpec> faults;
    std::string tracePath;
    uint32_t answerWaitMs = 30000;  // a call rings this long before the caller gives up
    bool help = false;
};

// Parses the arguments. False with a one-line reason for bad ones.
bool ParseCommandLine(int argc, const char* const* argv, Options& options, std::string& error);

// The text of --help.
std::string HelpText();
// The one line that follows a usage error.
const char* UsageHint();
