// The state of the link and the side this end takes in the session, which
// every thread of the engine and the window read to know what the line is
// doing now.
#pragma once

#include <cstdint>

namespace kb::engine {

// The states of the link, with the values they have always had.
enum class LinkState : int16_t {
    Idle = 0,       // no call; lines from the port are adapter messages
    Dialing = 1,    // the dial string has gone, the call's progress is awaited
    Connected = 2,  // the data channel is up and no file data flows
    Transfer = 3,   // file data flows
    FileSent = 4,   // sending side: the file's last block is out, an ACK is awaited
    Recovery = 5,   // a section failed its check and is being asked for again
};

// The side of the session: the sender offers a list and its files, the
// receiver admits them. The caller starts as the sender and the answerer as
// the receiver; a retrieve swaps them.
enum class Role : uint8_t { Receiver, Sender };

}  // namespace kb::engine
