// virtual-ta: virtual ISDN terminal adapters on pseudo-terminals, and the
// exchange that connects their calls.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "virtual-ta/event_loop.h"
#include "virtual-ta/exchange.h"
#include "virtual-ta/options.h"
#include "virtual-ta/trace.h"

int main(int argc, char** argv) {
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
    if (!options.TracePath.empty() && !OpenTrace(options.TracePath)) {
        std::fprintf(stderr, "virtual-ta: cannot write the trace file '%s' (%s)\n",
                     options.TracePath.c_str(), UsageHint());
        return 2;
    }

    // The signals that end the tool arrive through a descriptor, so that the
    // loop sees them as one more event and ends in order.
    sigset_t endSignals;
    sigemptyset(&endSignals);
    sigaddset(&endSignals, SIGINT);
    sigaddset(&endSignals, SIGTERM);
    sigaddset(&endSignals, SIGHUP);
    if (sigprocmask(SIG_BLOCK, &endSignals, nullptr) != 0) {
        std::perror("virtual-ta: sigprocmask");
        return 1;
    }
    const int signalFd = signalfd(-1, &endSignals, SFD_CLOEXEC);
    if (signalFd < 0) {
        std::perror("virtual-ta: signalfd");
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);

    Exchange exchange(options);
    if (!exchange.Open(error)) {
        exchange.Close();
        std::fprintf(stderr, "virtual-ta: %s\n", error.c_str());
        return 1;
    }
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
    TraceLine("-", "ready");

    const int signalNumber = RunEventLoop(exchange, signalFd);
    exchange.Close();
    TraceLine("-", "stopped by signal " + std::to_string(signalNumber));
    CloseTrace();
    ::close(signalFd);
    return 0;
}
