// The exchange: every adapter and the calls between them. It reads what the
// programs write to their ports, runs their command lines, routes dials,
// rings, connects, carries the data of connected calls at the line's pace,
// and ends calls. Everything runs on the event loop's one thread.
#pragma once

#include <poll.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "virtual-ta/data_path.h"
#include "virtual-ta/options.h"
#include "virtual-ta/port.h"

enum class CallPhase {
    Routing,    // the exchange is about to answer the caller with a failure
    Ringing,    // the called adapter rings
    Connected,  // both in a call
};

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

    DataPath& From(const Adapter& end) { return &end == Caller ? *Up : *Down; }
    DataPath& To(const Adapter& end) { return &end == Caller ? *Down : *Up; }
    Adapter& Other(const Adapter& end) { return &end == Caller ? *Answerer : *Caller; }
};

class Exchange {
public:
    explicit Exchange(Options options);
    ~Exchange();
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    // Makes every pseudo-terminal and link. False with a reason.
    bool Open(std::string& error);
    // Removes the links and closes the pseudo-terminals.
    void Close();

    // The event loop's side: run what is due, say what to wait for, and take
    // what the ports report. CollectPoll appends one entry per adapter, in
    // order, and HandlePoll is given those entries back.
    void Service(uint64_t now);
    uint64_t NextDeadline(uint64_t now);
    void CollectPoll(std::vector<pollfd>& entries, uint64_t now);
    void HandlePoll(const pollfd* entries, uint64_t now);

private:
    enum class EndReason { HangUp, DtrDrop, LineFell };

    // Reading the ports.
    void ReadCommandPort(Adapter& adapter, uint64_t now);
    void CommandBytes(Adapter& adapter, const char* bytes, size_t count, uint32_t speed,
                      uint64_t now);
    void EditLine(Adapter& adapter, char c, uint64_t now);
    void RunLine(Adapter& adapter, uint64_t now);
    // Takes one run of data from the port onto the line: its length.
    size_t ReadData(Adapter& adapter, uint64_t now);
    bool WantsRead(const Adapter& adapter) const;

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
    void EnterOnlineCommand(Call& call, Adapter& end);
    // DTR during a call: the port's speed looked at now and then, and the
    // program's closing the port.
    void WatchDtr(Adapter& adapter, uint64_t now);
    void PortClosed(Adapter& adapter, uint64_t now);
    void DtrDropped(Adapter& adapter, bool portClosed, uint64_t now);
    void Leave(Adapter& adapter);
    void Sweep();

    Options options_;
    std::vector<std::unique_ptr<Adapter>> adapters_;
    std::list<std::unique_ptr<Call>> calls_;
};
