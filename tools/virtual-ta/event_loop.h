// The tool's one loop: poll(2) over every adapter's port and a signal
// descriptor, with the exchange's next timer as the time limit. Nothing is
// done between events, so an idle tool costs no processor time.
#pragma once

#include "virtual-ta/exchange.h"

// Runs until a signal arrives on signalFd (a signalfd); returns its number.
int RunEventLoop(Exchange& exchange, int signalFd);
