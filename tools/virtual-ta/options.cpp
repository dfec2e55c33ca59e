#include "virtual-ta/options.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <optional>
#include <set>
#include <stdexcept>

#include "platform/files.h"
#include "virtual-ta/config.h"
#include "virtual-ta/identity.h"
#include "virtual-ta/link.h"

namespace kb::virtual_ta {

using namespace kb::platform;

namespace {

bool AllDigits(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A decimal number up to the limit. False if it is no number or too big.
bool ParseNumber(const std::string& text, uint64_t limit, uint64_t& value) {
    if (!AllDigits(text) || text.size() > 19) {
        return false;
    }
    value = std::stoull(text);
    return value <= limit;
}

// An address written out, as opposed to a name to look up.
bool IsAddress(const std::string& host) {
    unsigned char address[sizeof(in6_addr)];
    return ::inet_pton(AF_INET, host.c_str(), address) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), address) == 1;
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// PATH=FAMILY:NUMBER[,OPTION...]. The path may itself hold "=", so the
// separator is the first "=" that a family name and ":" follow.
bool ParseAdapter(const std::string& text, AdapterSetting& given, std::string& error) {
    size_t equals = text.find('=');
    const Family* family = nullptr;
    size_t familyEnd = 0;
    while (equals != std::string::npos) {
        const size_t colon = text.find(':', equals + 1);
        if (colon != std::string::npos) {
            family = FindFamily(std::string_view(text).substr(equals + 1, colon - equals - 1));
            if (family != nullptr) {
                familyEnd = colon;
                break;
            }
        }
        equals = text.find('=', equals + 1);
    }
    if (family == nullptr) {
        if (text.find('=') == std::string::npos || text.find(':') == std::string::npos) {
            error = "adapter '" + text + "' is not PATH=FAMILY:NUMBER";
        } else {
            error = "adapter '" + text + "' names no known family (" + FamilyNameList() + ")";
        }
        return false;
    }
    given.Path = text.substr(0, equals);
    given.Model = family;
    if (given.Path.empty()) {
        error = "adapter '" + text + "' has no PATH";
        return false;
    }
    if (given.Path.back() == '/') {
        error = "adapter PATH '" + given.Path + "' names a folder, not a link";
        return false;
    }
    const std::string rest = text.substr(familyEnd + 1);
    const size_t comma = rest.find(',');
    given.Number = rest.substr(0, comma);
    if (!AllDigits(given.Number) || given.Number.size() > 31) {
        error = "adapter '" + text + "': NUMBER must be 1 to 31 digits";
        return false;
    }
    size_t at = comma;
    while (at != std::string::npos) {
        const size_t next = rest.find(',', at + 1);
        const std::string option =
            rest.substr(at + 1, next == std::string::npos ? std::string::npos : next - at - 1);
        uint64_t speed = 0;
        if (option == "dip230400") {
            if (family->Kind != FamilyKind::AdTran) {
                error = "adapter '" + text + "': dip230400 is an AdTran option";
                return false;
            }
            given.Dip230400 = true;
        } else if (option == "no-dialtone") {
            given.NoDialTone = true;
        } else if (option.rfind("max-speed=", 0) == 0) {
            if (!ParseNumber(option.substr(10), 100000000, speed) || speed == 0) {
                error = "adapter '" + text + "': max-speed must be a speed in bits per second";
                return false;
            }
            given.MaxSpeed = static_cast<uint32_t>(speed);
        } else {
            error = "adapter '" + text + "': unknown option '" + option + "'";
            return false;
        }
        at = next;
    }
    if (!FolderExists(FolderOf(given.Path))) {
        error = "the folder of '" + given.Path + "' does not exist";
        return false;
    }
    // A link there is replaced; anything else belongs to someone.
    struct stat status {};
    if (::lstat(given.Path.c_str(), &status) == 0 && !S_ISLNK(status.st_mode)) {
        error = "'" + given.Path + "' exists and is not a link";
        return false;
    }
    return true;
}

// noise:NUMBER:P[:SEED] after the number: the probability in (0, 1), as a
// decimal or in e-notation, and the seed, a number.
bool ParseNoise(const std::string& text, const std::string& rest, FaultSetting& fault,
                std::string& error) {
    const size_t colon = rest.find(':');
    const std::string probability = rest.substr(0, colon);
    const bool wellFormed =
        !probability.empty() &&
        probability.find_first_not_of("0123456789.eE-+") == std::string::npos &&
        (probability[0] == '.' || (probability[0] >= '0' && probability[0] <= '9'));
    size_t used = 0;
    try {
        fault.Probability = wellFormed ? std::stod(probability, &used) : 0.0;
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != probability.size() || !(fault.Probability > 0 && fault.Probability < 1)) {
        error = "fault '" + text + "': P must be a probability above 0 and below 1";
        return false;
    }
    if (colon != std::string::npos &&
        !ParseNumber(rest.substr(colon + 1), UINT64_MAX / 2, fault.Seed)) {
        error = "fault '" + text + "': SEED must be a number";
        return false;
    }
    return true;
}

bool ParseFault(const std::string& text, FaultSetting& fault, std::string& error) {
    const size_t first = text.find(':');
    const size_t second = first == std::string::npos ? first : text.find(':', first + 1);
    if (second == std::string::npos) {
        error = "fault '" + text + "' is not KIND:NUMBER:OFFSET";
        return false;
    }
    const std::string kind = text.substr(0, first);
    if (kind == "corrupt") {
        fault.Kind = FaultKind::Corrupt;
    } else if (kind == "drop") {
        fault.Kind = FaultKind::Drop;
    } else if (kind == "noise") {
        fault.Kind = FaultKind::Noise;
    } else {
        error = "fault '" + text + "': KIND must be corrupt, drop or noise";
        return false;
    }
    fault.Number = text.substr(first + 1, second - first - 1);
    if (!AllDigits(fault.Number)) {
        error = "fault '" + text + "': NUMBER must be an adapter's number";
        return false;
    }
    if (fault.Kind == FaultKind::Noise) {
        return ParseNoise(text, text.substr(second + 1), fault, error);
    }
    if (!ParseNumber(text.substr(second + 1), UINT64_MAX / 2, fault.Offset)) {
        error = "fault '" + text + "': OFFSET must be a byte count";
        return false;
    }
    return true;
}

}  // namespace

Applied ApplySetting(const std::string& name, const std::string& shown, const ValueTaker& take,
                     Options& options, std::string& error) {
    std::string value;
    const auto takeValue = [&]() { return take(value, error); };
    // A file's path: an empty one would name no file.
    const auto takeFile = [&](std::string& path) {
        if (!takeValue()) {
            return false;
        }
        if (value.empty()) {
            error = shown + " needs a file";
            return false;
        }
        path = value;
        return true;
    };
    if (name == "rate") {
        if (!takeValue()) {
            return Applied::Refused;
        }
        if (!ParseNumber(value, 1000000000, options.Rate)) {
            error = shown + " must be bytes per second, 0 to 1000000000";
            return Applied::Refused;
        }
    } else if (name == "fault") {
        if (!takeValue()) {
            return Applied::Refused;
        }
        FaultSetting fault;
        if (!ParseFault(value, fault, error)) {
            return Applied::Refused;
        }
        options.Faults.push_back(fault);
    } else if (name == "trace") {
        if (!takeFile(options.TracePath)) {
            return Applied::Refused;
        }
    } else if (name == "answer-wait") {
        uint64_t seconds = 0;
        if (!takeValue()) {
            return Applied::Refused;
        }
        if (!ParseNumber(value, 3600, seconds) || seconds == 0) {
            error = shown + " must be seconds, 1 to 3600";
            return Applied::Refused;
        }
        options.AnswerWaitMs = static_cast<uint32_t>(seconds * 1000);
    } else if (name == "listen") {
        if (!takeValue()) {
            return Applied::Refused;
        }
        if (!ParseHostPort(value, true, options.ListenHost, options.ListenPort)) {
            error = shown + " must be HOST:PORT, e.g. 0.0.0.0:4000 (port 0: any free port)";
            return Applied::Refused;
        }
    } else if (name == "route") {
        if (!takeValue()) {
            return Applied::Refused;
        }
        RouteSetting route;
        const size_t equals = value.find('=');
        const size_t slash = value.find('/');
        route.Number = value.substr(0, equals);
        if (equals == std::string::npos || !AllDigits(route.Number) || route.Number.size() > 31 ||
            (slash != std::string::npos && slash < equals) ||
            !ParseHostPort(
                value.substr(equals + 1,
                             slash == std::string::npos ? std::string::npos : slash - equals - 1),
                false, route.Host, route.Port)) {
            error = "route '" + value + "' is not NUMBER=HOST:PORT[/ID]";
            return Applied::Refused;
        }
        if (slash != std::string::npos) {
            const std::optional<LineId> id = ParseLineId(value.substr(slash + 1), error);
            if (!id) {
                error = "route '" + value + "': " + error;
                return Applied::Refused;
            }
            route.PeerId = id->Text();
        }
        options.Routes.push_back(route);
    } else if (name == "peer") {
        if (!takeValue()) {
            return Applied::Refused;
        }
        const std::optional<LineId> id = ParseLineId(value, error);
        if (!id) {
            error = shown + " '" + value + "': " + error;
            return Applied::Refused;
        }
        options.Peers.push_back(id->Text());
    } else if (name == "identity") {
        if (!takeFile(options.IdentityPath)) {
            return Applied::Refused;
        }
    } else if (name == "insecure") {
        options.Insecure = true;
    } else if (name == "adapter") {
        if (!takeValue()) {
            return Applied::Refused;
        }
        AdapterSetting given;
        if (!ParseAdapter(value, given, error)) {
            return Applied::Refused;
        }
        options.Adapters.push_back(given);
    } else {
        return Applied::Unknown;
    }
    return Applied::Taken;
}

namespace {

// Applies the arguments to the options, leaving what they do not set as it
// is; --config is noted, not read.
bool ApplyCommandLine(int argc, const char* const* argv, Options& options, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::optional<std::string> attached;
        if (arg.rfind("--", 0) == 0) {
            const size_t equals = arg.find('=');
            if (equals != std::string::npos) {
                attached = arg.substr(equals + 1);
                arg = arg.substr(0, equals);
            }
        }
        // A value is the part behind "=" or else the next argument.
        bool taken = false;
        const ValueTaker take = [&](std::string& value, std::string& reason) {
            taken = true;
            if (attached) {
                value = *attached;
                return true;
            }
            if (i + 1 >= argc) {
                reason = arg + " needs a value";
                return false;
            }
            value = argv[++i];
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            options.Help = true;
            return true;
        }
        if (arg == "--config") {
            if (!take(options.ConfigPath, error)) {
                return false;
            }
            if (options.ConfigPath.empty()) {
                error = "--config needs a file";
                return false;
            }
            continue;
        }
        Applied applied = Applied::Unknown;
        if (arg == "--show-identity") {
            // Not a setting of the file: a tool run from it would only print.
            options.ShowIdentity = true;
            applied = Applied::Taken;
        } else if (arg.rfind("--", 0) == 0) {
            applied = arg == "--adapter" ? Applied::Unknown
                                         : ApplySetting(arg.substr(2), arg, take, options, error);
        } else if (arg.rfind("-", 0) != 0) {
            attached = arg;
            applied = ApplySetting("adapter", arg, take, options, error);
        }
        if (applied == Applied::Unknown) {
            error = "unknown option '" + arg + "'";
            return false;
        }
        if (applied == Applied::Refused) {
            return false;
        }
        if (attached && !taken) {
            error = arg + " takes no value";
            return false;
        }
    }
    return true;
}

// The checks that only all settings together allow.
bool CheckSettings(const Options& options, std::string& error) {
    if (options.Adapters.empty()) {
        error = "no ADAPTER given";
        return false;
    }
    std::set<std::string> paths;
    std::set<std::string> numbers;
    for (const AdapterSetting& given : options.Adapters) {
        if (!paths.insert(given.Path).second) {
            error = "two adapters at '" + given.Path + "'";
            return false;
        }
        if (!numbers.insert(given.Number).second) {
            error = "two adapters with the number " + given.Number;
            return false;
        }
    }
    std::set<std::string> routed;
    bool anyId = !options.Peers.empty();
    for (const RouteSetting& route : options.Routes) {
        anyId = anyId || !route.PeerId.empty();
        // A host name is checked when the dial has its addresses.
        if (route.PeerId.empty() && !options.Insecure && IsAddress(route.Host) &&
            !IsLoopbackHost(route.Host)) {
            error = "route for " + route.Number + " has no line ID: plain TCP goes to loopback " +
                    "only (add /ID, or --insecure)";
            return false;
        }
        if (numbers.count(route.Number) != 0) {
            error = "route for " + route.Number + ", which is an adapter's number here";
            return false;
        }
        if (!routed.insert(route.Number).second) {
            error = "two routes for " + route.Number;
            return false;
        }
    }
    // Under --insecure a plain call is taken from anyone, so a peer list
    // would only seem to choose who may call.
    if (anyId && options.Insecure) {
        error =
            "--insecure takes plain calls from anyone; with --peer or a route's ID, leave it "
            "out";
        return false;
    }
    if (!options.ListenHost.empty() && !anyId && !options.Insecure &&
        !IsLoopbackHost(options.ListenHost)) {
        error = "--listen " + options.ListenHost + " takes calls from away, but no --peer says " +
                "from whom (or --insecure for anyone)";
        return false;
    }
    for (const FaultSetting& fault : options.Faults) {
        if (numbers.count(fault.Number) == 0) {
            error = "fault for " + fault.Number + ", which is no adapter's number";
            return false;
        }
    }
    return true;
}

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, Options& options, std::string& error) {
    options = Options{};
    if (!ApplyCommandLine(argc, argv, options, error)) {
        return false;
    }
    if (options.Help) {
        return true;
    }
    if (!options.ConfigPath.empty()) {
        // The file first, then the command line again on top of it: its
        // single values replace the file's, its lists add to them.
        Options merged;
        if (!ReadConfigFile(options.ConfigPath, merged, error) ||
            !ApplyCommandLine(argc, argv, merged, error)) {
            return false;
        }
        options = std::move(merged);
    }
    if (options.IdentityPath.empty()) {
        options.IdentityPath = DefaultIdentityPath();
    }
    if (options.ShowIdentity) {
        return true;
    }
    return CheckSettings(options, error);
}

const char* UsageHint() {
    return "see virtual-ta --help";
}

std::string HelpText() {
    return R"(Usage: virtual-ta [options] ADAPTER...

Virtual ISDN terminal adapters for Kestrelbound. Each ADAPTER gets a
pseudo-terminal that a program opens as its serial port; the tool plays the
adapter behind that port and the exchange that connects calls between them.

  ADAPTER   PATH=FAMILY:NUMBER[,OPTION...]
            PATH    where the adapter's port appears: a link to its
                    pseudo-terminal, e.g. stations/alice/COM1. Its folder must
                    exist; a link left there by an earlier run is replaced.
            FAMILY  )" +
           FamilyNameList() +
           R"(
            NUMBER  the adapter's own ISDN number, digits
            OPTION  max-speed=N   the highest port speed at which this adapter
                                  still understands its port (default 230400)
                    dip230400     an AdTran whose DIP switch 1 is set for
                                  230400: its port runs at 230400 only
                    no-dialtone   its line is unplugged

Options:
  --rate N            bytes per second that one B channel carries in each
                      direction (default 8000; 0 = as fast as the ports go).
                      A call whose two ends are both set up for two channels
                      (AIMUX, or ZyXEL with 2B on) carries twice that; a call
                      that either end set up for 56K carries 7/8 of it.
  --fault corrupt:NUMBER:OFFSET
                      in the next call of adapter NUMBER that gets that far,
                      flip the lowest bit of data byte OFFSET (counted from 0,
                      from the first data byte after CONNECT) that it sends
  --fault drop:NUMBER:OFFSET
                      in the next call of adapter NUMBER that gets that far,
                      the line falls after it has sent OFFSET data bytes
                      (both ends get NO CARRIER behind the last data)
                      Faults may be given several times; each acts once, in
                      the order given.
  --fault noise:NUMBER:P[:SEED]
                      in every call of adapter NUMBER, garble each data byte
                      that it sends with probability P (e.g. 1e-5): XOR it
                      with a random nonzero byte. The bytes garbled follow
                      from SEED (default 1) alone, so a run repeats exactly;
                      the generator runs on from one call to the next.
  --trace FILE        write every command, reply, call event and per-call
                      byte count to FILE, one line each, with a time stamp
  --answer-wait S     how long a call rings unanswered before the caller gets
                      NO CARRIER (default 30 seconds)
  --listen HOST:PORT  take calls from virtual-ta processes on other computers
                      on this TCP address (0.0.0.0 for every interface; port
                      0 takes a free port). Before "ready" it prints
                      "listening on HOST:PORT" with the port it got.
  --route NUMBER=HOST:PORT[/ID]
                      a dial of NUMBER goes to the virtual-ta listening there
                      (may be given several times). The call then behaves as
                      a call between two adapters here; NO CARRIER if that
                      virtual-ta cannot be reached. With the line ID of that
                      virtual-ta the call goes over TLS, and only to it; that
                      ID may also call in. Without, in plain TCP, and only to
                      a loopback address unless --insecure.
  --peer ID           a line ID that may call in over TLS (may be given
                      several times). Calls from other IDs are refused in
                      the TLS handshake, logged with their address and ID.
  --identity FILE     the key that makes this virtual-ta's line ID, made
                      with mode 0600 on first use (default
                      ~/.config/kestrelbound/line.key, under XDG_CONFIG_HOME
                      if that is set); read only when a --peer or a route's
                      ID is given, or with --show-identity
  --show-identity     print this virtual-ta's line ID, making its key if
                      there is none, and exit
  --insecure          take and make calls in plain TCP with any address, not
                      only loopback: nothing checks who calls, and anyone on
                      the way reads the call. The log says so at every call.
  --config FILE       take the settings of FILE first: one a line, "NAME
                      VALUE", NAME an option above without "--" or "adapter"
                      for an ADAPTER; "#" starts a comment. A path there that
                      begins with "~/" is in the home folder, another relative
                      one is relative to the file's folder. Options given here
                      as well replace the file's single values and add to its
                      adapters, faults and routes.
  --help              this text

It prints "ready" once every link exists, runs until SIGINT or SIGTERM, then
removes its links and exits 0. Bad arguments: a one-line message and exit 2;
an identity key that cannot be read or made: exit 3; another failure at the
start (a pseudo-terminal, the listening address): exit 1.
A listening address other than loopback needs a --peer or a route with an ID
(or --insecure). Callers refused for the line ID they showed (once a minute
per address), refusals of this tool's own dials, and calls in plain TCP under
--insecure are logged on standard error; every connection is in the trace.

Example:
  virtual-ta alice/COM1=bitsurfr:5551001 bob/COM1=zyxel-2864:5551002
Across two computers, Alice's calling Bob's; each has told the other the line
ID that virtual-ta --show-identity printed:
  virtual-ta --listen 0.0.0.0:4000 --peer ALICES-ID bob/COM1=zyxel-2864:5551002
  virtual-ta --route 5551002=bobs-pc:4000/BOBS-ID alice/COM1=bitsurfr:5551001
)";
}

}  // namespace kb::virtual_ta
