#include "station/station_io.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>

namespace {

std::mutex OutputLock;

int SignalDescriptor = -1;
int StopPipe[2] = {-1, -1};
std::thread Reader;
std::thread Runner;

std::mutex QueueLock;
std::condition_variable QueueChanged;
std::deque<std::string> Commands;
bool QueueClosed = false;

// Blanks and a CR around a command are no part of it.
std::string Trimmed(std::string line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
        line.pop_back();
    }
    const size_t start = line.find_first_not_of(" \t");
    line.erase(0, start == std::string::npos ? line.size() : start);
    return line;
}

void Enqueue(const std::string& line) {
    std::lock_guard<std::mutex> guard(QueueLock);
    Commands.push_back(Trimmed(line));
    QueueChanged.notify_all();
}

void CloseQueue() {
    std::lock_guard<std::mutex> guard(QueueLock);
    QueueClosed = true;
    QueueChanged.notify_all();
}

void RunCommands(const std::function<std::string(const std::string&)>& run) {
    for (;;) {
        std::string line;
        {
            std::unique_lock<std::mutex> guard(QueueLock);
            QueueChanged.wait(guard, [] { return QueueClosed || !Commands.empty(); });
            if (Commands.empty()) {
                return;
            }
            line = std::move(Commands.front());
            Commands.pop_front();
        }
        if (!line.empty()) {
            PrintLine(run(line));
        }
    }
}

// Reads standard input and the stopping signals until the stop pipe speaks.
void ReadInput(const std::function<void()>& onStop) {
    bool inputOpen = true;
    bool stopping = false;
    std::string pending;
    for (;;) {
        pollfd fds[3] = {
            {StopPipe[0], POLLIN, 0}, {SignalDescriptor, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (::poll(fds, inputOpen ? 3 : 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[0].revents != 0) {
            return;
        }
        if (fds[1].revents != 0) {
            signalfd_siginfo info{};
            if (::read(SignalDescriptor, &info, sizeof info) > 0 && !stopping) {
                stopping = true;
                onStop();
            }
        }
        if (inputOpen && fds[2].revents != 0) {
            char buffer[4096];
            const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                if (!pending.empty()) {
                    Enqueue(pending);
                    pending.clear();
                }
                inputOpen = false;
                continue;
            }
            pending.append(buffer, static_cast<size_t>(n));
            size_t end;
            while ((end = pending.find('\n')) != std::string::npos) {
                Enqueue(pending.substr(0, end));
                pending.erase(0, end + 1);
            }
        }
    }
}

}  // namespace

void PrintLine(const std::string& line) {
    const std::string text = line + "\n";
    std::lock_guard<std::mutex> guard(OutputLock);
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // nobody reads any more; the station runs on
        }
        done += static_cast<size_t>(n);
    }
}

std::string OneLine(const std::string& text) {
    std::string shown;
    for (const char c : text) {
        if (c == '\r') {
            shown += "\\r";
        } else if (c == '\n') {
            shown += "\\n";
        } else {
            shown += c;
        }
    }
    return shown;
}

std::string Quoted(const std::string& text) {
    std::string shown = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            shown += '\\';
        }
        shown += c;
    }
    return OneLine(shown) + "\"";
}

bool BlockStopSignals() {
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    SignalDescriptor = ::signalfd(-1, &stopping, SFD_CLOEXEC);
    return SignalDescriptor >= 0 && ::pipe2(StopPipe, O_CLOEXEC) == 0;
}

void StartCommandInput(std::function<std::string(const std::string&)> run,
                       std::function<void()> onStop) {
    Reader = std::thread(ReadInput, std::move(onStop));
    Runner = std::thread(RunCommands, std::move(run));
}

void StopCommandInput() {
    const char stop = 's';
    if (::write(StopPipe[1], &stop, 1) < 0) {
        std::perror("kbstation");
    }
    Reader.join();
    CloseQueue();
    Runner.join();
}
