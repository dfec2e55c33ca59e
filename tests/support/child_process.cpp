#include "support/child_process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace kb::test {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::string& folder, Errors errors, int descriptorLimit,
                           bool unprivileged) {
    // "nobody": a user who may open no device but its own and those open to all.
    constexpr uid_t Nobody = 65534;
    int toChild[2];
    int fromChild[2];
    int errorsFromChild[2] = {-1, -1};
    if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0 ||
        (errors == Errors::Kept && ::pipe2(errorsFromChild, O_CLOEXEC) != 0)) {
        throw std::runtime_error("pipe");
    }
    // Everything the child needs is made before the fork: the test process
    // has threads, and between fork and exec the child may not allocate.
    std::vector<std::string> words = {program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork");
    }
    if (pid_ == 0) {
        ::dup2(toChild[0], 0);
        ::dup2(fromChild[1], 1);
        if (errorsFromChild[1] >= 0) {
            ::dup2(errorsFromChild[1], 2);
        }
        if (!folder.empty() && ::chdir(folder.c_str()) != 0) {
            ::_exit(126);
        }
        const rlimit limit{static_cast<rlim_t>(descriptorLimit),
                           static_cast<rlim_t>(descriptorLimit)};
        if ((descriptorLimit > 0 && ::setrlimit(RLIMIT_NOFILE, &limit) != 0) ||
            (unprivileged &&
             (::setgroups(0, nullptr) != 0 || ::setgid(Nobody) != 0 || ::setuid(Nobody) != 0))) {
            ::_exit(126);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    if (errorsFromChild[1] >= 0) {
        ::close(errorsFromChild[1]);
    }
    input_ = toChild[1];
    output_ = fromChild[0];
    errors_ = errorsFromChild[0];
    reader_ = std::thread([this] { ReadOutput(); });
}

ChildProcess::~ChildProcess() {
    if (!exited_) {
        Stop(SIGTERM, std::chrono::seconds(30));
    }
    CloseInput();
    if (reader_.joinable()) {
        reader_.join();
    }
    for (const int fd : {output_, errors_}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void ChildProcess::ReadOutput() {
    std::string pending;
    pollfd entries[2] = {{output_, POLLIN, 0}, {errors_, POLLIN, 0}};
    int open = errors_ >= 0 ? 2 : 1;
    while (open > 0) {
        if (::poll(entries, 2, -1) < 0 && errno != EINTR) {
            break;
        }
        for (pollfd& entry : entries) {
            if (entry.fd < 0 || entry.revents == 0) {
                continue;
            }
            char buffer[4096];
            const ssize_t n = ::read(entry.fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                entry.fd = -1;  // poll passes over it from now on
                --open;
                continue;
            }
            std::lock_guard<std::mutex> guard(lock_);
            if (&entry == &entries[1]) {
                errorText_.append(buffer, static_cast<size_t>(n));
                continue;
            }
            pending.append(buffer, static_cast<size_t>(n));
            for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
                lines_.push_back(pending.substr(0, end));
                pending.erase(0, end + 1);
            }
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

bool ChildProcess::WaitForLine(const std::function<bool(const std::string&)>& test,
                               std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::string line;
    while (NextLine(line, std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now()))) {
        if (test(line)) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> ChildProcess::AllLines() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
}

std::string ChildProcess::ErrorText() const {
    std::lock_guard<std::mutex> guard(lock_);
    return errorText_;
}

int ChildProcess::WaitForExit(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!exited_) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            exited_ = true;
            exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        } else if (std::chrono::steady_clock::now() >= deadline) {
            return -1;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait_until(guard, deadline, [this] { return ended_; });
    return exitStatus_;
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

}  // namespace kb::test
