// The command side of the exchange: reading a port in command mode, the
// line editor, running a line, and what goes back to the port.
#include <algorithm>

#include "command_interpreter.h"
#include "exchange.h"
#include "trace.h"

namespace {

constexpr size_t kMostReplyBacklog = 65536;  // echo beyond this, to a port nobody reads, is lost
constexpr size_t kReadChunk = 4096;
constexpr size_t kLongestLine = 258;  // "AT" and 256 characters

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
        // An "A" alone is no command: data that a program still sends after
        // its call has gone holds such pairs by chance.
        if (adapter.line.size() >= 2) {
            RunLine(adapter, now);
        }
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
