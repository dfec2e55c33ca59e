#include "virtual-ta/command_interpreter.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace kb::virtual_ta {

namespace {

char Upper(char c) {
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}
bool IsLetter(char c) {
    return std::isalpha(static_cast<unsigned char>(c)) != 0;
}

bool IsPortSpeed(long value) {
    switch (value) {
        case 9600:
        case 19200:
        case 38400:
        case 57600:
        case 115200:
        case 230400:
            return true;
        default:
            return false;
    }
}

// Reads the digits at position; false if there are none. Stops short of
// overflow: more than nine digits count as no number.
bool ReadNumber(std::string_view body, size_t& at, long& value) {
    const size_t start = at;
    value = 0;
    while (at < body.size() && IsDigit(body[at])) {
        if (at - start >= 9) {
            return false;
        }
        value = value * 10 + (body[at] - '0');
        ++at;
    }
    return at > start;
}

// What a dial string may hold besides digits and the separators "+" and "&":
// dial modifiers and punctuation that a person might type, all ignored.
bool DialCharacterAllowed(char c) {
    switch (Upper(c)) {
        case '+':
        case '&':
        case 'T':
        case 'P':
        case 'W':
        case ',':
        case '-':
        case ' ':
        case '(':
        case ')':
            return true;
        default:
            return IsDigit(c);
    }
}

bool IsSRegister(const std::string& name) {
    return name.size() > 1 && name[0] == 'S' &&
           name.find_first_not_of("0123456789", 1) == std::string::npos;
}

// The settings as "AT&V" lists them: the commands first, as they would be
// typed ("E1", "&D2", "%A2=2"), then the S-registers as "S00:000", eight to a
// line.
std::vector<std::string> ProfileLines(const Settings& settings) {
    std::vector<std::string> lines = {"ACTIVE PROFILE:"};
    std::vector<std::pair<long, int>> registers;
    std::string line;
    int onLine = 0;
    const auto add = [&](const std::string& item) {
        line += (onLine == 0 ? "" : " ") + item;
        if (++onLine == 8) {
            lines.push_back(line);
            line.clear();
            onLine = 0;
        }
    };
    const auto flush = [&] {
        if (onLine > 0) {
            lines.push_back(line);
            line.clear();
            onLine = 0;
        }
    };
    for (const auto& [name, value] : settings) {
        if (IsSRegister(name)) {
            registers.emplace_back(std::stol(name.substr(1)), std::atoi(value.c_str()));
        } else {
            // A numbered register of its family holds "=": "%A2=2", "@M2=P".
            add(name + (IsDigit(name.back()) ? "=" : "") + value);
        }
    }
    flush();
    std::sort(registers.begin(), registers.end());
    for (const auto& [number, value] : registers) {
        char text[32];
        std::snprintf(text, sizeof text, "S%02ld:%03d", number, value);
        add(text);
    }
    flush();
    return lines;
}

class Interpreter {
public:
    Interpreter(Adapter& adapter, std::string_view body)
        : adapter_(adapter), body_(body), kind_(adapter.Given.Model->Kind) {}

    CommandOutcome Run() {
        while (at_ < body_.size()) {
            if (!Next()) {
                outcome_.Final = CommandOutcome::FinalCode::Error;
                return outcome_;
            }
            if (done_) {
                break;
            }
        }
        return outcome_;
    }

private:
    void Info(std::string_view text) { outcome_.Info += FrameInfo(adapter_, {std::string(text)}); }
    void Info(const std::vector<std::string>& lines) {
        outcome_.Info += FrameInfo(adapter_, lines);
    }

    void Store(const std::string& name, long value) {
        adapter_.Registers[name] = std::to_string(value);
    }

    [[nodiscard]] bool Knows(std::string_view name) const { return FamilyKnows(kind_, name); }

    // One command. False makes the line an ERROR.
    bool Next() {
        const char c = Upper(body_[at_++]);
        if (IsLetter(c)) {
            return Basic(c);
        }
        switch (c) {
            case '&':
            case '\\':
            case '$':
                return Prefixed(c);
            case '%':
            case '@':
            case '!':
                return Register(c);
            default:
                return false;
        }
    }

    bool Basic(char c) {
        const std::string name(1, c);
        if (!Knows(name)) {
            return false;
        }
        if (c == 'D') {
            const std::string_view rest = body_.substr(at_);
            for (const char d : rest) {
                if (!DialCharacterAllowed(d)) {
                    return false;
                }
            }
            outcome_.Dial = std::string(rest);
            outcome_.Final = CommandOutcome::FinalCode::Dial;
            done_ = true;
            return true;
        }
        if (c == 'A') {
            outcome_.Final = CommandOutcome::FinalCode::Answer;
            done_ = true;
            return true;
        }
        if (c == 'S') {
            return SRegister();
        }
        long value = 0;
        ReadNumber(body_, at_, value);
        switch (c) {
            case 'E':
            case 'V':
            case 'Q':
                if (value > 1) {
                    return false;
                }
                Store(name, value);
                return true;
            case 'X':
                if (value > 7) {
                    return false;
                }
                Store(name, value);
                return true;
            case 'W':
                if (value > 2) {
                    return false;
                }
                Store(name, value);
                return true;
            case 'L':  // speaker loudness
            case 'M':  // speaker on or off
                if (value > 3) {
                    return false;
                }
                Store(name, value);
                return true;
            case 'N':
            case 'Y':
                if (value > 1) {
                    return false;
                }
                Store(name, value);
                return true;
            case 'B':
                Store(name, value);
                return true;
            case 'H':
                if (value != 0) {
                    return false;
                }
                outcome_.HangUp = true;
                return true;
            case 'O':
                if (value != 0) {
                    return false;
                }
                outcome_.Final = CommandOutcome::FinalCode::Online;
                done_ = true;
                return true;
            case 'Z':
                if (value != 0) {
                    return false;
                }
                DefaultSettings(kind_, adapter_.Registers);
                return true;
            case 'I':
                return Identity(value);
            default:
                return false;
        }
    }

    bool Identity(long which) {
        const Family& family = *adapter_.Given.Model;
        const std::vector<const char*>* lines = nullptr;
        switch (which) {
            case 0:
                lines = &family.Identity0;
                break;
            case 2:
                return true;  // the memory test, which always passes: OK alone
            case 3:
                lines = &family.Identity3;
                break;
            case 8:
                lines = &family.Identity8;
                break;
            case 1:
            case 4:
            case 5:
            case 6:
            case 7:
            case 9:
                // Checksums, capability lists and the like mean nothing here;
                // a terminal program shows them to the user, so the model is
                // the most useful answer.
                Info(family.Product);
                return true;
            default:
                return false;
        }
        Info(std::vector<std::string>(lines->begin(), lines->end()));
        return true;
    }

    // Sn=v, Sn?, and the AdTran's SSn?.
    bool SRegister() {
        if (at_ < body_.size() && Upper(body_[at_]) == 'S') {
            ++at_;
            return AdTranNumberQuery();
        }
        long reg = 0;
        if (!ReadNumber(body_, at_, reg) || reg > 255 || at_ >= body_.size()) {
            return false;
        }
        const std::string name = "S" + std::to_string(reg);
        if (body_[at_] == '?') {
            ++at_;
            if (kind_ == FamilyKind::ThreeCom && reg == 51) {
                Info(adapter_.Given.Number);  // the 3Com keeps its own number in S51
                return true;
            }
            char text[16];
            std::snprintf(text, sizeof text, "%03d", adapter_.Setting(name.c_str()));
            Info(text);
            return true;
        }
        if (body_[at_] != '=') {
            return false;
        }
        ++at_;
        long value = 0;
        if (!ReadNumber(body_, at_, value) || value > 65535) {
            return false;
        }
        if (kind_ == FamilyKind::ThreeCom && reg == 51) {
            return false;  // read-only: the number comes from the line
        }
        Store(name, value);
        return true;
    }

    // The AdTran XR keeps its number in SS62, the XRT in SS63.
    bool AdTranNumberQuery() {
        if (!Knows("SS")) {
            return false;
        }
        long reg = 0;
        if (!ReadNumber(body_, at_, reg) || at_ >= body_.size() || body_[at_] != '?') {
            return false;
        }
        ++at_;
        const bool xrt = std::string_view(adapter_.Given.Model->Name) == "adtran-xrt";
        if (reg != (xrt ? 63 : 62)) {
            return false;
        }
        Info(adapter_.Given.Number);
        return true;
    }

    // &x, \x, $x, each with an optional number.
    bool Prefixed(char prefix) {
        if (at_ >= body_.size() || !IsLetter(body_[at_])) {
            return false;
        }
        const char letter = Upper(body_[at_++]);
        std::string name{prefix, letter};
        if (!Knows(name)) {
            return false;
        }
        if (name == "&Z") {
            return ZyxelNumberQuery();
        }
        long value = 0;
        const bool given = ReadNumber(body_, at_, value);
        if (name == "&F") {
            return FactoryProfile(kind_, static_cast<int>(value), adapter_.Registers);
        }
        if (name == "&V") {
            Info(ProfileLines(adapter_.Registers));
            return true;
        }
        if (name == "&W") {
            return true;  // settings live as long as the tool runs: nothing to store
        }
        if (name == "$B") {
            // The 3Com moves its port at once and gives no result code.
            if (!given || (value != 0 && !IsPortSpeed(value))) {
                return false;
            }
            outcome_.SpeedChange = true;
            outcome_.FixedSpeed = value == 230400 ? 230400 : 0;
            outcome_.Final = CommandOutcome::FinalCode::Silent;
            Store(name, value);
            return true;
        }
        Store(name, value);
        return true;
    }

    // The ZyXEL lists its numbers, one per service, with "&ZI?".
    bool ZyxelNumberQuery() {
        if (at_ + 1 >= body_.size() || Upper(body_[at_]) != 'I' || body_[at_ + 1] != '?') {
            return false;
        }
        at_ += 2;
        Info({"&ZI1 (Data):()", "&ZI2 (Voice):()",
              "&ZI3 (MultiAuto):(" + adapter_.Given.Number + ")"});
        return true;
    }

    // %xn=v, @xn=v, !xn?: registers with a number, as the BitSURFR has them.
    bool Register(char prefix) {
        if (at_ >= body_.size() || !IsLetter(body_[at_])) {
            return false;
        }
        const char letter = Upper(body_[at_++]);
        const std::string family{prefix, letter};
        if (!Knows(family)) {
            return false;
        }
        long reg = 0;
        if (!ReadNumber(body_, at_, reg) || at_ >= body_.size()) {
            return false;
        }
        const std::string name = family + std::to_string(reg);
        if (body_[at_] == '?') {
            ++at_;
            if (name == "!N1") {
                Info(adapter_.Given.Number);  // the BitSURFR's own number
                return true;
            }
            const auto found = adapter_.Registers.find(name);
            if (found == adapter_.Registers.end()) {
                return false;
            }
            Info(found->second);
            return true;
        }
        if (body_[at_] != '=' || prefix == '!') {
            return false;
        }
        ++at_;
        long value = 0;
        if (ReadNumber(body_, at_, value)) {
            if (name == "@P2") {
                // The port speed: answered at the old speed, taken up after.
                if (!IsPortSpeed(value)) {
                    return false;
                }
                outcome_.SpeedChange = true;
                outcome_.FixedSpeed = value == 230400 ? 230400 : 0;
            }
            Store(name, value);
            return true;
        }
        if (at_ < body_.size() && IsLetter(body_[at_]) && name != "@P2") {
            adapter_.Registers[name] = std::string(1, Upper(body_[at_++]));
            return true;
        }
        return false;
    }

    Adapter& adapter_;
    std::string_view body_;
    FamilyKind kind_;
    size_t at_ = 0;
    bool done_ = false;
    CommandOutcome outcome_;
};

}  // namespace

CommandOutcome InterpretCommand(Adapter& adapter, std::string_view body) {
    // Blanks mean nothing anywhere in a line, "S7 = 45" included.
    std::string packed;
    for (const char c : body) {
        if (c != ' ') {
            packed += c;
        }
    }
    return Interpreter(adapter, packed).Run();
}

std::string FrameInfo(const Adapter& adapter, const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        if (!text.empty()) {
            text += "\r\n";
        }
        text += line;
    }
    if (adapter.Setting("V") == 0) {
        return text + "\r\n";
    }
    // The BitSURFR puts its line breaks in front: its result code follows the
    // last line of text directly.
    if (adapter.Given.Model->Kind == FamilyKind::BitSurfr) {
        return "\r\n" + text;
    }
    return "\r\n" + text + "\r\n";
}

bool Understands(const Adapter& adapter, uint32_t portSpeed, uint32_t fixedSpeed) {
    if (portSpeed == 0 || portSpeed > adapter.Given.MaxSpeed) {
        return false;
    }
    switch (adapter.Given.Model->Kind) {
        case FamilyKind::Zyxel:
            return true;  // follows the port at any speed
        case FamilyKind::AdTran:
            return adapter.Given.Dip230400 ? portSpeed == 230400 : portSpeed <= 115200;
        case FamilyKind::BitSurfr:
        case FamilyKind::ThreeCom:
            return fixedSpeed == 230400 ? portSpeed == 230400 : portSpeed <= 115200;
    }
    return false;
}

bool IsSpeedCommandFor(const Adapter& adapter, std::string_view text, uint32_t portSpeed) {
    std::string upper;
    for (const char c : text) {
        upper += Upper(c);
    }
    if (upper.rfind("AT", 0) != 0) {
        return false;
    }
    const char* marker = nullptr;
    switch (adapter.Given.Model->Kind) {
        case FamilyKind::BitSurfr:
            marker = "@P2=";
            break;
        case FamilyKind::ThreeCom:
            marker = "$B";
            break;
        default:
            return false;
    }
    const size_t found = upper.find(marker);
    if (found == std::string::npos) {
        return false;
    }
    size_t at = found + std::string_view(marker).size();
    long value = 0;
    if (!ReadNumber(upper, at, value)) {
        return false;
    }
    return Understands(adapter, portSpeed, value == 230400 ? 230400 : 0);
}

}  // namespace kb::virtual_ta
