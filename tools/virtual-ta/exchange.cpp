#include "virtual-ta/exchange.h"

#include <unistd.h>

#include <algorithm>
#include <set>

#include "virtual-ta/trace.h"

namespace kb::virtual_ta {

using namespace kb::platform;

namespace {

// How often DTR is looked at during a call: a pseudo-terminal tells nobody
// when its settings change.
constexpr uint64_t DtrLookNs = 50 * NsPerMs;

// Carrier codes that may stand in front of a number.
const char* const CarrierCodes[] = {"10288", "10222", "10333"};

// For the trace line of a call's end: the bytes that noise garbled, if any.
std::string Garbled(const Call& call) {
    const uint64_t garbled = call.Up->Garbled() + call.Down->Garbled();
    return garbled == 0 ? std::string() : ", " + std::to_string(garbled) + " garbled by noise";
}

}  // namespace

std::string BehindCarrierCode(const std::string& number) {
    for (const char* code : CarrierCodes) {
        const std::string prefix = code;
        if (number.size() > prefix.size() && number.compare(0, prefix.size(), prefix) == 0) {
            return number.substr(prefix.size());
        }
    }
    return {};
}

Exchange::Exchange(Options options, Resolver& resolver)
    : options_(std::move(options)), resolver_(resolver) {}

Exchange::~Exchange() {
    Close();
}

bool Exchange::Open(std::string& error) {
    if (!resolver_.IsOpen()) {
        error = "cannot make the descriptor of host name lookups";
        return false;
    }
    portWatch_ = OpenPortWatch();
    if (portWatch_ < 0) {
        error = "cannot watch the ports";
        return false;
    }
    for (const AdapterSetting& given : options_.Adapters) {
        auto adapter = std::make_unique<Adapter>();
        adapter->Given = given;
        adapter->Who = given.Number;
        DefaultSettings(given.Model->Kind, adapter->Registers);
        if (!OpenPseudoTerminal(adapter->Pty)) {
            error = "cannot make a pseudo-terminal for '" + given.Path + "'";
            return false;
        }
        if (!HearPurges(adapter->Pty.Master)) {
            error = "cannot watch the pseudo-terminal for '" + given.Path + "'";
            ClosePseudoTerminal(adapter->Pty);
            return false;
        }
        // Watched from after the tool's own opening, which is not counted.
        if (!WatchPort(portWatch_, *adapter)) {
            ClosePseudoTerminal(adapter->Pty);
            error = "cannot watch the port '" + given.Path + "'";
            return false;
        }
        if (!MakeLink(given.Path, adapter->Pty.SlavePath, error)) {
            ClosePseudoTerminal(adapter->Pty);
            return false;
        }
        TraceLine(adapter->Who, given.Model->Product + std::string(" at ") + given.Path + " -> " +
                                    adapter->Pty.SlavePath);
        adapters_.push_back(std::move(adapter));
    }
    if (!OpenTls(error)) {
        // Its one failure before the key is there is the key's.
        keyRefused_ = !key_;
        return false;
    }
    return OpenListener(error);
}

void Exchange::Close() {
    for (auto& adapter : adapters_) {
        RemoveLink(adapter->Given.Path, adapter->Pty.SlavePath);
        ClosePseudoTerminal(adapter->Pty);
    }
    adapters_.clear();
    calls_.clear();
    if (portWatch_ >= 0) {
        ::close(portWatch_);
        portWatch_ = -1;
    }
    for (auto& link : links_) {
        CloseLink(*link);
    }
    links_.clear();
    if (listener_ >= 0) {
        ::close(listener_);
        listener_ = -1;
    }
}

// ---------------------------------------------------------------------------
// The event loop's side

void Exchange::Service(uint64_t now) {
    ServiceLinks(now);
    for (auto& owned : calls_) {
        Call& call = *owned;
        if (call.Ended) {
            continue;
        }
        switch (call.Phase) {
            case CallPhase::Routing:
                if (now >= call.ResultAt) {
                    TraceLine(call.Caller->Who, std::string("dial fails: ") + call.Failure);
                    Abandon(call, call.Failure);
                }
                break;
            case CallPhase::Ringing:
                if (now >= call.GiveUpAt) {
                    TraceLine(call.Caller->Who, "no answer");
                    Abandon(call, "NO CARRIER");
                } else if (now >= call.NextRingAt) {
                    call.NextRingAt += RingIntervalNs;
                    Ring(call, now);
                }
                break;
            case CallPhase::Connected:
                for (Adapter* end : {call.Caller, call.Answerer}) {
                    if (end != nullptr && !call.Ended) {
                        CheckEscape(call, *end, now);
                    }
                }
                if (!call.Ended) {
                    Pump(call, now);
                }
                break;
        }
    }
    Sweep();
    for (auto& adapter : adapters_) {
        Adapter& a = *adapter;
        if (now >= a.NextDtrLookAt) {
            a.NextDtrLookAt = now + DtrLookNs;
            WatchDtr(a, now);
        }
        // Bytes that came behind a command line and belong to its new mode.
        if (!a.Pushback.empty()) {
            if (a.Mode == AdapterMode::Data) {
                ReadData(a, now);
            } else {
                std::string bytes;
                bytes.swap(a.Pushback);
                if (a.Mode == AdapterMode::Dialling) {
                    Abandon(*a.InCall, "NO CARRIER");
                } else {
                    CommandBytes(a, bytes.data(), bytes.size(), a.PortSpeed, now);
                }
            }
        }
        // A port that was not watched while the line was full: look at once
        // whether anything came meanwhile.
        if (a.Mode == AdapterMode::Data && a.Blind && WantsRead(a)) {
            ReadData(a, now);
        }
        Flush(a);
    }
    Sweep();
    ServiceLinks(now);
}

uint64_t Exchange::NextDeadline(uint64_t now) {
    uint64_t next = Never;
    for (auto& adapter : adapters_) {
        if (!adapter->Pushback.empty() &&
            (adapter->Mode != AdapterMode::Data || WantsRead(*adapter))) {
            return now;
        }
        next = std::min(next, adapter->NextDtrLookAt);
    }
    for (auto& owned : calls_) {
        Call& call = *owned;
        if (call.Ended) {
            continue;
        }
        next = std::min({next, call.ResultAt, call.NextRingAt, call.GiveUpAt});
        if (call.Phase == CallPhase::Connected) {
            next = std::min({next, call.Up->NextReleaseAt(now), call.Down->NextReleaseAt(now)});
            for (const Adapter* end : {call.Caller, call.Answerer}) {
                if (end != nullptr) {
                    next = std::min(next, end->EscapeDeadline);
                }
            }
        }
    }
    for (const auto& link : links_) {
        next = std::min({next, link->CloseBy, link->AnswerBy});
        if (link->AwaitingSetup()) {
            next = std::min(next, link->SetupBy);
        }
    }
    if (listener_ >= 0 && listenerRestsUntil_ > now) {
        next = std::min(next, listenerRestsUntil_);
    }
    return next;
}

void Exchange::CollectPoll(std::vector<pollfd>& entries, uint64_t now) {
    for (auto& adapter : adapters_) {
        Adapter& a = *adapter;
        pollfd entry{a.Pty.Master, 0, 0};
        if (WantsRead(a)) {
            entry.events |= POLLIN;
        } else if (a.Mode == AdapterMode::Data && !a.Blind) {
            a.Blind = true;
            a.BlindSince = now;
        }
        if (a.Mode == AdapterMode::Data) {
            entry.events |= POLLPRI;  // a purge is heard also while the line is full
        }
        if (HasOutput(a)) {
            entry.events |= POLLOUT;
        }
        entries.push_back(entry);
    }
    entries.push_back(pollfd{portWatch_, POLLIN, 0});
    CollectLinks(entries, now);
}

void Exchange::HandlePoll(const pollfd* entries, uint64_t now) {
    // The watch first: a program's opening is then counted before what it
    // writes is read, and what it wrote before it closed the port is still
    // read, as the port's closing during a call takes it first.
    if ((entries[adapters_.size()].revents & POLLIN) != 0) {
        TakePortWatch(now);
        Sweep();
    }
    for (size_t i = 0; i < adapters_.size(); ++i) {
        Adapter& a = *adapters_[i];
        const short events = entries[i].revents;
        if ((events & POLLOUT) != 0) {
            Flush(a);
        }
        if ((events & POLLPRI) != 0 && a.Mode == AdapterMode::Data) {
            bool purged = false;
            ReadPort(a.Pty.Master, nullptr, 0, &purged);
            if (purged) {
                PortPurged(a, now);
            }
        }
        if ((events & (POLLIN | POLLERR | POLLHUP)) != 0 && WantsRead(a)) {
            if (a.Mode == AdapterMode::Data) {
                // Take a few runs while they come, so that a fast stream
                // costs fewer trips through the loop.
                for (int run = 0;
                     run < 8 && a.Mode == AdapterMode::Data && WantsRead(a) && ReadData(a, now) > 0;
                     ++run) {
                }
            } else {
                ReadCommandPort(a, now);
            }
        }
        Sweep();
    }
    HandleLinks(entries + adapters_.size() + 1, now);
}

bool Exchange::WantsRead(const Adapter& adapter) const {
    if (adapter.Mode != AdapterMode::Data) {
        return true;
    }
    const DataPath& path = adapter.InCall->From(adapter);
    return path.Free() > 0 || (adapter.KnownEmpty && path.HasHeadroom());
}

bool Exchange::HasOutput(Adapter& adapter) const {
    if (adapter.PendingOut() > 0) {
        return true;
    }
    return adapter.Mode == AdapterMode::Data && adapter.InCall->To(adapter).ReadyCount() > 0;
}

// ---------------------------------------------------------------------------
// Calls

Adapter* Exchange::Route(const std::string& number) {
    const auto find = [&](const std::string& wanted) -> Adapter* {
        for (auto& adapter : adapters_) {
            if (adapter->Given.Number == wanted) {
                return adapter.get();
            }
        }
        return nullptr;
    };
    if (Adapter* exact = find(number)) {
        return exact;
    }
    const std::string behind = BehindCarrierCode(number);
    return behind.empty() ? nullptr : find(behind);
}

void Exchange::Dial(Adapter& caller, const std::string& dialString, uint64_t now) {
    if (caller.InCall != nullptr) {
        // Dialling out while a call rings here: the incoming call is refused.
        TraceLine(caller.Who, "refuses the ringing call to dial out");
        Abandon(*caller.InCall, "NO CARRIER");
    }
    std::string digits;
    for (const char c : dialString) {
        if ((c >= '0' && c <= '9') || c == '+' || c == '&') {
            digits += c;
        }
    }
    size_t separator = digits.find('+');
    if (separator == std::string::npos) {
        separator = digits.find('&');
    }
    const std::string first = digits.substr(0, separator);
    std::string second;
    if (separator != std::string::npos) {
        second = digits.substr(separator + 1);
        second.erase(std::remove_if(second.begin(), second.end(),
                                    [](char c) { return c == '+' || c == '&'; }),
                     second.end());
    }
    TraceLine(caller.Who,
              "dials " + first +
                  (separator == std::string::npos ? std::string()
                                                  : " and " + second + " for the second channel"));

    auto owned = std::make_unique<Call>();
    Call& call = *owned;
    calls_.push_back(std::move(owned));
    call.Caller = &caller;
    caller.InCall = &call;
    caller.Mode = AdapterMode::Dialling;
    caller.InLine = false;

    Adapter* target = Route(first);
    const RouteSetting* away = target == nullptr ? FindRoute(first) : nullptr;
    call.DialledAt = now;
    if (caller.Given.NoDialTone) {
        call.Failure = "NO DIAL TONE";
    } else if (away != nullptr) {
        call.FarWho = first;
        DialAway(call, *away, second, now);
        return;
    } else if (target == nullptr || target->Given.NoDialTone) {
        call.Failure = "NO CARRIER";
    } else if (target == &caller || target->Mode != AdapterMode::Command ||
               target->InCall != nullptr) {
        call.Failure = "BUSY";
    } else {
        call.Phase = CallPhase::Ringing;
        call.Answerer = target;
        target->InCall = &call;
        call.SecondChannelReachable = second.empty() || Route(second) == target;
        call.NextRingAt = now + RingIntervalNs;
        call.GiveUpAt = now + static_cast<uint64_t>(options_.AnswerWaitMs) * NsPerMs;
        TraceLine(caller.Who, "rings " + target->Who);
        Ring(call, now);
        return;
    }
    call.ResultAt = now + RoutingDelayNs;
}

void Exchange::Ring(Call& call, uint64_t now) {
    ++call.Rings;
    Result(*call.Answerer, "RING");
    if (call.Caller != nullptr) {
        Result(*call.Caller, "RINGING");
    } else if (call.Remote != nullptr) {
        call.Remote->Queue(LinkMessage::Ringing, {});
    }
    const int autoAnswer = call.Answerer->Setting("S0");
    if (autoAnswer > 0 && call.Rings >= autoAnswer) {
        TraceLine(call.Answerer->Who,
                  "answers by itself after " + std::to_string(call.Rings) + " rings");
        Connect(call, now);
    }
}

void Exchange::Answer(Adapter& adapter, uint64_t now) {
    Call* call = adapter.InCall;
    if (call == nullptr || call->Phase != CallPhase::Ringing || call->Answerer != &adapter) {
        Result(adapter, "NO CARRIER");  // nothing rings
        return;
    }
    Connect(*call, now);
}

void Exchange::Connect(Call& call, uint64_t now) {
    // The answering adapter is always here; a caller from away told its
    // set-up and its rate when it dialled.
    Adapter& answerer = *call.Answerer;
    const LineSetup callerSetup =
        call.Caller != nullptr ? SetupOf(call.Caller->Given.Model->Kind, call.Caller->Registers)
                               : call.FarSetup;
    const LineSetup answererSetup = SetupOf(answerer.Given.Model->Kind, answerer.Registers);
    // Two channels only if both ends are set up for the same bundling, and the
    // second number, if one was dialled, reaches the same adapter.
    call.Channels = callerSetup.Bundle != Bundling::None &&
                            callerSetup.Bundle == answererSetup.Bundle &&
                            call.SecondChannelReachable
                        ? 2
                        : 1;
    // A 56K end uses seven bits of each octet: the channel carries 7/8.
    uint64_t perChannel = options_.Rate;
    if (call.Caller == nullptr && call.FarRate != 0 &&
        (perChannel == 0 || call.FarRate < perChannel)) {
        perChannel = call.FarRate;  // the slower of the two exchanges sets the pace
    }
    if (callerSetup.Is56k || answererSetup.Is56k) {
        perChannel = perChannel * 7 / 8;
    }
    call.BytesPerSecond = perChannel * static_cast<uint64_t>(call.Channels);
    if (call.Caller == nullptr) {
        if (call.Remote != nullptr) {
            call.Remote->Queue(LinkMessage::Connect, std::to_string(call.Channels) + " " +
                                                         std::to_string(call.BytesPerSecond) + " " +
                                                         Describe(answererSetup));
        }
        StartData(call, call.FarDescription, Describe(answererSetup), now);
        return;
    }
    StartData(call, Describe(callerSetup), Describe(answererSetup), now);
}

void Exchange::StartData(Call& call, const std::string& callerSetup,
                         const std::string& answererSetup, uint64_t now) {
    // The line holds about 50 ms of data each way, so that a sender is held
    // back close to the pace of the line; an unthrottled line holds enough
    // for large runs.
    const size_t capacity =
        call.BytesPerSecond == 0
            ? 65536
            : static_cast<size_t>(std::clamp<uint64_t>(call.BytesPerSecond / 20, 4096, 65536));
    // Each direction is paced once, by the exchange of the adapter that
    // sends: the bytes from an adapter away come already paced.
    call.Up =
        std::make_unique<DataPath>(capacity, call.Caller != nullptr ? call.BytesPerSecond : 0, now);
    call.Down = std::make_unique<DataPath>(capacity,
                                           call.Answerer != nullptr ? call.BytesPerSecond : 0, now);
    if (call.Caller != nullptr) {
        ArmFaults(*call.Caller, *call.Up);
    }
    if (call.Answerer != nullptr) {
        ArmFaults(*call.Answerer, *call.Down);
    }
    call.Phase = CallPhase::Connected;
    call.NextRingAt = Never;
    call.GiveUpAt = Never;
    for (Adapter* end : {call.Answerer, call.Caller}) {
        if (end == nullptr) {
            continue;
        }
        end->Mode = AdapterMode::Data;
        end->InLine = false;
        end->Misheard.clear();
        end->KnownEmpty = true;
        end->EmptySince = now;
        end->Blind = false;
        end->EscapeCount = 0;
        end->EscapeDeadline = Never;
        // A port that nobody has open is DTR down from the start: looked at
        // right away.
        end->DtrLow = DtrIsDown(*end);
        end->NextDtrLookAt = end->Openers == 0 ? now : now + DtrLookNs;
        Result(*end, "CONNECT " + std::to_string(end->TalkSpeed));
    }
    TraceLine(
        call.CallerWho(),
        "connected to " + call.AnswererWho() + ": " + callerSetup + " to " + answererSetup + ", " +
            std::to_string(call.Channels) + (call.Channels == 1 ? " channel, " : " channels, ") +
            (call.BytesPerSecond == 0 ? std::string("unthrottled")
                                      : std::to_string(call.BytesPerSecond) + " bytes/s each way"));
    Pump(call, now);
}

void Exchange::ArmFaults(Adapter& sender, DataPath& path) {
    // The adapter's faults still to act, in the order given, up to the first
    // drop (which ends the call). A fault at an offset that an earlier one in
    // this call already takes waits for a later call.
    std::set<uint64_t> offsets;
    for (FaultSetting& fault : options_.Faults) {
        if (fault.Acted || fault.Number != sender.Given.Number ||
            (fault.Kind != FaultKind::Noise && !offsets.insert(fault.Offset).second)) {
            continue;
        }
        path.Arm(&fault);
        if (fault.Kind == FaultKind::Drop) {
            break;
        }
    }
}

void Exchange::Online(Adapter& adapter, uint64_t now) {
    if (adapter.Mode != AdapterMode::OnlineCommand) {
        Result(adapter, "NO CARRIER");
        return;
    }
    adapter.Mode = AdapterMode::Data;
    adapter.KnownEmpty = true;
    adapter.EmptySince = now;
    adapter.Blind = false;
    Result(adapter, "CONNECT " + std::to_string(adapter.TalkSpeed));
    TraceLine(adapter.Who, "back in data mode");
}

void Exchange::HangUp(Adapter& adapter) {
    Call* call = adapter.InCall;
    if (call == nullptr) {
        return;
    }
    if (call->Phase == CallPhase::Connected) {
        EndCall(*call, EndReason::HangUp, &adapter);
    } else if (call->Answerer == &adapter) {
        TraceLine(adapter.Who, "refuses the ringing call");
        Abandon(*call, "NO CARRIER");
    }
}

void Exchange::TakePortWatch(uint64_t now) {
    for (const PortNote& note : TakePortNotes(portWatch_)) {
        for (auto& adapter : adapters_) {
            Adapter& a = *adapter;
            if (a.WatchId != note.WatchId) {
                continue;
            }
            if (note.Opened) {
                ++a.Openers;
            } else if (a.Openers > 0 && --a.Openers == 0) {
                PortLeft(a);
            }
            // During a call, a port closed by its last program is DTR down,
            // and opened again it is up.
            if (a.InCall != nullptr && a.InCall->Phase == CallPhase::Connected) {
                WatchDtr(a, now);
            }
            break;
        }
    }
}

void Exchange::PortLeft(Adapter& adapter) {
    // Left by a program that ended without closing the port properly (a
    // killed one): cleared, so that the next program opens the port as it
    // would a serial port after its last close, with no privilege.
    if (ClearLeftExclusiveMode(adapter)) {
        TraceLine(adapter.Who, "port left in exclusive mode: cleared");
    }
}

void Exchange::WatchDtr(Adapter& adapter, uint64_t now) {
    const bool closed = adapter.Openers == 0;
    const bool low = closed || DtrIsDown(adapter);
    if (low == adapter.DtrLow) {
        return;
    }
    adapter.DtrLow = low;
    if (!low) {
        return;
    }
    if (closed) {
        TraceLine(adapter.Who, "DTR drops: port closed");
        // Whoever opens the port next finds nothing of this call in it,
        // unless the adapter ignores DTR and the call goes on.
        if (adapter.Setting("&D") != 0) {
            EmptyPort(adapter);
        }
    } else {
        TraceLine(adapter.Who, "DTR drops: port speed 0");
    }
    DtrDropped(adapter, closed, now);
}

void Exchange::DtrDropped(Adapter& adapter, bool portClosed, uint64_t now) {
    // What the program wrote before it dropped DTR still goes on the line,
    // as a port's driver sends its buffer out first.
    while (adapter.Mode == AdapterMode::Data && WantsRead(adapter) && ReadData(adapter, now) > 0) {
    }
    Call* call = adapter.InCall;
    const int reaction = adapter.Setting("&D");
    if (reaction == 0 || call == nullptr || call->Phase != CallPhase::Connected) {
        return;  // &D0: DTR means nothing to the adapter
    }
    if (adapter.EscapeCount > 0) {
        call->From(adapter).Unhold();  // an escape under way is off: its "+" were data
        adapter.EscapeCount = 0;
        adapter.EscapeDeadline = Never;
    }
    if (reaction == 1) {
        if (adapter.Mode == AdapterMode::Data) {
            EnterOnlineCommand(*call, adapter);
        }
    } else {
        EndCall(*call, EndReason::DtrDrop, &adapter);
        Result(adapter, "NO CARRIER");
        if (reaction >= 3) {
            DefaultSettings(adapter.Given.Model->Kind, adapter.Registers);
        }
    }
    if (portClosed) {
        adapter.Out.clear();  // nobody to tell
        adapter.OutHead = 0;
    }
}

void Exchange::Abandon(Call& call, const char* callerHears) {
    if (call.Caller != nullptr) {
        Result(*call.Caller, callerHears);
        Leave(*call.Caller);
    }
    if (call.Answerer != nullptr) {
        call.Answerer->InCall = nullptr;  // it stops ringing
    }
    Detach(call, true);
    call.Ended = true;
}

void Exchange::EndCall(Call& call, EndReason reason, Adapter* by) {
    // by is the adapter that hung up or whose drop fault made the line fall;
    // null when the far end away hung up or its link was lost.
    std::vector<const FaultSetting*> acted;
    if ((reason == EndReason::HangUp || reason == EndReason::DtrDrop) && by != nullptr) {
        // What the hanging-up adapter took from its port before its escape
        // still goes out, and its far end gets it all before NO CARRIER. The
        // data on its way to the adapter that hangs up is lost with the call.
        DataPath& outgoing = call.From(*by);
        // A drop fault met on the way changes nothing: the call ends anyway.
        static_cast<void>(outgoing.ReleaseAll(acted));
        if (call.Away) {
            Forward(call, true);
        } else if (Adapter& far = call.Other(*by); far.Mode == AdapterMode::Data) {
            outgoing.MoveReleased(far.Out);
        }
    } else {
        // A falling line: each end gets what the line had carried to it. An
        // end away sent all of it before its release.
        for (Adapter* end : {call.Caller, call.Answerer}) {
            if (end != nullptr && end->Mode == AdapterMode::Data) {
                call.To(*end).MoveReleased(end->Out);
            }
        }
        if (call.Away && by != nullptr) {
            Forward(call, true);
        }
    }
    for (const FaultSetting* fault : acted) {
        TraceLine(by->Who,
                  fault->Kind == FaultKind::Corrupt
                      ? "fault: byte " + std::to_string(fault->Offset) + " corrupted"
                      : "fault: line falls after " + std::to_string(fault->Offset) + " bytes");
    }
    std::string how = "line fell";
    if (reason == EndReason::HangUp) {
        how = by != nullptr ? "ATH by " + by->Who : "released by " + call.FarWho;
    } else if (reason == EndReason::DtrDrop) {
        how = "DTR drop by " + by->Who;
    } else if (reason == EndReason::LinkLost) {
        how = "connection lost";
    }
    TraceLine(call.CallerWho(),
              "call with " + call.AnswererWho() + " ended (" + how + "): " + call.CallerWho() +
                  " sent " + std::to_string(call.Up->Sent()) + " bytes, " + call.AnswererWho() +
                  " sent " + std::to_string(call.Down->Sent()) + " bytes" + Garbled(call));
    for (Adapter* end : {call.Caller, call.Answerer}) {
        if (end == nullptr) {
            continue;
        }
        // The end that hung up or dropped DTR says what it hears itself.
        if ((reason != EndReason::HangUp && reason != EndReason::DtrDrop) || end != by) {
            Result(*end, "NO CARRIER");
        }
        Leave(*end);
    }
    // The far exchange learns of the end from the release, unless it is the
    // one that ended the call.
    Detach(call, by != nullptr);
    call.Ended = true;
}

void Exchange::Leave(Adapter& adapter) {
    adapter.NextDtrLookAt = Never;
    adapter.Mode = AdapterMode::Command;
    adapter.InCall = nullptr;
    adapter.EscapeCount = 0;
    adapter.EscapeDeadline = Never;
    adapter.Blind = false;
    adapter.InLine = false;
    adapter.Misheard.clear();
    adapter.Pushback.clear();
}

void Exchange::Sweep() {
    calls_.remove_if([](const std::unique_ptr<Call>& call) { return call->Ended; });
}

}  // namespace kb::virtual_ta
