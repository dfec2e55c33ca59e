// A port device in memory, for a Line whose far end is the test itself: a
// test or a fuzz target gives the line MakeDevice as its device maker and
// holds the pipe as the far end. What the far end puts in is at once there
// for the line's reads and ends its waits; what the line writes is kept for
// the far end to take, or handed at once to a far end that answers as it
// hears. Nothing goes through the kernel, nothing is polled and nothing
// sleeps, so an input costs only what the program does with it.
//
// It keeps to the device's contract (platform/port_device.h): the input
// queue holds at most QueueSize bytes and holds the rest back, a wait ends
// only on input not yet taken in, and an Interrupt with no wait under way
// ends the next one. Settings are taken as given; there are no modem lines.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/port_device.h"

namespace kb::test {

using platform::PortDevice;

class BytePipe {
public:
    BytePipe();

    // The line's end of the pipe. The pipe lives as long as either end.
    [[nodiscard]] std::unique_ptr<PortDevice> MakeDevice() const;

    // Bytes as if the far end had sent them; thrown away while the line's
    // end is closed, as a closed port hears nothing.
    void Put(std::string_view bytes);
    // What the line has written since the last Take, unless a listener took it.
    [[nodiscard]] std::string Take();
    // From now on every write is handed to the listener as it is made, on the
    // writing thread and with no lock of the pipe held, so that the listener
    // may Put its answer at once; what was kept for Take goes to it first.
    // Nothing is kept for Take then.
    void OnWrite(std::function<void(std::string_view)> listener);

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace kb::test
