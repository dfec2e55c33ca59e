// virtual-ta: virtual ISDN terminal adapters on pseudo-terminals, and the
// exchange that connects their calls.

#include <signal.h>

#include <cstdio>
#include <string>

#include "platform/stop_signals.h"
#include "virtual-ta/event_loop.h"
#include "virtual-ta/exchange.h"
#include "virtual-ta/identity.h"
#include "virtual-ta/options.h"
#include "virtual-ta/resolver.h"
#include "virtual-ta/trace.h"

namespace {

// An identity key that cannot be read or made stays so until the user sees
// to it: the service manager does not start the tool again for it.
constexpr int KeyRefused = 3;

}  // namespace

int main(int argc, char** argv) {
    using namespace kb::platform;
    using namespace kb::virtual_ta;

    Options options;
    std::string error;
    if (!ParseCommandLine(argc, argv, options, error)) {
        std::fprintf(stderr, "virtual-ta: %s (%s)\n", error.c_str(), UsageHint());
        return 2;
    }
    if (options.Help) {
        std::fputs(HelpText().c_str(), stdout);
        return 0;
    }
    if (options.ShowIdentity) {
        const Key key = LoadOrMakeKey(options.IdentityPath, error, NewKey::Quiet);
        if (!key) {
            std::fprintf(stderr, "virtual-ta: %s\n", error.c_str());
            return KeyRefused;
        }
        std::printf("%s\n", LineIdOf(key.get())->Text().c_str());
        return 0;
    }
    if (!options.TracePath.empty() && !OpenTrace(options.TracePath)) {
        std::fprintf(stderr, "virtual-ta: cannot write the trace file '%s' (%s)\n",
                     options.TracePath.c_str(), UsageHint());
        return 2;
    }

    // SIGHUP too: a tool run in a terminal that closes still removes its links.
    StopSignals stopSignals({SIGHUP});
    if (!stopSignals.IsOpen()) {
        std::perror("virtual-ta: cannot take the stop signals");
        return 1;
    }
    // Standard output may be a pipe whose reader left after "ready".
    ::signal(SIGPIPE, SIG_IGN);

    Resolver resolver;
    Exchange exchange(options, resolver);
    if (!exchange.Open(error)) {
        exchange.Close();
        std::fprintf(stderr, "virtual-ta: %s\n", error.c_str());
        return exchange.KeyRefused() ? KeyRefused : 1;
    }
    if (!exchange.ListeningAt().empty()) {
        std::printf("listening on %s\n", exchange.ListeningAt().c_str());
    }
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
    TraceLine("-", "ready");

    const int signalNumber = RunEventLoop(
        exchange, LoopEnd{stopSignals.Descriptor(), [&] { return stopSignals.Take(); }},
        MonotonicNs);
    exchange.Close();
    TraceLine("-", "stopped by signal " + std::to_string(signalNumber));
    CloseTrace();
    return 0;
}
