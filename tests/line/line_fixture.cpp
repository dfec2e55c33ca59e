#include "line_fixture.h"

#include <algorithm>

#include "platform/key_state.h"
#include "support/installation.h"

namespace kb::test {

using namespace kb::platform;
using namespace kb::stores;

std::string Joined(const std::vector<std::string>& lines) {
    std::string all;
    for (const std::string& line : lines) {
        all += (all.empty() ? "" : " | ") + line;
    }
    return all;
}

std::string Described(const std::vector<ReceivedCommand>& commands, const std::string& expected) {
    Texts texts;
    for (const ReceivedCommand& command : commands) {
        const std::string any = command.Text + "@any";
        texts.push_back(expected.find(any) != std::string::npos
                            ? any
                            : command.Text + "@" + std::to_string(command.Speed));
    }
    return Joined(texts);
}

size_t CommandCount(const std::string& described) {
    return static_cast<size_t>(std::count(described.begin(), described.end(), '|')) + 1;
}

AdapterScript BitsurfrScript() {
    return {.Identity0 = {"960"},
            .Identity8 = {"BitSURFR Pro ISDN Terminal Adapter"},
            .NumberQuery = "AT!N1?",
            .NumberReply = "AT!N1?\r\r\n5552001\r\nOK\r\n"};
}

AdapterScript AdtranScript() {
    return {.Identity0 = {"ADTRAN EXPRESS XRT ISDN", "Rev. B"},
            .NumberQuery = "ATSS63?",
            .NumberReply = Answer("ATSS63?", {"5552063"})};
}

AdapterScript ZyxelScript() {
    return {.Identity0 = {"ZyXEL 2864", "V 2.17"},
            .NumberQuery = "AT&ZI?",
            .NumberReply = Answer("AT&ZI?", {"(MultiAuto):(5552864)"})};
}

AdapterScript ThreeComScript() {
    return {.Identity0 = {"3Com Impact IQ 3C882"},
            .NumberQuery = "ATS51?",
            .NumberReply = Answer("ATS51?", {"5553882"})};
}

ScriptedAdapter::Responder RespondAs(AdapterScript script) {
    auto atTop = std::make_shared<bool>(script.LeftAt230400);
    return [script, atTop](const std::string& command, uint32_t speed) -> std::string {
        if (speed > script.MaxSpeed) {
            return "";
        }
        if (*atTop && !script.CommandBack.empty() && command == script.CommandBack) {
            *atTop = false;
        } else if (*atTop && speed != 230400) {
            return "";
        }
        if (script.Unanswered.count(command) != 0) {
            return EchoOnly(command);
        }
        if (command == "ati0") {
            return Answer(command, script.Identity0);
        }
        if (command == "ati8") {
            return Answer(command, script.Identity8);
        }
        if (!script.NumberQuery.empty() && command == script.NumberQuery) {
            return script.NumberReply;
        }
        return Answer(command);
    };
}

void LineTest::SetUp() {
    SetKeyStateQuery(nullptr);
    stores_.Prefs = Preferences{};
    stores_.Prefs.MaxPortSpeed = DefaultMaxPortSpeed;
    ASSERT_TRUE(line_.CommPortCreate());
    // A port with nothing linked would be a real /dev/ttyS*: every port of
    // the installation is a plain file until a test attaches an adapter.
    BlockPorts(root_.Path());
}

void LineTest::TearDown() {
    line_.CommPortDestroy();
    adapters_.clear();
    SetKeyStateQuery(nullptr);
}

ScriptedAdapter& LineTest::Attach(int port, ScriptedAdapter::Responder responder) {
    adapters_.push_back(std::make_unique<ScriptedAdapter>(std::move(responder)));
    adapters_.back()->Far().LinkAs(root_.Path(), port);
    return *adapters_.back();
}

void LineTest::OpenPort(int port, uint32_t speed) {
    line_.SelectPortNumber(static_cast<uint8_t>(port));
    line_.SelectPortBaud(speed);
    ASSERT_TRUE(line_.CommPortOpen());
    ASSERT_TRUE(line_.EnableHardwareHandshake());
}

}  // namespace kb::test
