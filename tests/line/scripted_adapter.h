// A terminal adapter played by a test on a real pseudo-terminal: a thread
// reads each command the program sends, notes it with the port speed the
// program had set when it arrived, and sends the answer that the test's
// responder gives.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/far_end.h"

namespace kb::test {

struct ReceivedCommand {
    std::string Text;  // without its CR
    uint32_t Speed = 0;
};

class ScriptedAdapter {
public:
    // Gets each command and the port's speed; returns the bytes to send back,
    // "" for silence.
    using Responder = std::function<std::string(const std::string& command, uint32_t speed)>;

    explicit ScriptedAdapter(Responder responder);
    ~ScriptedAdapter();
    ScriptedAdapter(const ScriptedAdapter&) = delete;
    ScriptedAdapter& operator=(const ScriptedAdapter&) = delete;

    FarEnd& Far() { return far_; }
    // Answers from now on as the responder says.
    void SetResponder(Responder responder);
    // Every command so far, in order.
    std::vector<ReceivedCommand> Commands() const;
    std::vector<std::string> CommandTexts() const;
    // Forgets the commands so far.
    void ClearCommands();
    // Waits until count commands have come, or the time is up; true if they
    // have.
    bool WaitForCommands(size_t count, int timeoutMs) const;

private:
    void Run();

    FarEnd far_;
    Responder responder_;
    mutable std::mutex lock_;
    mutable std::condition_variable arrived_;
    std::vector<ReceivedCommand> commands_;
    std::string pending_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// The answer of an adapter with echo and verbose replies: the echo of the
// command, the lines, and OK.
std::string Answer(const std::string& command, const std::vector<std::string>& lines = {});
// The echo of the command alone, with no OK: how a command the adapter does
// not take, or one it is too slow to hear, looks to the program.
std::string EchoOnly(const std::string& command);

}  // namespace kb::test
