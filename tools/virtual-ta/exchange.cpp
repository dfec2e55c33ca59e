#include "exchange.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "command_interpreter.h"
#include "trace.h"

namespace {

constexpr uint64_t kRoutingDelayNs = 500 * kNsPerMs;  // until a failed dial is reported
constexpr uint64_t kRingIntervalNs = 2000 * kNsPerMs;
constexpr size_t kMostReplyBacklog = 65536;  // echo beyond this, to a port nobody reads, is lost
constexpr size_t kReadChunk = 4096;
constexpr size_t kLongestLine = 258;  // "AT" and 256 characters

// Carrier codes that may stand in front of a number.
const char* const kCarrierCodes[] = {"10288", "10222", "10333"};

uint64_t GuardNs(const Adapter& adapter) {
    // S12 counts fiftieths of a second.
    return static_cast<uint64_t>(adapter.Setting("S12")) * 20 * kNsPerMs;
}

const char* NumericCode(const std::string& code) {
    if (code == "OK") {
        return "0";
    }
    if (code.rfind("CONNECT", 0) == 0) {
        return "1";
    }
    if (code == "RING") {
        return "2";
    }
    if (code == "NO CARRIER") {
        return "3";
    }
    if (code == "ERROR") {
        return "4";
    }
    if (code == "NO DIAL TONE") {
        return "6";
    }
    if (code == "BUSY") {
        return "7";
    }
    return nullptr;  // RINGING has no number
}

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
// Command mode.

void Exchange::ReadCommandPort(Adapter& adapter, uint64_t now) {
    char bytes[kReadChunk];
    const size_t count = ReadPort(adapter.pty.master, bytes, sizeof bytes);
    if (count == 0) {
        return;
    }
    // The speed is read with the bytes: a program that changes the speed and
    // then writes has its bytes read after the change.
    const uint32_t speed = PseudoTerminalSpeed(adapter.pty);
    if (speed != adapter.portSpeed) {
        adapter.portSpeed = speed;
        TraceLine(adapter.who, "port at " + std::to_string(speed) + " bps");
    }
    if (adapter.mode == AdapterMode::Dialling) {
        TraceLine(adapter.who, "dial broken off by " + Printable(std::string(bytes, 1)));
        Abandon(*adapter.call, "NO CARRIER");
        return;
    }
    CommandBytes(adapter, bytes, count, speed, now);
}

void Exchange::CommandBytes(Adapter& adapter, const char* bytes, size_t count, uint32_t speed,
                            uint64_t now) {
    if (Understands(adapter, speed, adapter.fixedSpeed)) {
        adapter.misheard.clear();
        adapter.talkSpeed = speed;
        for (size_t i = 0; i < count; ++i) {
            EditLine(adapter, bytes[i], now);
            if (adapter.mode != AdapterMode::Command &&
                adapter.mode != AdapterMode::OnlineCommand && i + 1 < count) {
                adapter.pushback.append(bytes + i + 1, count - i - 1);
                return;
            }
        }
        return;
    }
    // At a speed it does not understand, the adapter sees garbage: no echo,
    // no reply. One thing is taken all the same: a command that moves the
    // adapter to the speed at which the port now stands. A program sends it
    // at the old speed and changes its port right behind it, and the tool may
    // read the bytes only after the change.
    TraceLine(adapter.who, "not understood at " + std::to_string(speed) +
                               " bps: " + std::to_string(count) + " bytes");
    adapter.misheard.append(bytes, count);
    const char end = static_cast<char>(adapter.Setting("S3"));
    size_t cr;
    while ((cr = adapter.misheard.find(end)) != std::string::npos) {
        const std::string piece = adapter.misheard.substr(0, cr + 1);
        adapter.misheard.erase(0, cr + 1);
        const std::string candidate =
            (adapter.inLine ? adapter.line : std::string()) + piece.substr(0, piece.size() - 1);
        const size_t at = candidate.find_first_of("Aa");
        if (at != std::string::npos &&
            IsSpeedCommandFor(adapter, std::string_view(candidate).substr(at), speed)) {
            TraceLine(adapter.who, "speed command taken as sent before the port moved");
            for (const char c : piece) {
                EditLine(adapter, c, now);
            }
        }
    }
    if (adapter.misheard.size() > kLongestLine) {
        adapter.misheard.erase(0, adapter.misheard.size() - kLongestLine);
    }
}

void Exchange::EditLine(Adapter& adapter, char c, uint64_t now) {
    const bool isA = c == 'A' || c == 'a';
    if (!adapter.inLine) {
        // Until an "A" starts a line, bytes are not commands and are not
        // echoed: data that a program still sends after its call has gone
        // does not come back to it.
        if (isA) {
            adapter.inLine = true;
            adapter.line.assign(1, c);
            Echo(adapter, c);
        }
        return;
    }
    if (c == static_cast<char>(adapter.Setting("S3"))) {
        Echo(adapter, c);
        adapter.inLine = false;
        RunLine(adapter, now);
        return;
    }
    if (c == static_cast<char>(adapter.Setting("S5"))) {
        // Backspace takes back what was typed after the "AT".
        if (adapter.line.size() > 2) {
            adapter.line.pop_back();
            Echo(adapter, c);
        }
        return;
    }
    if (adapter.line.size() == 1) {
        if (c == 'T' || c == 't') {
            adapter.line += c;
            Echo(adapter, c);
        } else if (isA) {
            adapter.line.assign(1, c);
            Echo(adapter, c);
        } else {
            adapter.inLine = false;
        }
        return;
    }
    if (static_cast<unsigned char>(c) < 0x20) {
        return;  // LF and other control characters have no place in a line
    }
    if (adapter.line.size() <= kLongestLine) {
        adapter.line += c;
        Echo(adapter, c);
    }
}

void Exchange::RunLine(Adapter& adapter, uint64_t now) {
    TraceLine(adapter.who, "<- " + Printable(adapter.line));
    if (adapter.line.size() > kLongestLine) {
        Result(adapter, "ERROR");
        return;
    }
    const FamilyKind kind = adapter.spec.family->kind;
    const std::string setupBefore = Describe(SetupOf(kind, adapter.settings));
    CommandOutcome outcome = InterpretCommand(adapter, std::string_view(adapter.line).substr(2));
    const std::string setupAfter = Describe(SetupOf(kind, adapter.settings));
    if (setupAfter != setupBefore) {
        TraceLine(adapter.who, "set-up " + setupAfter);
    }
    using Final = CommandOutcome::Final;
    if (adapter.mode == AdapterMode::OnlineCommand &&
        (outcome.final == Final::Dial || outcome.final == Final::Answer)) {
        outcome.final = Final::Error;  // one call at a time
    }
    if (outcome.hangUp) {
        HangUp(adapter);
    }
    if (!outcome.info.empty()) {
        TraceLine(adapter.who, "-> " + Printable(outcome.info));
        Say(adapter, outcome.info);
    }
    switch (outcome.final) {
        case Final::Ok:
            Result(adapter, "OK");
            break;
        case Final::Error:
            Result(adapter, "ERROR");
            break;
        case Final::Silent:
            break;
        case Final::Dial:
            Dial(adapter, outcome.dial, now);
            break;
        case Final::Answer:
            Answer(adapter, now);
            break;
        case Final::Online:
            Online(adapter, now);
            break;
    }
    if (outcome.speedChange && outcome.final != Final::Error) {
        adapter.fixedSpeed = outcome.fixedSpeed;
        TraceLine(adapter.who, adapter.fixedSpeed == 0 ? std::string("port speed follows the port")
                                                       : "port speed fixed at 230400 bps");
    }
}

// ---------------------------------------------------------------------------
// Output.

void Exchange::Echo(Adapter& adapter, char c) {
    if (adapter.Setting("E") != 0 && adapter.PendingOut() < kMostReplyBacklog) {
        adapter.out += c;
    }
}

void Exchange::Say(Adapter& adapter, const std::string& text) {
    adapter.out += text;
}

void Exchange::Result(Adapter& adapter, const std::string& code) {
    TraceLine(adapter.who, "-> " + code);
    if (adapter.Setting("Q") != 0) {
        return;
    }
    if (adapter.Setting("V") != 0) {
        adapter.out += "\r\n" + code + "\r\n";
        return;
    }
    if (const char* number = NumericCode(code)) {
        adapter.out += number;
        adapter.out += '\r';
    }
}

void Exchange::Flush(Adapter& adapter) {
    bool blocked = false;
    if (adapter.PendingOut() > 0) {
        adapter.outHead += WritePort(adapter.pty.master, adapter.out.data() + adapter.outHead,
                                     adapter.PendingOut(), blocked);
        if (adapter.outHead == adapter.out.size()) {
            adapter.out.clear();
            adapter.outHead = 0;
        } else if (adapter.outHead > 65536) {
            adapter.out.erase(0, adapter.outHead);
            adapter.outHead = 0;
        }
        if (blocked) {
            return;
        }
    }
    if (adapter.mode != AdapterMode::Data) {
        return;
    }
    DataPath& path = adapter.call->To(adapter);
    for (;;) {
        size_t length = 0;
        const uint8_t* bytes = path.Ready(length);
        if (length == 0) {
            return;
        }
        const size_t written = WritePort(adapter.pty.master, bytes, length, blocked);
        path.Consume(written);
        if (blocked) {
            return;
        }
    }
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

// ---------------------------------------------------------------------------
// Data mode.

size_t Exchange::ReadData(Adapter& adapter, uint64_t now) {
    Call& call = *adapter.call;
    DataPath& path = call.From(adapter);
    size_t room = 0;
    uint8_t* area = path.WriteArea(room);
    if (room == 0) {
        return 0;
    }
    size_t count = 0;
    const bool fromPushback = !adapter.pushback.empty();
    if (fromPushback) {
        count = std::min(room, adapter.pushback.size());
        std::memcpy(area, adapter.pushback.data(), count);
        adapter.pushback.erase(0, count);
    } else {
        count = ReadPort(adapter.pty.master, area, room);
    }
    if (count == 0) {
        // Nothing came: the port is quiet, and has been since the last bytes
        // if it was known to be empty then.
        if (!adapter.knownEmpty) {
            adapter.knownEmpty = true;
            adapter.emptySince = now;
        }
        adapter.blind = false;
        return 0;
    }
    // The escape: "+++" after a silence of the guard time, and followed by
    // one. Silence counts only as far as the port was watched.
    const uint64_t guard = GuardNs(adapter);
    const uint64_t watchedUntil = adapter.blind ? adapter.blindSince : now;
    const bool quietBefore = adapter.knownEmpty && watchedUntil >= adapter.emptySince + guard;
    const int escape = adapter.Setting("S2");
    bool allEscape = escape <= 127 && count <= 3;
    for (size_t i = 0; allEscape && i < count; ++i) {
        allEscape = area[i] == escape;
    }
    if (adapter.escapeCount > 0) {
        if (allEscape && adapter.escapeCount + static_cast<int>(count) <= 3) {
            adapter.escapeCount += static_cast<int>(count);
            adapter.escapeDeadline = now + guard;
        } else {
            path.Unhold();  // more came: the "+" were data
            adapter.escapeCount = 0;
            adapter.escapeDeadline = kNever;
        }
    } else if (allEscape && quietBefore) {
        path.Hold(path.Tail());
        adapter.escapeCount = static_cast<int>(count);
        adapter.escapeDeadline = now + guard;
    }
    path.Commit(count);
    if (!fromPushback && count < room) {
        adapter.knownEmpty = true;
        adapter.emptySince = now;
    } else {
        adapter.knownEmpty = false;
    }
    adapter.blind = false;
    Pump(call, now);
    return count;
}

void Exchange::CheckEscape(Call& call, Adapter& end, uint64_t now) {
    if (end.escapeCount == 0 || now < end.escapeDeadline) {
        return;
    }
    DataPath& path = call.From(end);
    const bool escaped = end.escapeCount == 3 && end.pushback.empty() &&
                         end.mode == AdapterMode::Data && BytesWaiting(end.pty.master) == 0;
    path.Unhold();
    if (escaped) {
        path.DropTail(3);
    }
    end.escapeCount = 0;
    end.escapeDeadline = kNever;
    if (!escaped) {
        return;  // the held "+" go on as data
    }
    // Command mode within the call. What the line had brought for the port
    // goes before the OK; more data for it waits on the line meanwhile.
    end.mode = AdapterMode::OnlineCommand;
    call.To(end).TakeReady(end.out);
    TraceLine(end.who, "escape to command mode");
    Result(end, "OK");
}

void Exchange::Pump(Call& call, uint64_t now) {
    for (Adapter* sender : {call.caller, call.answerer}) {
        std::vector<const FaultSpec*> acted;
        const bool up = call.From(*sender).Release(now, acted);
        for (const FaultSpec* fault : acted) {
            TraceLine(sender->who,
                      fault->kind == FaultKind::Corrupt
                          ? "fault: byte " + std::to_string(fault->offset) + " corrupted"
                          : "fault: line falls after " + std::to_string(fault->offset) + " bytes");
        }
        if (!up) {
            EndCall(call, EndReason::LineFell, sender);
            return;
        }
    }
    Flush(*call.caller);
    Flush(*call.answerer);
}
