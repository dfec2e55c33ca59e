#include "harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::string& folder) {
    int toChild[2];
    int fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe");
    }
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork");
    }
    if (pid_ == 0) {
        ::dup2(toChild[0], 0);
        ::dup2(fromChild[1], 1);
        if (!folder.empty() && ::chdir(folder.c_str()) != 0) {
            ::_exit(126);
        }
        std::vector<char*> raw;
        for (std::string& a : argv) {
            raw.push_back(a.data());
        }
        raw.push_back(nullptr);
        ::execv(program.c_str(), raw.data());
        ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    input_ = toChild[1];
    output_ = fromChild[0];
    reader_ = std::thread([this] { ReadOutput(); });
}

ChildProcess::~ChildProcess() {
    if (!exited_) {
        Stop(SIGKILL, std::chrono::seconds(10));
    }
    CloseInput();
    if (reader_.joinable()) {
        reader_.join();
    }
    if (output_ >= 0) {
        ::close(output_);
    }
}

void ChildProcess::ReadOutput() {
    std::string pending;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(output_, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        pending.append(buffer, static_cast<size_t>(n));
        size_t end;
        while ((end = pending.find('\n')) != std::string::npos) {
            std::lock_guard<std::mutex> guard(lock_);
            lines_.push_back(pending.substr(0, end));
            pending.erase(0, end + 1);
            changed_.notify_all();
        }
    }
    std::lock_guard<std::mutex> guard(lock_);
    if (!pending.empty()) {
        lines_.push_back(pending);
    }
    ended_ = true;
    changed_.notify_all();
}

void ChildProcess::WriteLine(const std::string& line) {
    const std::string text = line + "\n";
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(input_, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        done += static_cast<size_t>(n);
    }
}

void ChildProcess::CloseInput() {
    if (input_ >= 0) {
        ::close(input_);
        input_ = -1;
    }
}

bool ChildProcess::NextLine(std::string& line, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> guard(lock_);
    if (!changed_.wait_for(guard, limit, [this] { return taken_ < lines_.size() || ended_; }) ||
        taken_ >= lines_.size()) {
        return false;
    }
    line = lines_[taken_++];
    return true;
}

std::vector<std::string> ChildProcess::AllLines() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
}

bool ChildProcess::OutputEnded() const {
    std::lock_guard<std::mutex> guard(lock_);
    return ended_;
}

int ChildProcess::WaitForExit(std::chrono::milliseconds limit) {
    if (exited_) {
        return exitStatus_;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            exited_ = true;
            exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return exitStatus_;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

int ChildProcess::Stop(int signal, std::chrono::milliseconds limit) {
    if (!exited_) {
        ::kill(pid_, signal);
    }
    const int status = WaitForExit(limit);
    if (status < 0) {
        ::kill(pid_, SIGKILL);
        return WaitForExit(std::chrono::seconds(10));
    }
    return status;
}

VirtualAdapters::VirtualAdapters(const std::vector<std::string>& adapters,
                                 const std::vector<std::string>& options)
    : process_(
          VIRTUAL_TA_PATH,
          [&] {
              std::vector<std::string> arguments = options;
              arguments.insert(arguments.end(), adapters.begin(), adapters.end());
              return arguments;
          }(),
          "") {
    std::string line;
    while (process_.NextLine(line, std::chrono::seconds(20))) {
        if (line == "ready") {
            return;
        }
    }
    throw std::runtime_error("virtual-ta did not become ready");
}

VirtualAdapters::~VirtualAdapters() {
    process_.Stop(SIGTERM, std::chrono::seconds(10));
}

Station::Station(const std::string& folder)
    : folder_(folder), process_(KBSTATION_PATH, {}, folder) {}

Station::~Station() {
    if (!process_.OutputEnded()) {
        process_.Stop(SIGTERM, std::chrono::seconds(30));
    }
}

void Station::Sort(const std::string& line) {
    if (line.rfind("log: ", 0) == 0) {
        logLines_.push_back(line.substr(5));
    } else if (line.rfind("message: ", 0) == 0) {
        messages_.push_back(line.substr(9));
    }
}

bool Station::TakeUntil(const std::function<bool(const std::string&)>& test,
                        std::chrono::milliseconds limit, std::string* found) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::string line;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !process_.NextLine(line, left)) {
            return false;
        }
        Sort(line);
        if (test(line)) {
            if (found != nullptr) {
                *found = line;
            }
            return true;
        }
    }
}

std::string Station::Command(const std::string& command, std::chrono::milliseconds limit) {
    process_.WriteLine(command);
    std::string answer;
    if (!TakeUntil(
            [](const std::string& line) { return line == "ok" || line.rfind("error:", 0) == 0; },
            limit, &answer)) {
        return "";
    }
    return answer;
}

bool Station::WaitForLog(const std::string& text, std::chrono::milliseconds limit) {
    for (; logWaitMark_ < logLines_.size(); ++logWaitMark_) {
        if (logLines_[logWaitMark_].find(text) != std::string::npos) {
            ++logWaitMark_;
            return true;
        }
    }
    const bool seen = TakeUntil(
        [&](const std::string& line) {
            return line.rfind("log: ", 0) == 0 && line.find(text) != std::string::npos;
        },
        limit, nullptr);
    if (seen) {
        logWaitMark_ = logLines_.size();
    }
    return seen;
}

std::vector<std::string> Station::LogLines() const {
    return logLines_;
}

std::string Station::ShowControl(const std::string& name) {
    process_.WriteLine("show");
    std::string shown;
    TakeUntil(
        [&](const std::string& line) {
            if (line.rfind("control " + name + " ", 0) == 0 || line.rfind(name + " ", 0) == 0) {
                shown = line;
            }
            return line == "ok" || line.rfind("error:", 0) == 0;
        },
        std::chrono::seconds(30), nullptr);
    return shown;
}

std::vector<std::string> Station::Messages() const {
    return messages_;
}

int Station::Quit(std::chrono::milliseconds limit) {
    process_.WriteLine("quit");
    std::string line;
    while (process_.NextLine(line, limit)) {
        Sort(line);
    }
    return process_.WaitForExit(limit);
}
