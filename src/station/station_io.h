// kbstation's standard input and output: commands come in a line at a time,
// and every answer, log line and message goes out as one whole line, never
// mixed with another thread's.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/stop_signals.h"

namespace kb::station {

using platform::StopSignals;

// The station's standard output, shared by every thread that prints.
class StationOutput {
public:
    // Writes the line and a newline to standard output in one piece. A
    // reader that has gone away does not stop the station.
    void PrintLine(const std::string& line);

private:
    std::mutex lock_;  // one line at a time
};

// The text on one line of printable UTF-8: CR, LF and TAB shown as \r, \n
// and \t, every other control character and every byte that is no UTF-8
// character as \xNN, and a backslash as \\ (docs/kbstation.md).
std::string OneLine(const std::string& text);
// The same in double quotes, a double quote in it escaped as \".
std::string Quoted(const std::string& text);

// Reads commands from standard input and runs them one after another, each
// once the one before has been answered, until Stop. A command is a line
// without the blanks and CR around it; empty lines are skipped. The end of
// the input leaves the station running; once every command before it has
// been answered, onCommandsEnded is called once. A stopping signal (SIGINT,
// SIGTERM) calls onStop once.
class CommandInput {
public:
    using Runner = std::function<std::string(const std::string& command)>;

    // Holds SIGINT and SIGTERM back in this thread and every thread it
    // starts, so that only the command input sees them, and ignores SIGPIPE:
    // make it before any other thread starts. See IsOpen.
    explicit CommandInput(StationOutput& output);
    // Stops as Stop does if it still runs.
    ~CommandInput();
    CommandInput(const CommandInput&) = delete;
    CommandInput& operator=(const CommandInput&) = delete;

    // False if the signals cannot be read.
    [[nodiscard]] bool IsOpen() const;
    void Start(Runner run, std::function<void()> onStop, std::function<void()> onCommandsEnded);
    // Stops reading and waits for the command under way to be answered.
    void Stop();

private:
    void Enqueue(const std::string& line);
    void EndInput();
    void CloseQueue();
    void RunCommands(const Runner& run, const std::function<void()>& onCommandsEnded);
    void ReadInput(const std::function<void()>& onStop);

    StationOutput& output_;
    StopSignals signals_;
    int stopPipe_[2] = {-1, -1};  // written once by Stop; the reader ends on it
    std::thread reader_;
    std::thread runner_;

    std::mutex queueLock_;
    std::condition_variable queueChanged_;
    // The commands in order; an empty entry stands for the end of the input.
    std::deque<std::optional<std::string>> commands_;
    bool queueClosed_ = false;
};

}  // namespace kb::station
