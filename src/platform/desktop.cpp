#include "platform/desktop.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace kb::platform {

namespace {

LinuxDesktop DefaultDesktop;
std::atomic<Desktop*> Installed{nullptr};

// The words of a command as execvp takes them, made before the fork: between
// fork and exec a child of a program with threads may only make system calls.
class Argv {
public:
    explicit Argv(const std::vector<std::string>& words) : words_(words) {
        for (std::string& word : words_) {
            pointers_.push_back(word.data());
        }
        pointers_.push_back(nullptr);
    }
    char* const* Get() { return pointers_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char*> pointers_;
};

// In a child about to become another program: the signals this program keeps
// blocked are let through again, so that the new program can be stopped like
// any other, and its output goes nowhere unless it has been put somewhere.
void PrepareChild(bool quietOutput) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
        ::dup2(null, 0);
        if (quietOutput) {
            ::dup2(null, 1);
        }
        ::dup2(null, 2);
    }
}

void Collect(pid_t child, int* status) {
    while (::waitpid(child, status, 0) < 0 && errno == EINTR) {
    }
}

// Starts the command in a process that nothing waits for: a child starts it
// and leaves at once, so the program never has to collect it and it runs on
// after the program has ended.
void StartDetached(const std::vector<std::string>& words) {
    Argv argv(words);
    const pid_t child = ::fork();
    if (child == 0) {
        ::setsid();
        if (::fork() == 0) {
            PrepareChild(true);
            ::execvp(argv.Get()[0], argv.Get());
            ::_exit(127);
        }
        ::_exit(0);
    }
    if (child > 0) {
        Collect(child, nullptr);
    }
}

// How a command run for a limited time went.
struct Bounded {
    enum class Outcome { NotStarted, Exited, StillRunning };
    Outcome How = Outcome::NotStarted;
    int ExitCode = -1;
};

// Runs the command for at most limitMs. A command still running at the limit
// is left to run on its own: a child in between waits for it, reports through
// a pipe and leaves, so the command never has to be collected here.
Bounded RunForAtMost(const std::vector<std::string>& words, int limitMs) {
    Bounded result;
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        return result;
    }
    Argv argv(words);
    const pid_t child = ::fork();
    if (child == 0) {
        ::setsid();
        sigset_t ended;
        sigemptyset(&ended);
        sigaddset(&ended, SIGCHLD);
        // Blocked before the fork, so that an end that comes at once is kept
        // for the wait below.
        sigprocmask(SIG_BLOCK, &ended, nullptr);
        const pid_t command = ::fork();
        if (command == 0) {
            PrepareChild(true);
            ::execvp(argv.Get()[0], argv.Get());
            ::_exit(127);
        }
        int said[2] = {static_cast<int>(Bounded::Outcome::NotStarted), -1};
        if (command > 0) {
            const timespec limit{limitMs / 1000, static_cast<long>(limitMs % 1000) * 1000000L};
            ::sigtimedwait(&ended, nullptr, &limit);
            int status = 0;
            if (::waitpid(command, &status, WNOHANG) == command) {
                said[0] = static_cast<int>(Bounded::Outcome::Exited);
                said[1] = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            } else {
                said[0] = static_cast<int>(Bounded::Outcome::StillRunning);
            }
        }
        if (::write(report[1], said, sizeof said) != static_cast<ssize_t>(sizeof said)) {
            ::_exit(1);
        }
        ::_exit(0);
    }
    ::close(report[1]);
    if (child > 0) {
        int said[2] = {0, -1};
        ssize_t got = 0;
        do {
            got = ::read(report[0], said, sizeof said);
        } while (got < 0 && errno == EINTR);
        Collect(child, nullptr);
        if (got == static_cast<ssize_t>(sizeof said)) {
            result.How = static_cast<Bounded::Outcome>(said[0]);
            result.ExitCode = said[1];
        }
    }
    ::close(report[0]);
    return result;
}

// Runs the command to its end and takes what it prints: the output, or
// nothing if it could not run or did not end with status 0.
std::optional<std::string> OutputOf(const std::vector<std::string>& words) {
    int output[2];
    if (::pipe2(output, O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    Argv argv(words);
    const pid_t child = ::fork();
    if (child == 0) {
        PrepareChild(false);
        ::dup2(output[1], 1);
        ::execvp(argv.Get()[0], argv.Get());
        ::_exit(127);
    }
    ::close(output[1]);
    std::string text;
    if (child > 0) {
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(output[0], buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                break;
            }
            text.append(buffer, static_cast<size_t>(n));
        }
    }
    ::close(output[0]);
    if (child <= 0) {
        return std::nullopt;
    }
    int status = 0;
    Collect(child, &status);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return text;
}

bool GraphicalSession() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            return true;
        }
    }
    return false;
}

// A file path as a URL, every byte outside the unreserved set and "/" escaped,
// so that a folder name with blanks or "#" reaches the browser whole.
std::string FileUrl(const std::string& path) {
    std::string url = "file://";
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                           (byte >= '0' && byte <= '9') || byte == '/' || byte == '-' ||
                           byte == '_' || byte == '.' || byte == '~';
        if (plain) {
            url += c;
        } else {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", byte);
            url += escaped;
        }
    }
    return url;
}

// The filter pairs "Name|pattern|" as zenity takes them.
std::vector<std::string> ZenityFilters(const std::string& filter) {
    std::vector<std::string> parts;
    size_t at = 0;
    while (at < filter.size()) {
        const size_t bar = filter.find('|', at);
        const size_t end = bar == std::string::npos ? filter.size() : bar;
        parts.push_back(filter.substr(at, end - at));
        at = end + 1;
    }
    std::vector<std::string> options;
    for (size_t i = 0; i + 1 < parts.size(); i += 2) {
        if (!parts[i].empty() && !parts[i + 1].empty()) {
            options.push_back("--file-filter=" + parts[i] + " | " + parts[i + 1]);
        }
    }
    return options;
}

}  // namespace

Desktop& TheDesktop() {
    Desktop* desktop = Installed.load();
    return desktop != nullptr ? *desktop : DefaultDesktop;
}

void InstallDesktop(Desktop* desktop) {
    Installed.store(desktop);
}

void LinuxDesktop::ShowFolder(const std::string& path) {
    StartDetached({"xdg-open", path});
}

bool LinuxDesktop::OpenInBrowser(const std::string& page) {
    if (!GraphicalSession()) {
        return false;
    }
    const std::string url = !page.empty() && page[0] == '/' ? FileUrl(page) : page;
    const Bounded run = RunForAtMost({"xdg-open", url}, PageHandOffMs);
    // A handler still busy at the limit is a browser showing the page.
    return run.How == Bounded::Outcome::StillRunning ||
           (run.How == Bounded::Outcome::Exited && run.ExitCode == 0);
}

void LinuxDesktop::ActivateBrowser() {
    // A browser that takes a page from the desktop's handler raises its own
    // window with it; the desktop offers no way of its own to raise another
    // program's window, and none is needed.
}

void LinuxDesktop::StartProgram(const std::string& path) {
    StartDetached({path});
}

namespace {

// What zenity printed for the dialog, without the line ends behind it; "" when
// the dialog was cancelled or could not be shown.
std::string ZenityChoice(const FileDialogRequest& request, std::vector<std::string> options) {
    if (!GraphicalSession()) {
        return "";
    }
    std::vector<std::string> words = {"zenity", "--file-selection"};
    if (!request.Title.empty()) {
        words.push_back("--title=" + request.Title);
    }
    for (std::string& option : options) {
        words.push_back(std::move(option));
    }
    if (request.For == FileDialogRequest::Purpose::Save) {
        words.push_back("--save");
        words.push_back("--confirm-overwrite");
        if (!request.ProposedName.empty()) {
            words.push_back("--filename=" + request.ProposedName);
        }
    }
    if (request.For == FileDialogRequest::Purpose::Folder) {
        words.push_back("--directory");
    } else {
        for (std::string& option : ZenityFilters(request.Filter)) {
            words.push_back(std::move(option));
        }
    }
    std::string chosen = OutputOf(words).value_or("");
    while (!chosen.empty() && (chosen.back() == '\n' || chosen.back() == '\r')) {
        chosen.pop_back();
    }
    return chosen;
}

}  // namespace

std::optional<std::string> LinuxDesktop::ChooseFile(const FileDialogRequest& request) {
    std::string chosen = ZenityChoice(request, {});
    if (chosen.empty()) {
        return std::nullopt;
    }
    return chosen;
}

std::vector<std::string> LinuxDesktop::ChooseFiles(const FileDialogRequest& request) {
    // One path a line: a file name may hold zenity's own separator, "|",
    // but no line end that a file dialog lets a user pick.
    const std::string chosen = ZenityChoice(request, {"--multiple", "--separator=\n"});
    std::vector<std::string> paths;
    size_t at = 0;
    while (at < chosen.size()) {
        const size_t end = std::min(chosen.find('\n', at), chosen.size());
        if (end > at) {
            paths.push_back(chosen.substr(at, end - at));
        }
        at = end + 1;
    }
    return paths;
}

}  // namespace kb::platform
