// Running the real programs for end-to-end tests: a virtual-ta with its
// adapters, and stations (kbstation) each in an installation folder of its
// own, driven through their standard input and output as a user of the
// station program would drive them. Every wait ends on an event (a line the
// program prints) or on a generous time limit.
#pragma once

#include <sys/types.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/test_data.h"

namespace kb::test {

// A virtual-ta with the given adapters ("PATH=FAMILY:NUMBER[,OPTION...]") and
// options, ready once it has printed "ready".
class VirtualAdapters {
public:
    VirtualAdapters(const std::vector<std::string>& adapters,
                    const std::vector<std::string>& options = {});
    pid_t Pid() const { return process_.Pid(); }
    // Its output so far, "listening on HOST:PORT" among it with --listen.
    std::vector<std::string> OutputLines() const { return process_.AllLines(); }

private:
    ChildProcess process_;
};

// A station: kbstation running in its installation folder.
class Station {
public:
    explicit Station(const std::string& folder);

    pid_t Pid() const { return process_.Pid(); }
    // The program itself, for a test of its raw output and of its input's end.
    ChildProcess& Process() { return process_; }
    // Sends a command and waits for its answer. Returns "ok" or the text of
    // "error: ..." (with the prefix); "" if no answer came in time.
    std::string Command(const std::string& command,
                        std::chrono::milliseconds limit = std::chrono::seconds(120));
    // Types a correspondent's name and ISDN number into the form; whether
    // both were taken.
    bool Address(const std::string& name, const std::string& number) {
        return Command("name " + name) == "ok" && Command("number " + number) == "ok";
    }
    // Waits until a log line holding text has come (counting lines already
    // seen since the last successful wait of this kind).
    bool WaitForLog(const std::string& text,
                    std::chrono::milliseconds limit = std::chrono::seconds(60));
    // Every log line printed so far, in order, without the "log: " prefix and
    // with its escapes taken back (Unescaped).
    std::vector<std::string> LogLines() const { return logLines_; }
    // The same, one text, for a failure's message.
    std::string LogText() const;
    // How often the log holds exactly this line. The answer to "show" comes
    // behind every log line added before it, so the lines in hand are all.
    long Count(const std::string& line);
    // Every message box shown so far, without the "message: " prefix and with
    // its escapes taken back.
    std::vector<std::string> Messages() const { return messages_; }
    // The hand-offs to the desktop ("open: ...", "browse: ...", "raise: ...",
    // "run: ...", "dialog: ...") printed since the last call.
    std::vector<std::string> TakeHandOffs();
    // The line that "show" prints for a control, e.g. "IDC_SEND", or for a
    // menu, e.g. "menu text=\"&Port Speed\""; "" if there is none.
    std::string ShowControl(const std::string& name);
    // Quits the station with the command quit and waits for its exit; returns
    // the exit status.
    int Quit(std::chrono::milliseconds limit = std::chrono::seconds(60));
    // Ends the station with the signal and waits for its exit; returns the
    // exit status.
    int Stop(int signal, std::chrono::milliseconds limit = std::chrono::seconds(60));

private:
    // Takes output lines, sorting them, until one satisfies the test.
    bool TakeUntil(const std::function<bool(const std::string&)>& test,
                   std::chrono::milliseconds limit);
    void Sort(const std::string& line);

    ChildProcess process_;
    std::vector<std::string> logLines_;
    std::vector<std::string> messages_;
    std::vector<std::string> handOffs_;
    size_t logWaitMark_ = 0;
};

// A line of kbstation's output taken back to the text it stands for: its
// escapes (\r, \n, \t, \xNN, \\) become the bytes they name again.
std::string Unescaped(const std::string& shown);

// A station started in its folder that has found its adapter and waits for
// calls.
std::unique_ptr<Station> WaitingStation(const std::string& folder);

// A file compared whole, so that a failure does not print megabytes.
void ExpectSameBytes(const std::string& path, const std::string& expected);

// Runs the body for every case of a table at once, each on a thread of its
// own with its own stations and adapters, and returns when all are done:
// cases that spend their time waiting on the program's own limits wait side
// by side rather than one after another. A failed ASSERT ends its case alone,
// and so does an exception, which a thread could not pass on to the test.
template <typename Case, typename Body>
void EachCaseAtOnce(const std::vector<Case>& cases, const Body& body) {
    std::vector<std::thread> running;
    for (const Case& c : cases) {
        running.emplace_back([&body, &c] {
            try {
                body(c);
            } catch (const std::exception& thrown) {
                ADD_FAILURE() << thrown.what();
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
}

}  // namespace kb::test
