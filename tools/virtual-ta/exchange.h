// The exchange: every adapter and the calls between them. It reads what the
// programs write to their ports, runs their command lines, routes dials,
// rings, connects, carries the data of connected calls at the line's pace,
// and ends calls. Everything runs on the event loop's one thread.
#pragma once

#include <poll.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "virtual-ta/data_path.h"
#include "virtual-ta/family.h"
#include "virtual-ta/identity.h"
#include "virtual-ta/link.h"
#include "virtual-ta/options.h"
#include "virtual-ta/port.h"
#include "virtual-ta/resolver.h"
#include "virtual-ta/tls.h"

namespace kb::virtual_ta {

constexpr uint64_t RoutingDelayNs = 500 * NsPerMs;  // until a failed dial is reported
constexpr uint64_t RingIntervalNs = 2000 * NsPerMs;

// The number behind a carrier code in front of it (10288, 10222 or 10333);
// "" when there is none.
std::string BehindCarrierCode(const std::string& number);

enum class CallPhase {
    Routing,    // the exchange is about to answer the caller with a failure
    Ringing,    // the called adapter rings
    Connected,  // both in a call
};

// A call between two adapters of this exchange, or between one of them and
// an adapter of another virtual-ta, reached through a link. Then the far end
// is null here, and the link stands in for it.
struct Call {
    Adapter* Caller = nullptr;
    Adapter* Answerer = nullptr;  // null while Routing
    CallPhase Phase = CallPhase::Routing;
    const char* Failure = "NO CARRIER";  // what a Routing caller will hear
    uint64_t ResultAt = Never;
    uint64_t NextRingAt = Never;
    uint64_t GiveUpAt = Never;
    int Rings = 0;
    bool SecondChannelReachable = true;
    int Channels = 1;
    uint64_t BytesPerSecond = 0;     // each way; 0 unthrottled
    std::unique_ptr<DataPath> Up;    // caller to answerer
    std::unique_ptr<DataPath> Down;  // answerer to caller
    bool Ended = false;

    // A call with an adapter of another virtual-ta.
    Link* Remote = nullptr;  // null once the link has gone
    bool Away = false;       // the far end is there, not here
    std::string FarWho;      // the far adapter's number
    LineSetup FarSetup;      // the calling end's set-up, as its setup message told
    std::string FarDescription;
    uint64_t FarRate = 0;  // the calling process's --rate
    uint64_t DialledAt = 0;

    [[nodiscard]] Adapter* Local() const { return Caller != nullptr ? Caller : Answerer; }
    [[nodiscard]] const std::string& CallerWho() const {
        return Caller != nullptr ? Caller->Who : FarWho;
    }
    [[nodiscard]] const std::string& AnswererWho() const {
        return Answerer != nullptr ? Answerer->Who : FarWho;
    }
    DataPath& From(const Adapter& end) { return &end == Caller ? *Up : *Down; }
    DataPath& To(const Adapter& end) { return &end == Caller ? *Down : *Up; }
    Adapter& Other(const Adapter& end) { return &end == Caller ? *Answerer : *Caller; }
};

class Exchange {
public:
    // The exchange looks the hosts of routes up with the resolver.
    Exchange(Options options, Resolver& resolver);
    ~Exchange();
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    // Makes every pseudo-terminal and link. False with a reason.
    [[nodiscard]] bool Open(std::string& error);
    // After Open failed: true if it was for the identity key (unreadable,
    // read by others, no key, or not to be made).
    [[nodiscard]] bool KeyRefused() const { return keyRefused_; }
    // Removes the links and closes the pseudo-terminals.
    void Close();

    // The event loop's side: run what is due, say what to wait for, and take
    // what the ports report. CollectPoll appends one entry per adapter, in
    // order, then one for the port watch and those of the links; HandlePoll
    // is given those entries back.
    void Service(uint64_t now);
    uint64_t NextDeadline(uint64_t now);
    void CollectPoll(std::vector<pollfd>& entries, uint64_t now);
    void HandlePoll(const pollfd* entries, uint64_t now);

    // Where --listen took calls: "HOST:PORT" with the port it got; "" when
    // the exchange does not listen.
    [[nodiscard]] const std::string& ListeningAt() const { return listeningAt_; }

private:
    enum class EndReason { HangUp, DtrDrop, LineFell, LinkLost };

    // Reading the ports.
    void ReadCommandPort(Adapter& adapter, uint64_t now);
    void CommandBytes(Adapter& adapter, const char* bytes, size_t count, uint32_t speed,
                      uint64_t now);
    void EditLine(Adapter& adapter, char c, uint64_t now);
    void RunLine(Adapter& adapter, uint64_t now);
    // Takes one run of data from the port onto the line: its length.
    size_t ReadData(Adapter& adapter, uint64_t now);
    [[nodiscard]] bool WantsRead(const Adapter& adapter) const;

    // Writing the ports.
    void Echo(Adapter& adapter, char c);
    void Say(Adapter& adapter, const std::string& text);
    void Result(Adapter& adapter, const std::string& code);
    void Flush(Adapter& adapter);
    bool HasOutput(Adapter& adapter) const;

    // Calls.
    Adapter* Route(const std::string& number);
    void Dial(Adapter& caller, const std::string& dialString, uint64_t now);
    void Ring(Call& call, uint64_t now);
    void Answer(Adapter& adapter, uint64_t now);
    void Connect(Call& call, uint64_t now);
    void ArmFaults(Adapter& sender, DataPath& path);
    void Online(Adapter& adapter, uint64_t now);
    void HangUp(Adapter& adapter);
    void Abandon(Call& call, const char* callerHears);
    void EndCall(Call& call, EndReason reason, Adapter* by);
    void Pump(Call& call, uint64_t now);
    void CheckEscape(Call& call, Adapter& end, uint64_t now);
    // The program purged its port's output during a call.
    void PortPurged(Adapter& adapter, uint64_t now);
    void EnterOnlineCommand(Call& call, Adapter& end);
    // The programs opening and closing the ports, as the port watch notes
    // them; PortLeft when the last one has closed a port.
    void TakePortWatch(uint64_t now);
    void PortLeft(Adapter& adapter);
    // DTR during a call: the port's speed looked at now and then, and the
    // port closed by its last program.
    void WatchDtr(Adapter& adapter, uint64_t now);
    void DtrDropped(Adapter& adapter, bool portClosed, uint64_t now);
    void Leave(Adapter& adapter);
    void Sweep();
    void StartData(Call& call, const std::string& callerSetup, const std::string& answererSetup,
                   uint64_t now);

    // Calls with other virtual-ta processes (exchange_links.cpp).
    [[nodiscard]] bool OpenTls(std::string& error);
    [[nodiscard]] bool OpenListener(std::string& error);
    [[nodiscard]] const RouteSetting* FindRoute(const std::string& number) const;
    void DialAway(Call& call, const RouteSetting& route, const std::string& second, uint64_t now);
    void Reach(Link& link, const std::vector<sockaddr_storage>& addresses, uint64_t now);
    void TakeLookups(uint64_t now);
    void NoAnswer(Link& link, uint64_t now);
    void CallFromAway(Link& link, std::string_view setup, uint64_t now);
    void ConnectedAway(Call& call, std::string_view message, uint64_t now);
    void FailAway(Call& call, const char* result, uint64_t now);
    void HandleMessages(Link& link, uint64_t now);
    [[nodiscard]] bool TakeData(Call& call, Link& link, std::string_view payload, uint64_t now);
    void Forward(Call& call, bool everything);
    void Detach(Call& call, bool release);
    void LinkLost(Link& link, uint64_t now);
    void ServiceLinks(uint64_t now);
    void CollectLinks(std::vector<pollfd>& entries, uint64_t now);
    void HandleLinks(const pollfd* entries, uint64_t now);
    void AcceptCalls(uint64_t now);
    // A connection taken: TLS or plain by its first byte, refused if plain
    // from away without --insecure.
    void SortLink(Link& link, uint64_t now);
    void StartTls(Link& link, bool listening, uint64_t now);
    void Handshake(Link& link, uint64_t now);
    // A refusal of a caller that showed itself (offered a line ID, or TLS
    // to a tool that takes none) goes to the log, but from one address at
    // most once a minute; the others are counted, and told of after it.
    void LogRefusal(const std::string& peer, const std::string& text, uint64_t now);
    void LogMoreRefusals(uint64_t now);
    [[nodiscard]] size_t LinksAwaitingSetup() const;
    [[nodiscard]] Link* LinkToLetGo(uint64_t now);
    [[nodiscard]] bool DropLinkAwaitingSetup(uint64_t now);
    void SweepLinks();

    Options options_;
    Resolver& resolver_;
    std::vector<std::unique_ptr<Adapter>> adapters_;
    std::list<std::unique_ptr<Call>> calls_;
    int portWatch_ = -1;  // notes the opens and closes of every adapter's port
    int listener_ = -1;
    std::string listeningAt_;
    // Connections from away take descriptors up to this number; the rest are
    // kept for the adapters' own needs (ports, dials, the calls they take).
    int descriptorRoom_ = 0;
    bool listenerPolled_ = false;
    uint64_t listenerRestsUntil_ = 0;  // out of descriptors: not listened to until then
    std::list<std::unique_ptr<Link>> links_;
    std::vector<Link*> polledLinks_;
    // TLS, when any line ID is given: the tool's key, and the IDs that may
    // call in (its peers and its routes' far tools).
    Key key_;
    bool keyRefused_ = false;
    std::unique_ptr<TlsContext> tls_;
    std::vector<LineId> peers_;  // in the order CollectPoll gave them
    // By address: when its next refusal may be logged, and how many were
    // not logged since the last one.
    struct RefusalsFrom {
        uint64_t QuietUntil = 0;
        size_t NotLogged = 0;
    };
    std::map<std::string, RefusalsFrom> refusals_;
};

}  // namespace kb::virtual_ta
