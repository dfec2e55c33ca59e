// A call between two virtual-ta processes runs over a TCP connection of its
// own: the link. The caller's process connects for each dial that a route
// sends away, the listening process accepts. Everything on the connection is
// a message: a type byte, a length of two bytes (high byte first) and that
// many bytes, so that the data of the call and its control never mix.
//
// Between tools on different computers the messages go inside TLS (see
// tls.h); a plain connection is taken only where nobody else can reach it.
// The listener tells one from the other by the first byte: a TLS handshake
// record begins with 0x16, a plain link with its setup, 'S'.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "virtual-ta/deadline.h"
#include "virtual-ta/identity.h"
#include "virtual-ta/tls.h"

namespace kb::virtual_ta {

struct Call;

enum class LinkMessage : uint8_t {
    Setup = 'S',    // caller: "CALLED SECOND CALLER BUNDLING SPEED RATE SET-UP"
    Ringing = 'R',  // listener: the called adapter rings once more
    Failed = 'F',   // listener: "BUSY" or "NO CARRIER"; the connection closes
    Connect = 'C',  // listener: "CHANNELS BYTES-PER-SECOND SET-UP"
    Data = 'D',     // either: bytes of the call, in order
    Release = 'H',  // either: the call ends here; data sent before it counts
};

constexpr size_t LongestMessage = 65535;
constexpr char TlsHandshakeRecord = 0x16;

struct Link {
    int Fd = -1;
    std::string Peer;  // HOST:PORT, for the trace
    // Addresses still to try while the connection is being made.
    std::vector<sockaddr_storage> Addresses;
    bool Connecting = false;
    // A route without a line ID dials in plain TCP, and then only loopback
    // addresses unless --insecure allows any.
    bool LoopbackOnly = false;
    // The far tool's line ID when the connection is to be TLS.
    std::optional<LineId> FarId;

    // A connection taken whose first byte has not come: TLS or plain is
    // not known yet.
    bool Unsorted = false;
    std::unique_ptr<TlsSession> Tls;  // null on a plain connection
    bool Handshaking = false;         // nothing is read or written but the handshake

    // The caller's: the lookup of the far host under way (0 for none), and
    // when the far tool must have answered by, from the dial or from the
    // start of the connection to each address.
    uint64_t Lookup = 0;
    uint64_t AnswerBy = Never;

    std::string In;       // received, from InHead on not handled yet
    size_t InHead = 0;    // the start of the next message
    size_t DataDone = 0;  // bytes of the data message at InHead already taken
    std::string Out;      // messages not written yet, from OutHead on
    size_t OutHead = 0;

    Call* InCall = nullptr;
    // A connection taken on the listening socket: when it came, and until
    // when it may wait for its call to be set up.
    uint64_t AcceptedAt = 0;
    uint64_t SetupBy = Never;
    bool Heard = false;  // a byte has come from the peer
    // The caller's TLS ended on the far tool's alert before a word came:
    // the far tool refused this tool's line ID.
    bool RefusedByAlert = false;
    bool Closing = false;      // writes what it holds, then ends the connection
    bool ShutDown = false;     // nothing more is written
    bool PeerClosed = false;   // the connection has ended or failed; In may still hold messages
    uint64_t CloseBy = Never;  // a closing link whose peer does not close is cut
    bool Gone = false;         // closed; removed at the next sweep

    [[nodiscard]] size_t PendingOut() const { return Out.size() - OutHead; }
    // A connection from away that has not set up a call yet.
    [[nodiscard]] bool AwaitingSetup() const {
        return SetupBy != Never && InCall == nullptr && !Closing && !Gone;
    }
    [[nodiscard]] size_t PendingIn() const { return In.size() - InHead; }
    void Queue(LinkMessage type, std::string_view payload);
    // The whole message at InHead, if it has come.
    bool Peek(LinkMessage& type, std::string_view& payload) const;
    void Pop();
};

// "HOST:PORT" (the host may be in brackets, as "[::1]:4000"). False if there
// is no host, or the port is no number up to 65535 (or 0 when not allowed).
bool ParseHostPort(const std::string& text, bool allowZero, std::string& host, uint16_t& port);

// A listening socket on the address, not blocking; its port is written to
// port when it was 0. -1 with a reason.
int ListenOn(const std::string& host, uint16_t& port, std::string& error);
// Takes a waiting connection: its descriptor, not blocking, or -1 with the
// reason in error (errno's value; EAGAIN when none waits).
int AcceptOn(int listener, std::string& peer, int& error);
// The addresses of the host, IPv6 and IPv4, with getaddrinfo's flags added
// (AI_NUMERICHOST: a literal address only, which never waits on a name
// server); none if there is none.
std::vector<sockaddr_storage> FindAddresses(const std::string& host, uint16_t port, int flags);
// Starts connecting to the first address; the link tries the others in turn
// (ConnectNext) if that one fails. False if there is no address to try.
bool StartConnect(Link& link, const std::vector<sockaddr_storage>& addresses);
bool ConnectNext(Link& link);
// Whether a connection under way has been made; false when it failed.
bool Connected(int fd);
// Whether the connection's peer is on this computer's loopback.
bool PeerIsLoopback(int fd);
// Whether the host is written as a loopback address ("localhost" counts).
bool IsLoopbackHost(const std::string& host);

// Reads what the socket has into the link's input, through the link's TLS
// when it has one: false when the peer closed the connection or it failed.
bool ReadLink(Link& link);
// Writes what the socket takes: false when the connection failed.
bool WriteLink(Link& link);
// Nothing more is written: the peer reads the end after what it was sent.
void EndWrites(Link& link);
void CloseLink(Link& link);

}  // namespace kb::virtual_ta
