// The exchange's calls with adapters of other virtual-ta processes: taking
// their calls on the listening socket, sending dials of routed numbers away,
// and carrying each call's messages over its link.
//
// The far process stands in for the far adapter. A call from away rings here
// exactly as a call from an adapter here; a call away hears RINGING, BUSY or
// CONNECT as the far exchange tells. Each direction is paced by the exchange
// of the adapter that sends, so the data of a link arrives already paced and
// goes to the port as it comes.

#include <malloc.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <sstream>
#include <string_view>
#include <tuple>

#include "virtual-ta/exchange.h"
#include "virtual-ta/trace.h"

namespace kb::virtual_ta {

using namespace kb::platform;

namespace {

// The address of a peer's "HOST:PORT" ("[::1]:4000" gives "[::1]").
std::string_view HostOf(const std::string& peer) {
    return std::string_view(peer).substr(0, peer.rfind(':'));
}

// Bytes of a call waiting for the socket; beyond this the data stays on the
// line, whose sender is then held back as when the far port takes nothing.
constexpr size_t LinkBacklog = 65536;
// A dial away is given this long for the far host's name to be found, and
// then for each of its addresses in turn to take the connection and the far
// tool to answer the dial. A host that has gone, or a name server that never
// answers, is then an unreachable number well before the caller would give
// up its ringing.
constexpr uint64_t ReachWaitNs = 10000 * NsPerMs;
// The log tells of a refused caller at most once a minute for each address:
// a crowd of them would fill the journal, and the tool would wait on it.
constexpr uint64_t RefusalsQuietNs = 60000 * NsPerMs;
// A link that has said its last waits this long for the far process to close.
constexpr uint64_t CloseWaitNs = 5000 * NsPerMs;
// A caller's process sends its setup as soon as it is connected, so a
// connection from away that has set up no call within this time never will,
// and at most this many such connections are kept: a stray or hostile
// client can neither hold descriptors for good nor crowd out real calls.
constexpr uint64_t SetupWaitNs = 5000 * NsPerMs;
constexpr size_t AwaitingSetupMax = 16;
// Descriptors kept from connections from away: the trace, the stop signals
// and a few the system may want, and for each adapter one to dial out with
// and one for the call it takes (its port already has its own).
constexpr int DescriptorsKept = 8;
constexpr int DescriptorsKeptPerAdapter = 2;
// Out of descriptors with nothing to let go, the listener rests this long:
// the connection stays in the system's queue, and the listening socket
// would report it again at once.
constexpr uint64_t ListenerRestNs = 200 * NsPerMs;

const char* BundlingName(Bundling bundle) {
    switch (bundle) {
        case Bundling::Aimux:
            return "aimux";
        case Bundling::TwoB:
            return "2b";
        case Bundling::None:
            break;
    }
    return "none";
}

std::string HostPort(const RouteSetting& route) {
    const bool v6 = route.Host.find(':') != std::string::npos;
    return (v6 ? "[" + route.Host + "]" : route.Host) + ":" + std::to_string(route.Port);
}

}  // namespace

bool Exchange::OpenTls(std::string& error) {
    std::vector<std::string> ids = options_.Peers;
    for (const RouteSetting& route : options_.Routes) {
        if (!route.PeerId.empty()) {
            ids.push_back(route.PeerId);
        }
    }
    if (ids.empty()) {
        return true;  // plain TCP alone, on loopback or under --insecure
    }
    for (const std::string& text : ids) {
        std::string unused;
        if (const std::optional<LineId> id = ParseLineId(text, unused)) {
            peers_.push_back(*id);
        }
    }
    key_ = LoadOrMakeKey(options_.IdentityPath, error);
    if (!key_) {
        return false;
    }
    tls_ = std::make_unique<TlsContext>();
    if (!tls_->Open(key_.get(), error)) {
        return false;
    }
    TraceLine("-", "line ID " + LineIdOf(key_.get())->Text());
    return true;
}

bool Exchange::OpenListener(std::string& error) {
    if (options_.ListenHost.empty()) {
        return true;
    }
    uint16_t port = options_.ListenPort;
    listener_ = ListenOn(options_.ListenHost, port, error);
    if (listener_ < 0) {
        return false;
    }
    listeningAt_ = HostPort(RouteSetting{"", options_.ListenHost, port, ""});
    TraceLine("-", "listening on " + listeningAt_);
    rlimit limit{};
    const rlim_t most = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < INT_MAX
                            ? limit.rlim_cur
                            : INT_MAX;
    descriptorRoom_ = static_cast<int>(most) - DescriptorsKept -
                      DescriptorsKeptPerAdapter * static_cast<int>(adapters_.size());
    return true;
}

const RouteSetting* Exchange::FindRoute(const std::string& number) const {
    for (const RouteSetting& route : options_.Routes) {
        if (route.Number == number) {
            return &route;
        }
    }
    const std::string behind = BehindCarrierCode(number);
    for (const RouteSetting& route : options_.Routes) {
        if (!behind.empty() && route.Number == behind) {
            return &route;
        }
    }
    return nullptr;
}

void Exchange::DialAway(Call& call, const RouteSetting& route, const std::string& second,
                        uint64_t now) {
    Adapter& caller = *call.Caller;
    auto owned = std::make_unique<Link>();
    Link& link = *owned;
    links_.push_back(std::move(owned));
    link.Peer = HostPort(route);
    std::string unused;
    link.FarId = ParseLineId(route.PeerId, unused);
    link.LoopbackOnly = !link.FarId && !options_.Insecure;
    if (!link.FarId && options_.Insecure) {
        LogLine(caller.Who + " calls " + call.FarWho + " at " + link.Peer +
                " in plain TCP (--insecure): neither side is checked, anyone on the way reads it");
    }
    const LineSetup setup = SetupOf(caller.Given.Model->Kind, caller.Registers);
    link.Queue(LinkMessage::Setup, call.FarWho + " " + (second.empty() ? "-" : second) + " " +
                                       caller.Who + " " + BundlingName(setup.Bundle) + " " +
                                       (setup.Is56k ? "56" : "64") + " " +
                                       std::to_string(options_.Rate) + " " + Describe(setup));
    link.InCall = &call;
    call.Away = true;
    call.Remote = &link;
    // The far exchange tells whether it rings; until then the caller waits
    // as for a ringing call, and gives up after the same time.
    call.Phase = CallPhase::Ringing;
    call.GiveUpAt = now + static_cast<uint64_t>(options_.AnswerWaitMs) * NsPerMs;
    TraceLine(caller.Who, "calls " + call.FarWho + " at " + HostPort(route));
    // A literal address needs no name server; a name is looked up off the
    // loop, whose other calls go on meanwhile.
    const std::vector<sockaddr_storage> literal =
        FindAddresses(route.Host, route.Port, AI_NUMERICHOST);
    if (!literal.empty()) {
        Reach(link, literal, now);
        return;
    }
    link.Lookup = resolver_.Start(route.Host, route.Port);
    link.AnswerBy = now + ReachWaitNs;
}

void Exchange::Reach(Link& link, const std::vector<sockaddr_storage>& addresses, uint64_t now) {
    link.Lookup = 0;
    if (!StartConnect(link, addresses)) {
        // Unreachable: the same as a number that nobody has.
        LinkLost(link, now);
        return;
    }
    link.AnswerBy = now + ReachWaitNs;
}

void Exchange::TakeLookups(uint64_t now) {
    for (const LookupAnswer& answer : resolver_.Take()) {
        // A lookup whose dial was given up meanwhile finds its link gone.
        const auto found = std::find_if(links_.begin(), links_.end(), [&](const auto& link) {
            return !link->Gone && link->InCall != nullptr && link->Lookup == answer.Id;
        });
        if (found == links_.end()) {
            continue;
        }
        Link& link = **found;
        if (answer.Addresses.empty()) {
            TraceLine(link.InCall->Caller->Who, "cannot find the host of " + link.Peer);
        }
        Reach(link, answer.Addresses, now);
    }
}

// The far tool has not answered in time: the next of its addresses is
// tried, if there is one still to try, or the route is unreachable.
void Exchange::NoAnswer(Link& link, uint64_t now) {
    TraceLine(link.InCall->Caller->Who, "no answer from " + link.Peer + " within " +
                                            std::to_string(ReachWaitNs / NsPerMs / 1000) + " s");
    if (link.Connecting && ConnectNext(link)) {
        link.AnswerBy = now + ReachWaitNs;
        return;
    }
    LinkLost(link, now);
}

void Exchange::CallFromAway(Link& link, std::string_view setup, uint64_t now) {
    std::istringstream fields{std::string(setup)};
    std::string called;
    std::string second;
    std::string callerNumber;
    std::string bundling;
    int speed = 0;
    uint64_t rate = 0;
    std::string description;
    if (!(fields >> called >> second >> callerNumber >> bundling >> speed >> rate)) {
        TraceLine("-", "a call from " + link.Peer + " without a proper setup");
        CloseLink(link);
        return;
    }
    std::getline(fields >> std::ws, description);
    TraceLine(callerNumber, "calls " + called + " from " + link.Peer);

    Adapter* target = Route(called);
    const char* failure = nullptr;
    if (target == nullptr || target->Given.NoDialTone) {
        failure = "NO CARRIER";
    } else if (target->Mode != AdapterMode::Command || target->InCall != nullptr) {
        failure = "BUSY";
    }
    if (failure != nullptr) {
        // The caller's exchange reports it after its own routing delay.
        TraceLine(callerNumber, std::string("dial fails: ") + failure);
        link.Queue(LinkMessage::Failed, failure);
        link.Closing = true;
        link.CloseBy = now + CloseWaitNs;
        return;
    }

    auto owned = std::make_unique<Call>();
    Call& call = *owned;
    calls_.push_back(std::move(owned));
    call.Away = true;
    call.Remote = &link;
    link.InCall = &call;
    link.SetupBy = Never;
    call.FarWho = callerNumber;
    call.FarSetup.Bundle = bundling == "aimux" ? Bundling::Aimux
                           : bundling == "2b"  ? Bundling::TwoB
                                               : Bundling::None;
    call.FarSetup.Is56k = speed == 56;
    call.FarDescription = description;
    call.FarRate = rate;
    call.DialledAt = now;
    call.Phase = CallPhase::Ringing;
    call.Answerer = target;
    target->InCall = &call;
    call.SecondChannelReachable = second == "-" || Route(second) == target;
    // The caller's exchange decides when to give up, and tells.
    call.NextRingAt = now + RingIntervalNs;
    TraceLine(callerNumber, "rings " + target->Who);
    Ring(call, now);
}

void Exchange::ConnectedAway(Call& call, std::string_view message, uint64_t now) {
    std::istringstream fields{std::string(message)};
    std::string description;
    if (!(fields >> call.Channels >> call.BytesPerSecond)) {
        return;
    }
    std::getline(fields >> std::ws, description);
    const Adapter& caller = *call.Caller;
    StartData(call, Describe(SetupOf(caller.Given.Model->Kind, caller.Registers)), description,
              now);
}

void Exchange::FailAway(Call& call, const char* result, uint64_t now) {
    Detach(call, false);
    call.Phase = CallPhase::Routing;
    call.Failure = result;
    call.GiveUpAt = Never;
    call.ResultAt = std::max(now, call.DialledAt + RoutingDelayNs);
}

void Exchange::HandleMessages(Link& link, uint64_t now) {
    LinkMessage type{};
    std::string_view payload;
    while (!link.Gone && link.Peek(type, payload)) {
        link.AnswerBy = Never;
        Call* call = link.InCall;
        if (call == nullptr) {
            // Before its call, a link from away says only what it wants; after
            // it, nothing counts any more.
            if (type == LinkMessage::Setup && !link.Closing) {
                CallFromAway(link, payload, now);
            }
            link.Pop();
            continue;
        }
        const bool calling = call->Caller != nullptr;
        switch (type) {
            case LinkMessage::Ringing:
                if (calling && call->Phase == CallPhase::Ringing) {
                    if (call->Rings++ == 0) {
                        TraceLine(call->Caller->Who, "rings " + call->FarWho);
                    }
                    Result(*call->Caller, "RINGING");
                }
                break;
            case LinkMessage::Failed:
                if (calling && call->Phase == CallPhase::Ringing) {
                    FailAway(*call, payload == "BUSY" ? "BUSY" : "NO CARRIER", now);
                }
                break;
            case LinkMessage::Connect:
                if (calling && call->Phase == CallPhase::Ringing) {
                    ConnectedAway(*call, payload, now);
                }
                break;
            case LinkMessage::Data:
                if (call->Phase == CallPhase::Connected && !TakeData(*call, link, payload, now)) {
                    return;  // the rest when the port has taken more
                }
                break;
            case LinkMessage::Release:
                Detach(*call, false);
                if (call->Phase == CallPhase::Connected) {
                    EndCall(*call, EndReason::HangUp, nullptr);
                } else {
                    TraceLine(call->Local()->Who,
                              calling ? "refused by " + call->FarWho : call->FarWho + " gave up");
                    Abandon(*call, "NO CARRIER");
                }
                break;
            case LinkMessage::Setup:
            default:
                TraceLine(call->Local()->Who, "unexpected message from " + link.Peer);
                LinkLost(link, now);
                return;
        }
        link.Pop();
    }
}

bool Exchange::TakeData(Call& call, Link& link, std::string_view payload, uint64_t now) {
    Adapter& local = *call.Local();
    DataPath& path = call.To(local);
    bool all = true;
    while (link.DataDone < payload.size()) {
        size_t room = 0;
        uint8_t* area = path.WriteArea(room);
        if (room == 0) {
            all = false;
            break;
        }
        const size_t count = std::min(room, payload.size() - link.DataDone);
        std::memcpy(area, payload.data() + link.DataDone, count);
        path.Commit(count);
        link.DataDone += count;
    }
    std::vector<const FaultSetting*> unpacedNeverActs;
    // The faults acted at the far exchange; here none can make the line fall.
    static_cast<void>(path.Release(now, unpacedNeverActs));
    Flush(local);
    return all;
}

void Exchange::Forward(Call& call, bool everything) {
    Link* link = call.Remote;
    if (link == nullptr) {
        return;
    }
    DataPath& path = call.From(*call.Local());
    while (everything || link->PendingOut() < LinkBacklog) {
        size_t length = 0;
        const uint8_t* bytes = path.Ready(length);
        if (length == 0) {
            break;
        }
        length = std::min(length, LongestMessage);
        link->Queue(LinkMessage::Data,
                    std::string_view(reinterpret_cast<const char*>(bytes), length));
        path.Consume(length);
    }
}

void Exchange::Detach(Call& call, bool release) {
    Link* link = call.Remote;
    if (link == nullptr) {
        return;
    }
    if (release) {
        link->Queue(LinkMessage::Release, {});
    }
    link->InCall = nullptr;
    link->AnswerBy = Never;
    link->Closing = true;
    link->CloseBy = MonotonicNs() + CloseWaitNs;
    call.Remote = nullptr;
}

void Exchange::LinkLost(Link& link, uint64_t now) {
    if (link.RefusedByAlert && key_) {
        // In TLS 1.3 the caller's handshake is through before the far tool
        // has checked it: its refusal comes as an alert after.
        LogLine("refused by " + link.Peer + ": the far tool does not take line ID " +
                LineIdOf(key_.get())->Text());
    }
    Call* call = link.InCall;
    CloseLink(link);
    link.InCall = nullptr;
    if (call == nullptr || call->Ended) {
        return;
    }
    call->Remote = nullptr;
    switch (call->Phase) {
        case CallPhase::Routing:
            break;
        case CallPhase::Ringing:
            if (call->Caller != nullptr && call->Rings == 0) {
                // Nobody answered at the far address: an unreachable number.
                TraceLine(call->Caller->Who, "cannot reach " + link.Peer);
                FailAway(*call, "NO CARRIER", now);
            } else {
                TraceLine(call->Local()->Who, "connection to " + link.Peer + " lost");
                Abandon(*call, "NO CARRIER");
            }
            break;
        case CallPhase::Connected:
            TraceLine(call->Local()->Who, "connection to " + link.Peer + " lost");
            EndCall(*call, EndReason::LinkLost, nullptr);
            break;
    }
}

void Exchange::ServiceLinks(uint64_t now) {
    LogMoreRefusals(now);
    for (auto& owned : links_) {
        Link& link = *owned;
        if (link.Gone) {
            continue;
        }
        // A dial away still reaching the far tool: its name, its connection
        // or, over TLS, its handshake. The far tool's first word ends it.
        if (link.Lookup != 0 || link.Connecting || (link.Handshaking && link.FarId)) {
            if (link.InCall == nullptr) {
                CloseLink(link);  // its dial was given up before a word was said
            } else if (now >= link.AnswerBy) {
                NoAnswer(link, now);
            }
            continue;
        }
        HandleMessages(link, now);
        if (link.Gone) {
            continue;
        }
        if (now >= link.AnswerBy) {
            NoAnswer(link, now);
            continue;
        }
        if (link.AwaitingSetup() && now >= link.SetupBy) {
            TraceLine("-", "connection from " + link.Peer + " closed: no call set up within " +
                               std::to_string(SetupWaitNs / NsPerMs / 1000) + " s");
            CloseLink(link);
            continue;
        }
        if (link.Unsorted || link.Handshaking) {
            // Nothing has been said over it yet that is worth ending well; a
            // dial given up mid-handshake was closed above.
            continue;
        }
        if (link.PeerClosed) {
            // Everything that came before the end has been handled, or waits
            // for the port; the end itself counts once nothing whole is left.
            LinkMessage type{};
            std::string_view payload;
            if (link.InCall == nullptr) {
                CloseLink(link);
            } else if (!link.Peek(type, payload)) {
                LinkLost(link, now);
            }
            continue;
        }
        if (!WriteLink(link)) {
            link.PeerClosed = true;
            continue;
        }
        if (link.Closing && link.PendingOut() == 0 && !link.ShutDown) {
            EndWrites(link);
            link.ShutDown = true;
        }
        if (link.Closing && now >= link.CloseBy) {
            CloseLink(link);
        }
    }
    SweepLinks();
}

void Exchange::CollectLinks(std::vector<pollfd>& entries, uint64_t now) {
    polledLinks_.clear();
    entries.push_back(pollfd{resolver_.Descriptor(), POLLIN, 0});
    listenerPolled_ = listener_ >= 0 && now >= listenerRestsUntil_;
    if (listenerPolled_) {
        entries.push_back(pollfd{listener_, POLLIN, 0});
    }
    for (auto& owned : links_) {
        Link& link = *owned;
        // A link whose peer has closed is not watched: its descriptor would
        // report the end on every poll.
        if (link.Gone || link.PeerClosed) {
            continue;
        }
        pollfd entry{link.Fd, 0, 0};
        if (link.Connecting) {
            entry.events = POLLOUT;
        } else if (link.Unsorted) {
            entry.events = POLLIN;
        } else if (link.Handshaking) {
            entry.events = link.Tls->WantsWrite ? POLLOUT : POLLIN;
        } else {
            if (link.Closing || link.PendingIn() < LinkBacklog + 3) {
                entry.events |= POLLIN;
            }
            if (link.PendingOut() > 0) {
                entry.events |= POLLOUT;
            }
        }
        entries.push_back(entry);
        polledLinks_.push_back(&link);
    }
}

void Exchange::HandleLinks(const pollfd* entries, uint64_t now) {
    const bool answered = (entries++)->revents != 0;
    bool calling = false;
    if (listenerPolled_) {
        calling = (entries->revents & POLLIN) != 0;
        ++entries;
    }
    // The links first: a connection that has spoken is heard before any
    // connection is let go to make room for a new one.
    for (Link* link : polledLinks_) {
        const short events = (entries++)->revents;
        if (events == 0 || link->Gone) {
            continue;
        }
        if (link->Connecting) {
            if (Connected(link->Fd)) {
                link->Connecting = false;
                if (link->FarId) {
                    StartTls(*link, false, now);
                }
            } else if (ConnectNext(*link)) {
                link->AnswerBy = now + ReachWaitNs;
            } else {
                LinkLost(*link, now);
            }
            continue;
        }
        if (link->Unsorted) {
            SortLink(*link, now);
            continue;
        }
        if (link->Handshaking) {
            Handshake(*link, now);
            continue;
        }
        if ((events & POLLOUT) != 0 && !WriteLink(*link)) {
            link->PeerClosed = true;
        }
        if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !link->PeerClosed && !ReadLink(*link)) {
            link->PeerClosed = true;
        }
    }
    if (answered) {
        TakeLookups(now);
    }
    if (calling) {
        AcceptCalls(now);
    }
}

// Takes the connections waiting on the listening socket, at most as many in
// one pass as may await their setup, so that a flood of them never holds
// the adapters' ports back for long.
void Exchange::AcceptCalls(uint64_t now) {
    size_t kept = 0;
    bool atRoom = false;
    for (size_t taken = 0; taken < AwaitingSetupMax; ++taken) {
        // Room is made only by connections of earlier turns. When all that
        // could go came in this one, the rest of a crowd that came at once
        // wait in the system's queue for the next turn, rather than being
        // turned away with a caller among them.
        if (kept > 0 && (atRoom || LinksAwaitingSetup() >= AwaitingSetupMax) &&
            LinkToLetGo(now) == nullptr) {
            return;
        }
        std::string peer;
        int error = 0;
        const int fd = AcceptOn(listener_, peer, error);
        if (fd < 0) {
            if (error == ECONNABORTED || error == EINTR) {
                continue;
            }
            if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
                if (DropLinkAwaitingSetup(now)) {
                    continue;
                }
                TraceLine("-", "out of descriptors: not listening for " +
                                   std::to_string(ListenerRestNs / NsPerMs) + " ms");
                listenerRestsUntil_ = now + ListenerRestNs;
            }
            return;
        }
        const bool crowded = fd >= descriptorRoom_ || LinksAwaitingSetup() >= AwaitingSetupMax;
        if (crowded && !DropLinkAwaitingSetup(now)) {
            TraceLine("-",
                      "connection from " + peer + " refused: too many connections without a call");
            ::close(fd);
            continue;
        }
        auto link = std::make_unique<Link>();
        link->Fd = fd;
        link->Peer = peer;
        link->AcceptedAt = now;
        link->SetupBy = now + SetupWaitNs;
        link->Unsorted = true;
        links_.push_back(std::move(link));
        ++kept;
        atRoom = fd + 1 >= descriptorRoom_;
    }
}

void Exchange::SortLink(Link& link, uint64_t now) {
    char first = 0;
    const ssize_t n = ::recv(link.Fd, &first, 1, MSG_PEEK);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return;
    }
    if (n <= 0) {
        CloseLink(link);
        return;
    }
    link.Unsorted = false;
    link.Heard = true;
    if (first == TlsHandshakeRecord) {
        if (!tls_) {
            LogRefusal(link.Peer, "refused " + link.Peer + ": a call in TLS, but no --peer is set",
                       now);
            CloseLink(link);
            return;
        }
        StartTls(link, true, now);
        return;
    }
    if (!options_.Insecure && !PeerIsLoopback(link.Fd)) {
        TraceLine("-", "refused " + link.Peer + ": plain TCP is taken from loopback only");
        CloseLink(link);
        return;
    }
    if (options_.Insecure) {
        LogLine("call from " + link.Peer +
                " in plain TCP (--insecure): neither side is checked, anyone on the way reads it");
    }
    if (!ReadLink(link)) {
        link.PeerClosed = true;
    }
}

void Exchange::StartTls(Link& link, bool listening, uint64_t now) {
    link.Tls =
        tls_->Start(link.Fd, listening, listening ? peers_ : std::vector<LineId>{*link.FarId});
    if (!link.Tls) {
        LogLine("cannot start TLS with " + link.Peer);
        if (listening) {
            CloseLink(link);
        } else {
            LinkLost(link, now);
        }
        return;
    }
    link.Handshaking = true;
    Handshake(link, now);
}

// Nothing reaches an adapter before this is through: the link's messages
// are read only once the peer's line ID has been accepted.
void Exchange::Handshake(Link& link, uint64_t now) {
    std::string error;
    switch (ContinueHandshake(*link.Tls, error)) {
        case HandshakeStep::Waiting:
            return;
        case HandshakeStep::Done:
            link.Handshaking = false;
            TraceLine("-", "TLS with " + link.Peer + ", line ID " + link.Tls->Offered->Text());
            return;
        case HandshakeStep::Failed:
            break;
    }
    const bool calling = link.FarId.has_value();
    const std::optional<LineId>& offered = link.Tls->Offered;
    std::string why = "TLS handshake failed: " + error;
    const bool stranger = offered && !link.Tls->OfferedAccepted();
    if (stranger) {
        why = "line ID " + offered->Text() +
              (calling ? " is not the route's " + link.FarId->Text() : " is not a peer");
    }
    if (calling) {
        LogLine("refused by " + link.Peer + ": " + why);
        LinkLost(link, now);
        return;
    }
    // A connection that failed without showing an ID (garbage, a cut, no
    // certificate) is what a scanner leaves: the trace alone tells of it.
    if (stranger) {
        LogRefusal(link.Peer, "refused " + link.Peer + ": " + why, now);
    } else {
        TraceLine("-", "refused " + link.Peer + ": " + why);
    }
    CloseLink(link);
}

void Exchange::LogRefusal(const std::string& peer, const std::string& text, uint64_t now) {
    // The refusals of so many addresses at once are a scan, not callers.
    constexpr size_t AddressesMax = 1024;
    const std::string address(HostOf(peer));
    const auto known = refusals_.find(address);
    if (known == refusals_.end() && refusals_.size() >= AddressesMax) {
        TraceLine("-", text);
        return;
    }
    RefusalsFrom& from = refusals_[address];
    if (now < from.QuietUntil) {
        ++from.NotLogged;
        TraceLine("-", text);
        return;
    }
    from.QuietUntil = now + RefusalsQuietNs;
    LogLine(text);
}

void Exchange::LogMoreRefusals(uint64_t now) {
    for (auto at = refusals_.begin(); at != refusals_.end();) {
        if (now < at->second.QuietUntil) {
            ++at;
            continue;
        }
        if (at->second.NotLogged > 0) {
            LogLine(std::to_string(at->second.NotLogged) + " more refused from " + at->first);
        }
        at = refusals_.erase(at);
    }
}

size_t Exchange::LinksAwaitingSetup() const {
    return static_cast<size_t>(std::count_if(
        links_.begin(), links_.end(), [](const auto& link) { return link->AwaitingSetup(); }));
}

// The connection to let go to make room for a newer one: the one that has
// awaited its setup longest without a word; failing that, the one that has
// awaited it longest. A connection taken in this pass has not been listened
// to yet, and is not let go. One that has spoken may be a caller whose setup
// is still on its way, so the silent go first; but a crowd of connections
// that each sent the start of a setup and stopped must not keep every real
// caller out until their time is up, and a real caller's setup follows its
// connection at once.
//
// Among those alike, the address that holds the most goes first: a crowd
// from one address then makes room out of its own, never by letting a caller
// from elsewhere go half-way through its TLS handshake.
Link* Exchange::LinkToLetGo(uint64_t now) {
    std::map<std::string_view, int> waitingFrom;
    for (const auto& owned : links_) {
        if (owned->AwaitingSetup()) {
            ++waitingFrom[HostOf(owned->Peer)];
        }
    }
    Link* chosen = nullptr;
    const auto rank = [&](const Link& link) {
        return std::make_tuple(link.Heard, -waitingFrom[HostOf(link.Peer)], link.AcceptedAt);
    };
    for (auto& owned : links_) {
        Link& link = *owned;
        if (link.AwaitingSetup() && link.AcceptedAt < now &&
            (chosen == nullptr || rank(link) < rank(*chosen))) {
            chosen = &link;
        }
    }
    return chosen;
}

bool Exchange::DropLinkAwaitingSetup(uint64_t now) {
    Link* oldest = LinkToLetGo(now);
    if (oldest == nullptr) {
        return false;
    }
    TraceLine("-",
              "connection from " + oldest->Peer + " closed: too many connections without a call");
    CloseLink(*oldest);
    return true;
}

void Exchange::SweepLinks() {
    const size_t before = links_.size();
    links_.remove_if([](const std::unique_ptr<Link>& link) { return link->Gone; });
    // Once a crowd of connections from away is gone, what their TLS buffers
    // took goes back to the system: the allocator would keep it for good, and
    // a tool that runs for months would stay at the size of its worst flood.
    if (links_.size() < before && LinksAwaitingSetup() == 0) {
        ::malloc_trim(0);
    }
}

}  // namespace kb::virtual_ta
