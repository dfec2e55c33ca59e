// What the line's tests share: an installation in a fresh folder, the log and
// the messages caught, and adapters played by the test on pseudo-terminals
// linked as COMn.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "line/line.h"
#include "scripted_adapter.h"
#include "stores/installation.h"
#include "support/captured_output.h"
#include "support/temp_folder.h"
#include "support/test_clock.h"

namespace kb::test {

using line::Line;
using stores::Installation;
using Texts = std::vector<std::string>;

// How a scripted adapter of one family answers.
struct AdapterScript {
    std::vector<std::string> Identity0{};  // lines for "ati0"
    std::vector<std::string> Identity8{};  // lines for "ati8"
    std::string NumberQuery{};             // the family's query of its own number
    std::string NumberReply{};             // the whole answer to it, echo included
    uint32_t MaxSpeed = 230400;            // silent above this port speed
    std::set<std::string> Unanswered{};    // commands that get their echo and no OK
    // Left at 230400 bps, where a program that ended without its closing
    // command leaves a BitSURFR or a 3Com: silent at any other speed until
    // its command back, which it hears at any speed, since the port moves
    // right behind it.
    bool LeftAt230400 = false;
    std::string CommandBack{};
};

// Scripts of the families as the tests' adapters present themselves.
AdapterScript BitsurfrScript();
AdapterScript AdtranScript();
AdapterScript ZyxelScript();
AdapterScript ThreeComScript();

// Answers as the script says: the identities, the number, "OK" to all else,
// nothing at all above the top speed, nor off 230400 bps while left there.
ScriptedAdapter::Responder RespondAs(AdapterScript script);

// The lines as one text, " | " between them, so that a table's cell holds them.
std::string Joined(const std::vector<std::string>& lines);
// The commands as "text@speed", joined, so that a mismatch shows both; where
// the expectation says "@any" for a command, the command and a change of
// speed race each other on the line.
std::string Described(const std::vector<ReceivedCommand>& commands, const std::string& expected);
// How many commands a joined text names.
size_t CommandCount(const std::string& described);

class LineTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Plays an adapter on port n of the installation.
    ScriptedAdapter& Attach(int port, ScriptedAdapter::Responder responder);
    // Opens port n at the speed with RTS/CTS, as the program has it after a find.
    void OpenPort(int port, uint32_t speed);

    std::vector<std::string> Logged() const { return output_.Log(); }
    std::vector<std::string> Messages() const { return output_.Messages(); }
    void ClearLogged() { output_.Clear(); }

    TempFolder root_;
    Installation stores_{root_.Path()};
    TestClock clock_;
    // A fresh line for each test: nothing of an earlier test's adapter stays.
    Line line_{stores_, clock_};
    std::vector<std::unique_ptr<ScriptedAdapter>> adapters_;
    CapturedOutput output_{&stores_.Log};
};

}  // namespace kb::test
