// A program run by a test as a child process: its standard input on a pipe,
// its standard output taken line by line by a reader thread, its standard
// error passed through or kept apart. Every wait ends on an event (a line, the
// end of the output, the exit) or at a limit.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kb::test {

class ChildProcess {
public:
    // Where the child's standard error goes.
    enum class Errors { PassedThrough, Kept };

    // Starts program with arguments in folder ("" for this process's own),
    // allowed that many open descriptors when descriptorLimit is not 0, as
    // the user and group "nobody" (65534) with no other groups when
    // unprivileged (a test running as root only); throws if it cannot.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::string& folder = "", Errors errors = Errors::PassedThrough,
                 int descriptorLimit = 0, bool unprivileged = false);
    // A child still running gets SIGTERM, and SIGKILL if it outlasts that.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void WriteLine(const std::string& line);
    void CloseInput();
    // The next line of output not taken yet, waiting up to the limit; false at
    // the limit or at the end of the output.
    bool NextLine(std::string& line, std::chrono::milliseconds limit);
    // Takes lines until one satisfies the test, which sees every line taken;
    // false at the limit or the end.
    bool WaitForLine(const std::function<bool(const std::string&)>& test,
                     std::chrono::milliseconds limit);
    bool WaitForLine(const std::string& text, std::chrono::milliseconds limit) {
        return WaitForLine([&text](const std::string& line) { return line == text; }, limit);
    }
    // Every line printed so far.
    std::vector<std::string> AllLines() const;
    // Standard error so far, when it is kept.
    std::string ErrorText() const;

    // Waits for the exit and then for the end of the output; the exit status
    // (128 + the signal for a child that a signal ended), or -1 at the limit.
    int WaitForExit(std::chrono::milliseconds limit);
    // Sends the signal and waits as WaitForExit does; SIGKILL at the limit.
    int Stop(int signal, std::chrono::milliseconds limit);
    pid_t Pid() const { return pid_; }

private:
    void ReadOutput();

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int errors_ = -1;
    int exitStatus_ = -1;
    bool exited_ = false;
    std::thread reader_;
    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    std::string errorText_;
    size_t taken_ = 0;
    bool ended_ = false;
};

}  // namespace kb::test
