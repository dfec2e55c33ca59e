// The settings of virtual-ta, from its command line and its configuration
// file: the adapters it plays, the pace of the line, the faults to put on it
// and the trace to keep.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "virtual-ta/family.h"

namespace kb::virtual_ta {

// One adapter: PATH=FAMILY:NUMBER[,OPTION...].
struct AdapterSetting {
    std::string Path;  // where the link to its pseudo-terminal goes
    const Family* Model = nullptr;
    std::string Number;          // its own ISDN number, digits
    uint32_t MaxSpeed = 230400;  // above this port speed it understands nothing
    bool Dip230400 = false;      // AdTran with DIP switch 1 set for 230400
    bool NoDialTone = false;     // its line is unplugged
};

enum class FaultKind { Corrupt, Drop, Noise };

// --fault KIND:NUMBER:OFFSET, or noise:NUMBER:P[:SEED]. A corrupt or drop
// fault acts once; Acted records that it has. Noise acts on every call of its
// adapter and never counts as acted; its generator runs on from call to call,
// so that one command line garbles the same bytes in every run.
struct FaultSetting {
    FaultKind Kind = FaultKind::Corrupt;
    std::string Number;
    uint64_t Offset = 0;
    bool Acted = false;
    double Probability = 0;  // of each byte being garbled, for noise
    uint64_t Seed = 1;
    bool Started = false;    // the generator has been seeded
    uint64_t State = 0;      // the generator
    uint64_t UntilNext = 0;  // bytes that pass clean before the next garbled one
};

// --route NUMBER=HOST:PORT[/ID]: dials of NUMBER go to the virtual-ta there,
// over TLS to the tool of that line ID, or in plain TCP without one.
struct RouteSetting {
    std::string Number;
    std::string Host;
    uint16_t Port = 0;
    std::string PeerId;  // as LineId::Text() writes it; empty for a plain route
};

struct Options {
    std::vector<AdapterSetting> Adapters;
    uint64_t Rate = 8000;  // bytes per second per B channel each way; 0 unthrottled
    std::vector<FaultSetting> Faults;
    std::string TracePath;
    uint32_t AnswerWaitMs = 30000;  // a call rings this long before the caller gives up
    // --listen HOST:PORT: calls from other virtual-ta processes come in
    // there; port 0 takes any free port. No listening when ListenHost is empty.
    std::string ListenHost;
    uint16_t ListenPort = 0;
    std::vector<RouteSetting> Routes;
    std::string ConfigPath;  // --config FILE: the settings of the file come first
    // The key that makes the tool's line ID: --identity FILE.
    std::string IdentityPath;
    bool ShowIdentity = false;  // print the line ID and exit
    // --peer ID: the line IDs that may call in, besides those of the routes
    // (as LineId::Text() writes them).
    std::vector<std::string> Peers;
    // Plain TCP with any address, not only loopback.
    bool Insecure = false;
    bool Help = false;
};

// Parses the arguments, and the configuration file that --config names. False
// with a one-line reason for bad ones.
bool ParseCommandLine(int argc, const char* const* argv, Options& options, std::string& error);

// Gives the value of the setting being applied; false, with the reason, if it
// has none.
using ValueTaker = std::function<bool(std::string& value, std::string& error)>;

enum class Applied { Taken, Refused, Unknown };

// Applies one setting to the options, as the command line and the file both
// name it: its long option without "--" ("rate"), or "adapter" for an
// ADAPTER. shown is the name as the user wrote it, for the reasons. Refused
// leaves the reason in error; Unknown names no setting.
[[nodiscard]] Applied ApplySetting(const std::string& name, const std::string& shown,
                                   const ValueTaker& take, Options& options, std::string& error);

// The text of --help.
std::string HelpText();
// The one line that follows a usage error.
const char* UsageHint();

}  // namespace kb::virtual_ta
