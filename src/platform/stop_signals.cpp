#include "platform/stop_signals.h"

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace kb::platform {

StopSignals::StopSignals(std::initializer_list<int> others) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    for (const int other : others) {
        sigaddset(&signals, other);
    }
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) == 0) {
        fd_ = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    }
}

StopSignals::~StopSignals() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

std::optional<int> StopSignals::Take() {
    signalfd_siginfo info{};
    if (fd_ < 0 || ::read(fd_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return std::nullopt;
    }
    return static_cast<int>(info.ssi_signo);
}

}  // namespace kb::platform
