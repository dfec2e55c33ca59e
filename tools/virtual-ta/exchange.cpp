#include "exchange.h"

#include <algorithm>
#include <set>

#include "trace.h"

namespace {

constexpr uint64_t kRoutingDelayNs = 500 * kNsPerMs;  // until a failed dial is reported
constexpr uint64_t kRingIntervalNs = 2000 * kNsPerMs;

// Carrier codes that may stand in front of a number.
const char* const kCarrierCodes[] = {"10288", "10222", "10333"};

}  // namespace

Exchange::Exchange(Options options) : options_(std::move(options)) {}

Exchange::~Exchange() {
    Close();
}

bool Exchange::Open(std::string& error) {
    for (const AdapterSpec& spec : options_.adapters) {
        auto adapter = std::make_unique<Adapter>();
        adapter->spec = spec;
        adapter->who = spec.number;
        DefaultSettings(spec.family->kind, adapter->settings);
        if (!OpenPseudoTerminal(adapter->pty)) {
            error = "cannot make a pseudo-terminal for '" + spec.path + "'";
            return false;
        }
        if (!MakeLink(spec.path, adapter->pty.slavePath, error)) {
            ClosePseudoTerminal(adapter->pty);
            return false;
        }
        TraceLine(adapter->who, spec.family->product + std::string(" at ") + spec.path + " -> " +
                                    adapter->pty.slavePath);
        adapters_.push_back(std::move(adapter));
    }
    return true;
}

void Exchange::Close() {
    for (auto& adapter : adapters_) {
        RemoveLink(adapter->spec.path, adapter->pty.slavePath);
        ClosePseudoTerminal(adapter->pty);
    }
    adapters_.clear();
    calls_.clear();
}

// ---------------------------------------------------------------------------
// The event loop's side.

void Exchange::Service(uint64_t now) {
    for (auto& owned : calls_) {
        Call& call = *owned;
        if (call.ended) {
            continue;
        }
        switch (call.phase) {
            case CallPhase::Routing:
                if (now >= call.resultAt) {
                    TraceLine(call.caller->who, std::string("dial fails: ") + call.failure);
                    Abandon(call, call.failure);
                }
                break;
            case CallPhase::Ringing:
                if (now >= call.giveUpAt) {
                    TraceLine(call.caller->who, "no answer");
                    Abandon(call, "NO CARRIER");
                } else if (now >= call.nextRingAt) {
                    call.nextRingAt += kRingIntervalNs;
                    Ring(call, now);
                }
                break;
            case CallPhase::Connected:
                CheckEscape(call, *call.caller, now);
                if (!call.ended) {
                    CheckEscape(call, *call.answerer, now);
                }
                if (!call.ended) {
                    Pump(call, now);
                }
                break;
        }
    }
    Sweep();
    for (auto& adapter : adapters_) {
        Adapter& a = *adapter;
        // Bytes that came behind a command line and belong to its new mode.
        if (!a.pushback.empty()) {
            if (a.mode == AdapterMode::Data) {
                ReadData(a, now);
            } else {
                std::string bytes;
                bytes.swap(a.pushback);
                if (a.mode == AdapterMode::Dialling) {
                    Abandon(*a.call, "NO CARRIER");
                } else {
                    CommandBytes(a, bytes.data(), bytes.size(), a.portSpeed, now);
                }
            }
        }
        // A port that was not watched while the line was full: look at once
        // whether anything came meanwhile.
        if (a.mode == AdapterMode::Data && a.blind && WantsRead(a)) {
            ReadData(a, now);
        }
        Flush(a);
    }
    Sweep();
}

uint64_t Exchange::NextDeadline(uint64_t now) {
    uint64_t next = kNever;
    for (auto& adapter : adapters_) {
        if (!adapter->pushback.empty() &&
            (adapter->mode != AdapterMode::Data || WantsRead(*adapter))) {
            return now;
        }
    }
    for (auto& owned : calls_) {
        Call& call = *owned;
        if (call.ended) {
            continue;
        }
        next = std::min({next, call.resultAt, call.nextRingAt, call.giveUpAt});
        if (call.phase == CallPhase::Connected) {
            next = std::min({next, call.caller->escapeDeadline, call.answerer->escapeDeadline,
                             call.up->NextReleaseAt(now), call.down->NextReleaseAt(now)});
        }
    }
    return next;
}

void Exchange::CollectPoll(std::vector<pollfd>& entries, uint64_t now) {
    for (auto& adapter : adapters_) {
        Adapter& a = *adapter;
        pollfd entry{a.pty.master, 0, 0};
        if (WantsRead(a)) {
            entry.events |= POLLIN;
        } else if (a.mode == AdapterMode::Data && !a.blind) {
            a.blind = true;
            a.blindSince = now;
        }
        if (HasOutput(a)) {
            entry.events |= POLLOUT;
        }
        entries.push_back(entry);
    }
}

void Exchange::HandlePoll(const pollfd* entries, uint64_t now) {
    for (size_t i = 0; i < adapters_.size(); ++i) {
        Adapter& a = *adapters_[i];
        const short events = entries[i].revents;
        if ((events & POLLOUT) != 0) {
            Flush(a);
        }
        if ((events & (POLLIN | POLLERR | POLLHUP)) != 0 && WantsRead(a)) {
            if (a.mode == AdapterMode::Data) {
                // Take a few runs while they come, so that a fast stream
                // costs fewer trips through the loop.
                for (int run = 0;
                     run < 8 && a.mode == AdapterMode::Data && WantsRead(a) && ReadData(a, now) > 0;
                     ++run) {
                }
            } else {
                ReadCommandPort(a, now);
            }
        }
        Sweep();
    }
}

bool Exchange::WantsRead(const Adapter& adapter) const {
    if (adapter.mode != AdapterMode::Data) {
        return true;
    }
    return adapter.call->From(adapter).Free() > 0;
}

bool Exchange::HasOutput(Adapter& adapter) const {
    if (adapter.PendingOut() > 0) {
        return true;
    }
    return adapter.mode == AdapterMode::Data && adapter.call->To(adapter).ReadyCount() > 0;
}

// ---------------------------------------------------------------------------
// Calls.

Adapter* Exchange::Route(const std::string& number) {
    const auto find = [&](const std::string& wanted) -> Adapter* {
        for (auto& adapter : adapters_) {
            if (adapter->spec.number == wanted) {
                return adapter.get();
            }
        }
        return nullptr;
    };
    if (Adapter* exact = find(number)) {
        return exact;
    }
    for (const char* code : kCarrierCodes) {
        const std::string prefix = code;
        if (number.size() > prefix.size() && number.compare(0, prefix.size(), prefix) == 0) {
            return find(number.substr(prefix.size()));
        }
    }
    return nullptr;
}

void Exchange::Dial(Adapter& caller, const std::string& dialString, uint64_t now) {
    if (caller.call != nullptr) {
        // Dialling out while a call rings here: the incoming call is refused.
        TraceLine(caller.who, "refuses the ringing call to dial out");
        Abandon(*caller.call, "NO CARRIER");
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
    TraceLine(caller.who,
              "dials " + first +
                  (separator == std::string::npos ? std::string()
                                                  : " and " + second + " for the second channel"));

    auto owned = std::make_unique<Call>();
    Call& call = *owned;
    calls_.push_back(std::move(owned));
    call.caller = &caller;
    caller.call = &call;
    caller.mode = AdapterMode::Dialling;
    caller.inLine = false;

    Adapter* target = Route(first);
    if (caller.spec.noDialTone) {
        call.failure = "NO DIAL TONE";
    } else if (target == nullptr || target->spec.noDialTone) {
        call.failure = "NO CARRIER";
    } else if (target == &caller || target->mode != AdapterMode::Command ||
               target->call != nullptr) {
        call.failure = "BUSY";
    } else {
        call.phase = CallPhase::Ringing;
        call.answerer = target;
        target->call = &call;
        call.secondChannelReachable = second.empty() || Route(second) == target;
        call.nextRingAt = now + kRingIntervalNs;
        call.giveUpAt = now + static_cast<uint64_t>(options_.answerWaitMs) * kNsPerMs;
        TraceLine(caller.who, "rings " + target->who);
        Ring(call, now);
        return;
    }
    call.resultAt = now + kRoutingDelayNs;
}

void Exchange::Ring(Call& call, uint64_t now) {
    ++call.rings;
    Result(*call.answerer, "RING");
    Result(*call.caller, "RINGING");
    const int autoAnswer = call.answerer->Setting("S0");
    if (autoAnswer > 0 && call.rings >= autoAnswer) {
        TraceLine(call.answerer->who,
                  "answers by itself after " + std::to_string(call.rings) + " rings");
        Connect(call, now);
    }
}

void Exchange::Answer(Adapter& adapter, uint64_t now) {
    Call* call = adapter.call;
    if (call == nullptr || call->phase != CallPhase::Ringing || call->answerer != &adapter) {
        Result(adapter, "NO CARRIER");  // nothing rings
        return;
    }
    Connect(*call, now);
}

void Exchange::Connect(Call& call, uint64_t now) {
    Adapter& caller = *call.caller;
    Adapter& answerer = *call.answerer;
    const LineSetup callerSetup = SetupOf(caller.spec.family->kind, caller.settings);
    const LineSetup answererSetup = SetupOf(answerer.spec.family->kind, answerer.settings);
    // Two channels only if both ends are set up for the same bundling, and the
    // second number, if one was dialled, reaches the same adapter.
    call.channels = callerSetup.bundling != Bundling::None &&
                            callerSetup.bundling == answererSetup.bundling &&
                            call.secondChannelReachable
                        ? 2
                        : 1;
    // A 56K end uses seven bits of each octet: the channel carries 7/8.
    uint64_t perChannel = options_.rate;
    if (callerSetup.is56k || answererSetup.is56k) {
        perChannel = perChannel * 7 / 8;
    }
    call.bytesPerSecond = perChannel * static_cast<uint64_t>(call.channels);
    // The line holds about 50 ms of data each way, so that a sender is held
    // back close to the pace of the line; an unthrottled line holds enough
    // for large runs.
    const size_t capacity =
        call.bytesPerSecond == 0
            ? 65536
            : static_cast<size_t>(std::clamp<uint64_t>(call.bytesPerSecond / 20, 4096, 65536));
    call.up = std::make_unique<DataPath>(capacity, call.bytesPerSecond, now);
    call.down = std::make_unique<DataPath>(capacity, call.bytesPerSecond, now);
    ArmFaults(caller, *call.up);
    ArmFaults(answerer, *call.down);
    call.phase = CallPhase::Connected;
    call.nextRingAt = kNever;
    call.giveUpAt = kNever;
    for (Adapter* end : {&answerer, &caller}) {
        end->mode = AdapterMode::Data;
        end->inLine = false;
        end->misheard.clear();
        end->knownEmpty = true;
        end->emptySince = now;
        end->blind = false;
        end->escapeCount = 0;
        end->escapeDeadline = kNever;
        Result(*end, "CONNECT " + std::to_string(end->talkSpeed));
    }
    TraceLine(caller.who, "connected to " + answerer.who + ": " + Describe(callerSetup) + " to " +
                              Describe(answererSetup) + ", " + std::to_string(call.channels) +
                              (call.channels == 1 ? " channel, " : " channels, ") +
                              (call.bytesPerSecond == 0
                                   ? std::string("unthrottled")
                                   : std::to_string(call.bytesPerSecond) + " bytes/s each way"));
    Pump(call, now);
}

void Exchange::ArmFaults(Adapter& sender, DataPath& path) {
    // The adapter's faults still to act, in the order given, up to the first
    // drop (which ends the call). A fault at an offset that an earlier one in
    // this call already takes waits for a later call.
    std::set<uint64_t> offsets;
    for (FaultSpec& fault : options_.faults) {
        if (fault.acted || fault.number != sender.spec.number ||
            !offsets.insert(fault.offset).second) {
            continue;
        }
        path.Arm(&fault);
        if (fault.kind == FaultKind::Drop) {
            break;
        }
    }
}

void Exchange::Online(Adapter& adapter, uint64_t now) {
    if (adapter.mode != AdapterMode::OnlineCommand) {
        Result(adapter, "NO CARRIER");
        return;
    }
    adapter.mode = AdapterMode::Data;
    adapter.knownEmpty = true;
    adapter.emptySince = now;
    adapter.blind = false;
    Result(adapter, "CONNECT " + std::to_string(adapter.talkSpeed));
    TraceLine(adapter.who, "back in data mode");
}

void Exchange::HangUp(Adapter& adapter) {
    Call* call = adapter.call;
    if (call == nullptr) {
        return;
    }
    if (call->phase == CallPhase::Connected) {
        EndCall(*call, EndReason::HangUp, &adapter);
    } else if (call->answerer == &adapter) {
        TraceLine(adapter.who, "refuses the ringing call");
        Abandon(*call, "NO CARRIER");
    }
}

void Exchange::Abandon(Call& call, const char* callerHears) {
    Result(*call.caller, callerHears);
    Leave(*call.caller);
    if (call.answerer != nullptr) {
        call.answerer->call = nullptr;  // it stops ringing
    }
    call.ended = true;
}

void Exchange::EndCall(Call& call, EndReason reason, Adapter* by) {
    std::vector<const FaultSpec*> acted;
    if (reason == EndReason::HangUp) {
        // What the hanging-up adapter took from its port before its escape
        // still goes out, and its far end gets it all before NO CARRIER. The
        // data on its way to the adapter that hangs up is lost with the call.
        Adapter& far = call.Other(*by);
        DataPath& outgoing = call.From(*by);
        outgoing.ReleaseAll(acted);
        if (far.mode == AdapterMode::Data) {
            outgoing.MoveReleased(far.out);
        }
    } else {
        // A falling line: each end gets what the line had carried to it.
        for (Adapter* end : {call.caller, call.answerer}) {
            if (end->mode == AdapterMode::Data) {
                call.To(*end).MoveReleased(end->out);
            }
        }
    }
    for (const FaultSpec* fault : acted) {
        TraceLine(by->who,
                  fault->kind == FaultKind::Corrupt
                      ? "fault: byte " + std::to_string(fault->offset) + " corrupted"
                      : "fault: line falls after " + std::to_string(fault->offset) + " bytes");
    }
    TraceLine(call.caller->who,
              std::string("call with ") + call.answerer->who + " ended (" +
                  (reason == EndReason::HangUp ? "ATH by " + by->who : std::string("line fell")) +
                  "): " + call.caller->who + " sent " + std::to_string(call.up->Sent()) +
                  " bytes, " + call.answerer->who + " sent " + std::to_string(call.down->Sent()) +
                  " bytes");
    for (Adapter* end : {call.caller, call.answerer}) {
        if (reason == EndReason::LineFell || end != by) {
            Result(*end, "NO CARRIER");
        }
        Leave(*end);
    }
    call.ended = true;
}

void Exchange::Leave(Adapter& adapter) {
    adapter.mode = AdapterMode::Command;
    adapter.call = nullptr;
    adapter.escapeCount = 0;
    adapter.escapeDeadline = kNever;
    adapter.blind = false;
    adapter.inLine = false;
    adapter.misheard.clear();
    adapter.pushback.clear();
}

void Exchange::Sweep() {
    calls_.remove_if([](const std::unique_ptr<Call>& call) { return call->ended; });
}
