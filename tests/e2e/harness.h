// Running the real programs for end-to-end tests: a virtual-ta with its
// adapters, and stations (kbstation) each in an installation folder of its
// own, driven through their standard input and output as a user of the
// station program would drive them. Every wait ends on an event (a line the
// program prints) or on a generous time limit.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/test_data.h"

// A child process with its standard input and output on pipes; standard error
// is passed through. Lines of output are collected by a reader thread.
class ChildProcess {
public:
    // Starts program with arguments in the folder; throws if it cannot.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::string& folder);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void WriteLine(const std::string& line);
    void CloseInput();
    // Next line of output not taken yet, waiting up to the limit; false at the
    // limit or at the end of the output.
    bool NextLine(std::string& line, std::chrono::milliseconds limit);
    // Every line printed so far.
    std::vector<std::string> AllLines() const;
    // Sends a signal and waits for the exit; returns the exit status, or -1.
    int Stop(int signal, std::chrono::milliseconds limit);
    // Waits for the exit without a signal; -1 at the limit.
    int WaitForExit(std::chrono::milliseconds limit);
    pid_t Pid() const { return pid_; }
    bool OutputEnded() const;

private:
    void ReadOutput();

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int exitStatus_ = -1;
    bool exited_ = false;
    std::thread reader_;
    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    size_t taken_ = 0;
    bool ended_ = false;
};

// A virtual-ta with the given adapters ("PATH=FAMILY:NUMBER[,OPTION...]") and
// options, ready once it has printed "ready".
class VirtualAdapters {
public:
    VirtualAdapters(const std::vector<std::string>& adapters,
                    const std::vector<std::string>& options = {});
    ~VirtualAdapters();

private:
    ChildProcess process_;
};

// A station: kbstation running in its installation folder.
class Station {
public:
    explicit Station(const std::string& folder);
    ~Station();

    const std::string& Folder() const { return folder_; }
    pid_t Pid() const { return process_.Pid(); }
    // Sends a command and waits for its answer. Returns "ok" or the text of
    // "error: ..." (with the prefix); "" if no answer came in time.
    std::string Command(const std::string& command,
                        std::chrono::milliseconds limit = std::chrono::seconds(120));
    // Waits until a log line holding text has come (counting lines already
    // seen since the last successful wait of this kind).
    bool WaitForLog(const std::string& text,
                    std::chrono::milliseconds limit = std::chrono::seconds(60));
    // Every log line printed so far, in order, without the "log: " prefix.
    std::vector<std::string> LogLines() const;
    // Every message box shown so far, with the "message: " prefix taken away.
    std::vector<std::string> Messages() const;
    // The line that "show" prints for a control, e.g. "IDC_SEND", or for a
    // menu, e.g. "menu text=\"&Port Speed\""; "" if there is none.
    std::string ShowControl(const std::string& name);
    // Quits the station with the command quit and waits for its exit; returns
    // the exit status.
    int Quit(std::chrono::milliseconds limit = std::chrono::seconds(60));

private:
    // Takes output lines, sorting them, until one satisfies the test.
    bool TakeUntil(const std::function<bool(const std::string&)>& test,
                   std::chrono::milliseconds limit, std::string* found);
    void Sort(const std::string& line);

    std::string folder_;
    ChildProcess process_;
    std::vector<std::string> logLines_;
    std::vector<std::string> messages_;
    size_t logWaitMark_ = 0;
};
