// An engine that runs as in the program, on a real pseudo-terminal, with the
// test playing the adapter and the far end's program byte for byte. The far
// end's records and data streams come from the independent peer in
// tests/support, not from the engine's own code. The communications thread
// runs, an adapter counts as found, polling is on, and there is no window.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/receiving_session_test_hooks.h"
#include "engine/transfer_engine.h"
#include "line/line.h"
#include "platform/thread.h"
#include "stores/installation.h"
#include "support/captured_output.h"
#include "support/far_end.h"
#include "support/temp_folder.h"
#include "support/test_clock.h"
#include "support/test_data.h"
#include "support/wire_peer.h"

namespace kb::test {

using engine::FileEntry;
using engine::LinkState;
using engine::TransferEngine;
using line::Line;
using line::PortConversation;
using platform::ThreadHandle;
using stores::Installation;

// Letters only, so that a hang-up's "+++" cannot be mistaken in the data.
std::string LetterBytes(size_t size);
// "H100" and the list of the files, as a peer sends it.
std::string ListFor(const std::vector<peer::File>& files);
// An entry for a file of that size, filled the way the file list fills one.
FileEntry EntryForFile(const std::string& name, const std::string& path, uint64_t size);

class EngineHarness : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // ---- What the engine writes to its port, and the adapter's answers ----
    // Exactly count bytes, or fewer if the time ran out.
    std::string Take(size_t count, int timeoutMs = 5000) { return far_.Receive(count, timeoutMs); }
    // Everything up to and including the marker, or what came in the time.
    std::string TakeUntil(const std::string& marker, int timeoutMs = 5000) {
        return far_.ReceiveUntil(marker, timeoutMs);
    }
    // Whatever comes within the time.
    std::string TakeFor(int ms) { return far_.ReceiveFor(ms); }
    // Whether the marker comes within the time, behind whatever else.
    bool Comes(const std::string& marker, int timeoutMs = 5000) {
        return TakeUntil(marker, timeoutMs).find(marker) != std::string::npos;
    }
    void Send(const std::string& bytes) { far_.Send(bytes); }
    // An AT command, up to its CR, answered OK; returned without the CR.
    std::string AnswerCommand(int timeoutMs = 6000);
    // The hang-up of a sender: "+++" then "ATH", both answered, and the
    // incoming profile that follows; "+++" alone or behind data still on its
    // way. The link is idle again.
    void AnswerHangUp(bool behindData = false);
    // The end of a call whose line has gone: the adapter, in command mode,
    // answers "AT", which comes within the time, then the incoming profile;
    // the link is idle again.
    void AnswerLostLine(int timeoutMs = 6000);
    // The far end hangs up: NO CARRIER, the incoming profile answered, and
    // the link idle again.
    void DropLine();
    // The incoming profile that goes to the adapter after a call, found
    // behind whatever data was still on its way, answered OK; the link is
    // idle again.
    void BackToIdle();

    // ---- The engine ----
    bool WaitForState(LinkState state, int timeoutMs = 5000) {
        return WaitUntil([this, state] { return engine_.Call.LinkState.load() == state; },
                         timeoutMs);
    }
    // Runs f with the port's read side in hand, so that the communications
    // thread is between two passes: what f reads of the engine's lists was
    // written before, in a pass that has ended.
    template <class F>
    auto Inspect(F f) {
        PortConversation conversation(*engine_.Line);
        return f();
    }
    static bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 5000) {
        return PollUntil(condition, std::chrono::milliseconds(timeoutMs));
    }
    bool WaitForLog(const std::string& line, int timeoutMs = 5000) {
        return WaitUntil([&] { return Logged(line); }, timeoutMs);
    }
    std::vector<std::string> Log() const { return output_.Log(); }
    // The message boxes shown so far.
    std::vector<std::string> Messages() const { return output_.Messages(); }
    // How often the log holds exactly this line.
    long Count(const std::string& line) const { return output_.Count(line); }
    bool Logged(const std::string& line) const { return Count(line) > 0; }
    // The engine answers a call (RING, ATA, CONNECT), and the far end's
    // SYNCON has its RCVCON.
    void ConnectAsReceiver();
    // The engine has dialled and the far end answers: CONNECT, SYNCON.
    void ConnectAsCaller();
    // Called, RCVCON sent, and the list of that many entries taken.
    void ConnectAndTakeList(size_t entries);
    // A file chosen as the only one of the list, and a call to take it.
    std::string CallWithFile(const std::string& name, const std::string& bytes) {
        const std::string path = ChooseFile(name, bytes);
        ConnectAndTakeList(1);
        return path;
    }
    // A file in the installation, put at the end of SendList as the window
    // does; returns its path.
    std::string ChooseFile(const std::string& name, const std::string& bytes);
    std::string Incoming(const std::string& name) const {
        return stores_.Paths.IncomingPath + "/" + name;
    }
    // Moves the engine's millisecond clock and the line's interval clock on
    // at once, for the limits counted on them.
    void JumpClock(uint32_t ms);
    // Shortens the line's pauses, the escape's guard time above all, to at
    // most 200 ms, which leaves the hang-up's grace for output on its way as
    // it is. Only for a test whose adapter needs no guard time and that
    // asserts no pause.
    void ShortenPauses() { clock_.CapPauses(200); }

    TempFolder root_;
    Installation stores_{root_.Path()};
    FarEnd far_;
    // The clock of the engine and its line, fresh for each test.
    TestClock clock_;
    // The engine's line, fresh for each test.
    Line line_{stores_, clock_};
    // The engine, fresh for each test as in a program that has just started.
    TransferEngine engine_{clock_};

private:
    ThreadHandle commThread_;
    CapturedOutput output_{&stores_.Log};
};

}  // namespace kb::test
