// kbstation: Kestrelbound without a window.
//
// Run in the installation's folder. It reads commands on standard input, one
// a line, and answers each with "ok" or "error: <why>" once it is done. Every
// line the program logs appears as "log: <line>" when it is added, every
// message box as "message: <text>". The user's commands run on the main
// loop's thread, between the window's timers, as clicks would; the end of the
// input leaves the station running, to answer calls; SIGINT and SIGTERM end
// it as the menu's Exit does.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/application.h"
#include "app/main_window.h"
#include "engine/transfer_engine.h"
#include "platform/control_model.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/key_state.h"
#include "platform/message_box.h"
#include "resources/resource.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double DefaultWaitSeconds = 60;

// ---- Output: whole lines, never mixed across threads ----

std::mutex OutputLock;

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

// One line of output per line of text: CR and LF are shown as \r and \n.
std::string OneLine(const std::string& text) {
    std::string shown;
    for (char c : text) {
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

// A text inside double quotes, with quotes, backslashes and line ends escaped.
std::string Quoted(const std::string& text) {
    std::string shown = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            shown += '\\';
            shown += c;
        } else if (c == '\r') {
            shown += "\\r";
        } else if (c == '\n') {
            shown += "\\n";
        } else {
            shown += c;
        }
    }
    return shown + "\"";
}

// ---- What the station has seen: the log, for "wait" ----

std::mutex SeenLock;
std::condition_variable SeenChanged;
std::vector<std::string> LogSeen;
size_t WaitMark = 0;
// Set when the main loop has ended: nothing posted runs any more.
bool LoopEnded = false;

void NoteLogLine(const std::string& line) {
    PrintLine("log: " + OneLine(line));
    std::lock_guard<std::mutex> guard(SeenLock);
    LogSeen.push_back(line);
    SeenChanged.notify_all();
}

void NoteChange() {
    std::lock_guard<std::mutex> guard(SeenLock);
    SeenChanged.notify_all();
}

std::atomic<bool> ShiftDown{false};

// ---- Commands ----

struct Answer {
    bool Ok = true;
    std::string Why;
};

Answer Fail(std::string why) {
    return Answer{false, std::move(why)};
}

Answer FromOutcome(const EventOutcome& outcome) {
    return outcome.Done ? Answer{} : Fail(outcome.Refusal);
}

// Runs a piece of work on the main loop's thread and waits until it is done.
Answer OnMainLoop(std::function<Answer()> work) {
    struct Pending {
        bool Done = false;
        Answer Result;
    };
    auto pending = std::make_shared<Pending>();
    MainLoop().Post([pending, work = std::move(work)] {
        Answer answer = work();
        std::lock_guard<std::mutex> guard(SeenLock);
        pending->Result = std::move(answer);
        pending->Done = true;
        SeenChanged.notify_all();
    });
    std::unique_lock<std::mutex> guard(SeenLock);
    SeenChanged.wait(guard, [&] { return pending->Done || LoopEnded; });
    if (!pending->Done) {
        return Fail("the station is stopping");
    }
    return pending->Result;
}

Answer WindowEventOnLoop(WindowEvent event) {
    return OnMainLoop([event = std::move(event)] {
        MainWindow* window = ActiveMainWindow();
        if (window == nullptr) {
            return Fail("the window is not there");
        }
        return FromOutcome(window->HandleEvent(event));
    });
}

bool ParseSwitch(const std::string& word, bool& on) {
    if (word == "on") {
        on = true;
        return true;
    }
    if (word == "off") {
        on = false;
        return true;
    }
    return false;
}

bool ParseNumber(const std::string& word, double& value) {
    if (word.empty()) {
        return false;
    }
    char* end = nullptr;
    value = std::strtod(word.c_str(), &end);
    return end != nullptr && *end == '\0' && value >= 0;
}

// A row given by its number, or by its text.
Answer SelectRow(int id, const std::string& argument) {
    return OnMainLoop([id, argument] {
        MainWindow* window = ActiveMainWindow();
        if (window == nullptr) {
            return Fail("the window is not there");
        }
        int row = -2;
        bool digits = !argument.empty() && argument.size() <= 6;
        for (char c : argument) {
            digits = digits && c >= '0' && c <= '9';
        }
        if (digits) {
            row = std::atoi(argument.c_str());
        } else {
            const std::vector<ListRow> rows = Controls().Rows(id);
            for (size_t i = 0; i < rows.size(); ++i) {
                if (rows[i].Text == argument) {
                    row = static_cast<int>(i);
                }
            }
            if (row == -2) {
                return Fail(ControlName(id) + " has no row " + argument);
            }
        }
        WindowEvent event;
        event.Kind = EventKind::SelectionChanged;
        event.Id = id;
        event.Row = row;
        return FromOutcome(window->HandleEvent(event));
    });
}

Answer ClickBox(int id, const std::string& argument) {
    bool on = false;
    if (!ParseSwitch(argument, on)) {
        return Fail("say on or off");
    }
    WindowEvent event;
    event.Kind = EventKind::BoxClicked;
    event.Id = id;
    event.Checked = on;
    return WindowEventOnLoop(event);
}

Answer PressButton(int id) {
    WindowEvent event;
    event.Kind = EventKind::ButtonPressed;
    event.Id = id;
    return WindowEventOnLoop(event);
}

Answer MenuCommand(int id) {
    WindowEvent event;
    event.Kind = EventKind::MenuCommand;
    event.Id = id;
    return WindowEventOnLoop(event);
}

Answer AddPath(const std::string& argument) {
    if (argument.empty()) {
        return Fail("add what?");
    }
    std::string path = argument;
    if (path[0] != '/') {
        path = CurrentFolder() + "/" + path;
    }
    if (!PathExists(path)) {
        return Fail("no such file or folder: " + argument);
    }
    return OnMainLoop([path] {
        MainWindow* window = ActiveMainWindow();
        if (window == nullptr) {
            return Fail("the window is not there");
        }
        // A drop during a call does nothing, as the list is shut.
        if (TheEngine.LinkState.load() != LinkIdle) {
            return Fail("the file list is shut during a call");
        }
        WindowEvent event;
        event.Kind = EventKind::FilesDropped;
        event.Id = IDC_FILE_LIST;
        event.Paths = {path};
        return FromOutcome(window->HandleEvent(event));
    });
}

// The button "Add" with PATH picked in its file dialog. Unlike a drop, the
// dialog accepts a file of length 0.
Answer ChooseFile(const std::string& argument) {
    if (argument.empty()) {
        return Fail("choose what?");
    }
    std::string path = argument;
    if (path[0] != '/') {
        path = CurrentFolder() + "/" + path;
    }
    return OnMainLoop([path] {
        MainWindow* window = ActiveMainWindow();
        if (window == nullptr) {
            return Fail("the window is not there");
        }
        window->SetFileChooser([path]() -> std::optional<std::string> { return path; });
        WindowEvent event;
        event.Kind = EventKind::ButtonPressed;
        event.Id = IDC_FILE_ADD;
        Answer answer = FromOutcome(window->HandleEvent(event));
        window->SetFileChooser(nullptr);
        return answer;
    });
}

Answer Show() {
    return OnMainLoop([] {
        for (const ControlState& control : Controls().AllStates()) {
            const std::string name = ControlName(control.Id);
            if (name.empty()) {
                continue;
            }
            std::string line = "control " + name + " text=" + Quoted(control.Text) +
                               " enabled=" + (control.Enabled ? "1" : "0") +
                               " shown=" + (control.Shown ? "1" : "0");
            switch (control.Kind) {
                case ControlKind::CheckBox:
                case ControlKind::RadioButton:
                    line += std::string(" checked=") + (control.Checked ? "1" : "0");
                    break;
                case ControlKind::ListBox:
                case ControlKind::DropDown:
                case ControlKind::ListView: {
                    line += " selected=" + std::to_string(control.Selection);
                    std::string rows;
                    for (size_t i = 0; i < control.Rows.size(); ++i) {
                        rows += (i == 0 ? "" : "|") + control.Rows[i].Text;
                    }
                    line += " rows=" + Quoted(rows);
                    break;
                }
                case ControlKind::ProgressBar:
                    line += " position=" + std::to_string(control.Position);
                    break;
                default:
                    break;
            }
            PrintLine(line);
        }
        // The menus: each with its items, and those that carry a check mark.
        for (const Menu& menu : Controls().Menus()) {
            std::string items;
            std::string checked;
            for (const MenuItem& item : menu.Items) {
                if (item.Text.empty()) {
                    continue;
                }
                items += (items.empty() ? "" : "|") + item.Text;
                if (item.Checked) {
                    checked += (checked.empty() ? "" : "|") + item.Text;
                }
            }
            PrintLine("menu text=" + Quoted(menu.Title) + " items=" + Quoted(items) +
                      " checked=" + Quoted(checked));
        }
        return Answer{};
    });
}

// Waits for a log line holding the text, among the lines added after the one
// the last wait matched.
Answer WaitForLog(const std::string& text, double seconds) {
    const auto deadline =
        Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
    std::unique_lock<std::mutex> guard(SeenLock);
    for (;;) {
        for (size_t i = WaitMark; i < LogSeen.size(); ++i) {
            if (LogSeen[i].find(text) != std::string::npos) {
                WaitMark = i + 1;
                return Answer{};
            }
        }
        WaitMark = WaitMark > LogSeen.size() ? LogSeen.size() : WaitMark;
        if (LoopEnded) {
            return Fail("the station is stopping");
        }
        if (SeenChanged.wait_until(guard, deadline) == std::cv_status::timeout) {
            bool found = false;
            for (size_t i = WaitMark; i < LogSeen.size() && !found; ++i) {
                found = LogSeen[i].find(text) != std::string::npos;
            }
            if (!found) {
                return Fail("timed out waiting for " + text);
            }
        }
    }
}

int StateOfName(const std::string& name) {
    static const char* const Names[] = {"idle",     "dialing",  "connected",
                                        "transfer", "filesent", "recovery"};
    for (int i = 0; i < 6; ++i) {
        if (name == Names[i]) {
            return i;
        }
    }
    return -1;
}

Answer WaitForState(int state, double seconds) {
    const auto deadline =
        Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
    std::unique_lock<std::mutex> guard(SeenLock);
    for (;;) {
        if (TheEngine.LinkState.load() == state) {
            return Answer{};
        }
        if (LoopEnded) {
            return Fail("the station is stopping");
        }
        if (Clock::now() >= deadline) {
            return Fail("timed out waiting for the state");
        }
        // Most changes of the link show in the window and wake this wait;
        // the short limit covers those that do not.
        SeenChanged.wait_for(guard, std::chrono::milliseconds(20));
    }
}

// Splits "TEXT [SECONDS]". A text in double quotes may end in a number;
// otherwise a last word that is a number is the time limit.
void SplitWaitArguments(const std::string& rest, std::string& text, double& seconds) {
    seconds = DefaultWaitSeconds;
    if (!rest.empty() && rest[0] == '"') {
        const size_t close = rest.find('"', 1);
        if (close != std::string::npos) {
            text = rest.substr(1, close - 1);
            double value = 0;
            const size_t at = rest.find_first_not_of(' ', close + 1);
            if (at != std::string::npos && ParseNumber(rest.substr(at), value)) {
                seconds = value;
            }
            return;
        }
    }
    text = rest;
    const size_t space = rest.rfind(' ');
    double value = 0;
    if (space != std::string::npos && ParseNumber(rest.substr(space + 1), value)) {
        text = rest.substr(0, space);
        seconds = value;
    }
}

Answer RunCommand(const std::string& line) {
    const size_t space = line.find(' ');
    const std::string verb = line.substr(0, space);
    const std::string rest = space == std::string::npos ? "" : line.substr(space + 1);

    if (verb == "name" || verb == "number") {
        WindowEvent event;
        event.Kind = EventKind::TextEdited;
        event.Id = verb == "name" ? IDC_NAME : IDC_NUMBER;
        event.Text = rest;
        return WindowEventOnLoop(event);
    }
    if (verb == "protocol") {
        return SelectRow(IDC_PROTOCOL, rest);
    }
    if (verb == "carrier") {
        return SelectRow(IDC_CARRIER, rest);
    }
    if (verb == "in-protocol") {
        return SelectRow(IDC_IN_PROTOCOL, rest);
    }
    static const std::vector<std::pair<std::string, int>> Boxes = {
        {"56k", IDC_56K},
        {"2b", IDC_2B},
        {"v42", IDC_V42},
        {"in-56k", IDC_IN_56K},
        {"in-2b", IDC_IN_2B},
        {"in-v42", IDC_IN_V42},
        {"ignore-hot", IDC_IGNORE_HOT},
    };
    for (const auto& [word, id] : Boxes) {
        if (verb == word) {
            return ClickBox(id, rest);
        }
    }
    if (verb == "add") {
        return AddPath(rest);
    }
    if (verb == "choose") {
        return ChooseFile(rest);
    }
    if (verb == "send") {
        return PressButton(IDC_SEND);
    }
    if (verb == "retrieve") {
        return PressButton(IDC_RETRIEVE);
    }
    if (verb == "disconnect") {
        return PressButton(IDC_DISCONNECT);
    }
    if (verb == "clear-log") {
        return PressButton(IDC_CLEAR_LOG);
    }
    if (verb == "speed") {
        if (rest == "115200") {
            return MenuCommand(ID_PORT_SPEED_115200);
        }
        if (rest == "230400") {
            return MenuCommand(ID_PORT_SPEED_230400);
        }
        return Fail("the speeds are 115200 and 230400");
    }
    if (verb == "wait") {
        std::string text;
        double seconds = 0;
        SplitWaitArguments(rest, text, seconds);
        if (text.empty()) {
            return Fail("wait for what?");
        }
        return WaitForLog(text, seconds);
    }
    if (verb == "wait-state") {
        const size_t gap = rest.find(' ');
        const int state = StateOfName(rest.substr(0, gap));
        if (state < 0) {
            return Fail("the states are idle, dialing, connected, transfer, filesent, recovery");
        }
        double seconds = DefaultWaitSeconds;
        if (gap != std::string::npos && !ParseNumber(rest.substr(gap + 1), seconds)) {
            return Fail("a time limit is a number of seconds");
        }
        return WaitForState(state, seconds);
    }
    if (verb == "shift") {
        // The Shift key, held down as the station starts, forces a new search
        // for the adapter.
        bool on = false;
        if (!ParseSwitch(rest, on)) {
            return Fail("say on or off");
        }
        ShiftDown.store(on);
        return Answer{};
    }
    if (verb == "show") {
        return Show();
    }
    if (verb == "quit") {
        return MenuCommand(ID_FILE_EXIT);
    }
    return Fail("unknown command: " + verb);
}

// ---- The threads around the main loop ----

std::mutex QueueLock;
std::condition_variable QueueChanged;
std::deque<std::string> Commands;
bool QueueClosed = false;

// Runs the commands one after another, each when the one before is done.
void RunCommands() {
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
        if (line.empty()) {
            continue;
        }
        const Answer answer = RunCommand(line);
        PrintLine(answer.Ok ? "ok" : "error: " + OneLine(answer.Why));
    }
}

void Enqueue(std::string line) {
    // Blanks and a CR around a command are no part of it.
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
        line.pop_back();
    }
    const size_t start = line.find_first_not_of(" \t");
    line.erase(0, start == std::string::npos ? line.size() : start);
    std::lock_guard<std::mutex> guard(QueueLock);
    Commands.push_back(std::move(line));
    QueueChanged.notify_all();
}

void CloseQueue() {
    std::lock_guard<std::mutex> guard(QueueLock);
    QueueClosed = true;
    QueueChanged.notify_all();
}

// Reads standard input and the two stopping signals until told to stop.
void ReadInput(int signals, int stopPipe) {
    bool inputOpen = true;
    bool closing = false;
    std::string pending;
    for (;;) {
        pollfd fds[3] = {{stopPipe, POLLIN, 0}, {signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        const nfds_t count = inputOpen ? 3 : 2;
        if (::poll(fds, count, -1) < 0) {
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
            if (::read(signals, &info, sizeof info) > 0 && !closing) {
                closing = true;
                MainLoop().Post([] {
                    if (MainWindow* window = ActiveMainWindow()) {
                        WindowEvent event;
                        event.Kind = EventKind::Close;
                        window->HandleEvent(event);
                    }
                });
            }
        }
        if (inputOpen && fds[2].revents != 0) {
            char buffer[4096];
            const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                // The end of the input leaves the station running.
                if (!pending.empty()) {
                    Enqueue(std::move(pending));
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

int main() {
    // The stopping signals are read as input by one thread; every thread
    // inherits the mask, so none of them is interrupted by them.
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGINT);
    sigaddset(&stopping, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
    // A reader that has gone away must not end the station.
    ::signal(SIGPIPE, SIG_IGN);
    const int signals = ::signalfd(-1, &stopping, SFD_CLOEXEC);
    int stopPipe[2];
    if (signals < 0 || ::pipe2(stopPipe, O_CLOEXEC) != 0) {
        std::perror("kbstation");
        return 1;
    }

    SetMessageBoxHandler([](const std::string& text) { PrintLine("message: " + OneLine(text)); });
    SetKeyStateQuery([](Key key) { return key == Key::Shift && ShiftDown.load(); });
    const int listener = Controls().AddListener([](const ControlEvent&) { NoteChange(); });

    std::thread input(ReadInput, signals, stopPipe[0]);
    std::thread runner(RunCommands);

    TransferApp app;
    app.PrepareWindow = [](MainWindow& window) { window.SetLogObserver(NoteLogLine); };
    app.InitInstance();

    {
        std::lock_guard<std::mutex> guard(SeenLock);
        LoopEnded = true;
        SeenChanged.notify_all();
    }
    const char stop = 's';
    if (::write(stopPipe[1], &stop, 1) < 0) {
        std::perror("kbstation");
    }
    input.join();
    CloseQueue();
    runner.join();
    Controls().RemoveListener(listener);
    SetMessageBoxHandler(nullptr);
    SetKeyStateQuery(nullptr);
    return 0;
}
