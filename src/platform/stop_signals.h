// The signals that ask a program to stop, taken as input rather than in a
// handler: they are blocked in every thread and read from a descriptor, so
// that a loop waiting on its descriptors sees a stop as one more event and
// ends in order, with nothing interrupted half way.
#pragma once

#include <initializer_list>
#include <optional>

namespace kb::platform {

class StopSignals {
public:
    // Blocks SIGINT, SIGTERM and the others given in the calling thread, and
    // so in every thread it starts afterwards: make it before any thread.
    // Then opens the descriptor; see IsOpen.
    explicit StopSignals(std::initializer_list<int> others = {});
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // False if the signals could not be blocked or the descriptor made;
    // errno tells why.
    [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }
    // Readable while a stop signal waits.
    [[nodiscard]] int Descriptor() const { return fd_; }
    // Takes one waiting signal: its number; none if none waits.
    [[nodiscard]] std::optional<int> Take();

private:
    int fd_ = -1;
};

}  // namespace kb::platform
