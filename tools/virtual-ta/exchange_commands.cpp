// The command side of the exchange: reading a port in command mode, the
// line editor, running a line, and what goes back to the port.

#include <algorithm>

#include "virtual-ta/command_interpreter.h"
#include "virtual-ta/exchange.h"
#include "virtual-ta/trace.h"

namespace kb::virtual_ta {

using namespace kb::platform;

namespace {

constexpr size_t MostReplyBacklog = 65536;  // echo beyond this, to a port nobody reads, is lost
constexpr size_t ReadChunk = 4096;
constexpr size_t LongestLine = 258;  // "AT" and 256 characters

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
    char bytes[ReadChunk];
    const size_t count = ReadPort(adapter.Pty.Master, bytes, sizeof bytes);
    if (count == 0) {
        return;
    }
    // The speed is read with the bytes: a program that changes the speed and
    // then writes has its bytes read after the change.
    const uint32_t speed = PseudoTerminalSpeed(adapter.Pty);
    if (speed != adapter.PortSpeed) {
        adapter.PortSpeed = speed;
        TraceLine(adapter.Who, "port at " + std::to_string(speed) + " bps");
    }
    if (adapter.Mode == AdapterMode::Dialling) {
        TraceLine(adapter.Who, "dial broken off by " + Printable(std::string(bytes, 1)));
        Abandon(*adapter.InCall, "NO CARRIER");
        return;
    }
    CommandBytes(adapter, bytes, count, speed, now);
}

void Exchange::CommandBytes(Adapter& adapter, const char* bytes, size_t count, uint32_t speed,
                            uint64_t now) {
    if (Understands(adapter, speed, adapter.FixedSpeed)) {
        adapter.Misheard.clear();
        adapter.TalkSpeed = speed;
        for (size_t i = 0; i < count; ++i) {
            EditLine(adapter, bytes[i], now);
            if (adapter.Mode != AdapterMode::Command &&
                adapter.Mode != AdapterMode::OnlineCommand && i + 1 < count) {
                adapter.Pushback.append(bytes + i + 1, count - i - 1);
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
    TraceLine(adapter.Who, "not understood at " + std::to_string(speed) +
                               " bps: " + std::to_string(count) + " bytes");
    adapter.Misheard.append(bytes, count);
    const char end = static_cast<char>(adapter.Setting("S3"));
    size_t cr;
    while ((cr = adapter.Misheard.find(end)) != std::string::npos) {
        const std::string piece = adapter.Misheard.substr(0, cr + 1);
        adapter.Misheard.erase(0, cr + 1);
        const std::string candidate =
            (adapter.InLine ? adapter.Line : std::string()) + piece.substr(0, piece.size() - 1);
        const size_t at = candidate.find_first_of("Aa");
        if (at != std::string::npos &&
            IsSpeedCommandFor(adapter, std::string_view(candidate).substr(at), speed)) {
            TraceLine(adapter.Who, "speed command taken as sent before the port moved");
            for (const char c : piece) {
                EditLine(adapter, c, now);
            }
        }
    }
    if (adapter.Misheard.size() > LongestLine) {
        adapter.Misheard.erase(0, adapter.Misheard.size() - LongestLine);
    }
}

void Exchange::EditLine(Adapter& adapter, char c, uint64_t now) {
    const bool isA = c == 'A' || c == 'a';
    if (!adapter.InLine) {
        // Until an "A" starts a line, bytes are not commands and are not
        // echoed: data that a program still sends after its call has gone
        // does not come back to it.
        if (isA) {
            adapter.InLine = true;
            adapter.Line.assign(1, c);
            Echo(adapter, c);
        }
        return;
    }
    if (c == static_cast<char>(adapter.Setting("S3"))) {
        Echo(adapter, c);
        adapter.InLine = false;
        // An "A" alone is no command: data that a program still sends after
        // its call has gone holds such pairs by chance.
        if (adapter.Line.size() >= 2) {
            RunLine(adapter, now);
        }
        return;
    }
    if (c == static_cast<char>(adapter.Setting("S5"))) {
        // Backspace takes back what was typed after the "AT".
        if (adapter.Line.size() > 2) {
            adapter.Line.pop_back();
            Echo(adapter, c);
        }
        return;
    }
    if (adapter.Line.size() == 1) {
        if (c == 'T' || c == 't') {
            adapter.Line += c;
            Echo(adapter, c);
        } else if (isA) {
            adapter.Line.assign(1, c);
            Echo(adapter, c);
        } else if (c == '/') {
            // "A/" repeats the last line at once, without a CR.
            Echo(adapter, c);
            adapter.InLine = false;
            adapter.Line = adapter.LastLine.empty() ? std::string("AT") : adapter.LastLine;
            RunLine(adapter, now);
        } else {
            adapter.InLine = false;
        }
        return;
    }
    if (static_cast<unsigned char>(c) < 0x20) {
        return;  // LF and other control characters have no place in a line
    }
    if (adapter.Line.size() <= LongestLine) {
        adapter.Line += c;
        Echo(adapter, c);
    }
}

void Exchange::RunLine(Adapter& adapter, uint64_t now) {
    TraceLine(adapter.Who, "<- " + Printable(adapter.Line));
    adapter.LastLine = adapter.Line;
    if (adapter.Line.size() > LongestLine) {
        Result(adapter, "ERROR");
        return;
    }
    const FamilyKind kind = adapter.Given.Model->Kind;
    const std::string setupBefore = Describe(SetupOf(kind, adapter.Registers));
    CommandOutcome outcome = InterpretCommand(adapter, std::string_view(adapter.Line).substr(2));
    const std::string setupAfter = Describe(SetupOf(kind, adapter.Registers));
    if (setupAfter != setupBefore) {
        TraceLine(adapter.Who, "set-up " + setupAfter);
    }
    using FinalCode = CommandOutcome::FinalCode;
    if (adapter.Mode == AdapterMode::OnlineCommand &&
        (outcome.Final == FinalCode::Dial || outcome.Final == FinalCode::Answer)) {
        outcome.Final = FinalCode::Error;  // one call at a time
    }
    if (outcome.HangUp) {
        HangUp(adapter);
    }
    if (!outcome.Info.empty()) {
        TraceLine(adapter.Who, "-> " + Printable(outcome.Info));
        Say(adapter, outcome.Info);
    }
    switch (outcome.Final) {
        case FinalCode::Ok:
            Result(adapter, "OK");
            break;
        case FinalCode::Error:
            Result(adapter, "ERROR");
            break;
        case FinalCode::Silent:
            break;
        case FinalCode::Dial:
            Dial(adapter, outcome.Dial, now);
            break;
        case FinalCode::Answer:
            Answer(adapter, now);
            break;
        case FinalCode::Online:
            Online(adapter, now);
            break;
    }
    if (outcome.SpeedChange && outcome.Final != FinalCode::Error) {
        adapter.FixedSpeed = outcome.FixedSpeed;
        TraceLine(adapter.Who, adapter.FixedSpeed == 0 ? std::string("port speed follows the port")
                                                       : "port speed fixed at 230400 bps");
    }
}

void Exchange::Echo(Adapter& adapter, char c) {
    if (adapter.Setting("E") != 0 && adapter.PendingOut() < MostReplyBacklog) {
        adapter.Out += c;
    }
}

void Exchange::Say(Adapter& adapter, const std::string& text) {
    adapter.Out += text;
}

void Exchange::Result(Adapter& adapter, const std::string& code) {
    TraceLine(adapter.Who, "-> " + code);
    if (adapter.Setting("Q") != 0) {
        return;
    }
    if (adapter.Setting("V") != 0) {
        adapter.Out += "\r\n" + code + "\r\n";
        return;
    }
    if (const char* number = NumericCode(code)) {
        adapter.Out += number;
        adapter.Out += '\r';
    }
}

void Exchange::Flush(Adapter& adapter) {
    bool blocked = false;
    if (adapter.PendingOut() > 0) {
        adapter.OutHead += WritePort(adapter.Pty.Master, adapter.Out.data() + adapter.OutHead,
                                     adapter.PendingOut(), blocked);
        if (adapter.OutHead == adapter.Out.size()) {
            adapter.Out.clear();
            adapter.OutHead = 0;
        } else if (adapter.OutHead > 65536) {
            adapter.Out.erase(0, adapter.OutHead);
            adapter.OutHead = 0;
        }
        if (blocked) {
            return;
        }
    }
    if (adapter.Mode != AdapterMode::Data) {
        return;
    }
    DataPath& path = adapter.InCall->To(adapter);
    for (;;) {
        size_t length = 0;
        const uint8_t* bytes = path.Ready(length);
        if (length == 0) {
            return;
        }
        const size_t written = WritePort(adapter.Pty.Master, bytes, length, blocked);
        path.Consume(written);
        if (blocked) {
            return;
        }
    }
}

}  // namespace kb::virtual_ta
