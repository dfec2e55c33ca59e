// kbstation driven as a user of the station program drives it: a child
// process in an installation folder of its own, commands on its standard
// input, answers and log lines on its standard output.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "stores/status_log.h"
#include "support/temp_folder.h"

namespace {

using namespace std::chrono_literals;

// The ports of the installation are plain files, so the search finds nothing
// there and never touches a real port.
void BlockPorts(const std::string& folder) {
    for (int port = 1; port <= 4; ++port) {
        WriteWholeFile(folder + "/COM" + std::to_string(port), "");
    }
}

// A program with its standard input and output on pipes, in a folder.
class Child {
public:
    Child(const std::string& program, const std::vector<std::string>& arguments,
          const std::string& folder) {
        int in[2];
        int out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe";
            return;
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            if (::chdir(folder.c_str()) != 0) {
                ::_exit(126);
            }
            std::vector<char*> argv;
            std::string name = program;
            argv.push_back(name.data());
            std::vector<std::string> copies = arguments;
            for (std::string& a : copies) {
                argv.push_back(a.data());
            }
            argv.push_back(nullptr);
            ::execv(program.c_str(), argv.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        input_ = in[1];
        output_ = out[0];
        reader_ = std::thread([this] { Read(); });
    }

    ~Child() {
        if (pid_ > 0 && status_ < 0) {
            ::kill(pid_, SIGKILL);
            Wait(10s);
        }
        CloseInput();
        if (reader_.joinable()) {
            reader_.join();
        }
        if (output_ >= 0) {
            ::close(output_);
        }
    }

    void Send(const std::string& line) {
        const std::string text = line + "\n";
        ASSERT_EQ(::write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    void CloseInput() {
        if (input_ >= 0) {
            ::close(input_);
            input_ = -1;
        }
    }

    // Waits for the next line that passes the test, taking every line up to
    // it; "" at the limit.
    template <typename Test>
    std::string Next(Test test, std::chrono::milliseconds limit = 60s) {
        std::unique_lock<std::mutex> guard(lock_);
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            while (taken_ < lines_.size()) {
                const std::string& line = lines_[taken_++];
                if (test(line)) {
                    return line;
                }
            }
            if (ended_ || changed_.wait_until(guard, deadline) == std::cv_status::timeout) {
                return "";
            }
        }
    }

    // Sends a command and returns its answer: "ok" or "error: ...".
    std::string Command(const std::string& command, std::chrono::milliseconds limit = 60s) {
        Send(command);
        return Next(
            [](const std::string& line) { return line == "ok" || line.rfind("error: ", 0) == 0; },
            limit);
    }

    // The lines of a command, up to and without its answer.
    std::vector<std::string> CommandOutput(const std::string& command) {
        const size_t from = Taken();
        Command(command);
        std::lock_guard<std::mutex> guard(lock_);
        return std::vector<std::string>(lines_.begin() + static_cast<long>(from),
                                        lines_.begin() + static_cast<long>(taken_) - 1);
    }

    std::vector<std::string> Lines() const {
        std::lock_guard<std::mutex> guard(lock_);
        return lines_;
    }

    size_t Taken() const {
        std::lock_guard<std::mutex> guard(lock_);
        return taken_;
    }

    // The exit status, or -1 if the program is still running at the limit.
    int Wait(std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (status_ < 0) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return -1;
            }
            std::this_thread::sleep_for(10ms);
        }
        return status_;
    }

    pid_t Pid() const { return pid_; }

private:
    void Read() {
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
        ended_ = true;
        changed_.notify_all();
    }

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int status_ = -1;
    std::thread reader_;
    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    size_t taken_ = 0;
    bool ended_ = false;
};

auto LogHolding(const std::string& text) {
    return [text](const std::string& line) {
        return line.rfind("log: ", 0) == 0 && line.find(text) != std::string::npos;
    };
}

std::vector<std::string> StoredLines(const std::string& path) {
    const std::string bytes = ReadWholeFile(path);
    return LogLinesFromBuffer(bytes.data(), bytes.size());
}

// Every line of output is whole and of one of the kinds the station prints.
void ExpectWholeLines(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        const bool known = line == "ok" || line.rfind("error: ", 0) == 0 ||
                           line.rfind("log: ", 0) == 0 || line.rfind("message: ", 0) == 0 ||
                           line.rfind("control IDC_", 0) == 0 || line.rfind("menu text=", 0) == 0;
        EXPECT_TRUE(known) << line;
    }
}

const std::string kNoAdapter =
    "message: Could not find your ISDN TA.  Please check your cables\\rand make sure the ISDN TA "
    "is powered on.";

TEST(StationTest, WithoutAnAdapterItAnswersEveryCommandAndLeavesOnQuit) {
    TempFolder folder;
    BlockPorts(folder.Path());
    WriteWholeFile(folder / "report.txt", std::string(1000, 'r'));
    Child station(KBSTATION_PATH, {}, folder.Path());

    EXPECT_EQ(station.Command("wait Starting Kestrelbound"), "ok");
    EXPECT_EQ(station.Command("wait ISDN TA not found. 30"), "ok");
    // The message box came before the line that follows it.
    const std::vector<std::string> seen = station.Lines();
    EXPECT_NE(std::find(seen.begin(), seen.end(), kNoAdapter), seen.end());

    EXPECT_EQ(station.Command("name Smith & Sons"), "ok");
    EXPECT_EQ(station.Command("number 555 1234"), "ok");
    EXPECT_EQ(station.Command("2b on"), "error: IDC_2B is hidden");
    EXPECT_EQ(station.Command("56k maybe"), "error: say on or off");
    EXPECT_EQ(station.Command("send"), "error: IDC_SEND is disabled");
    EXPECT_EQ(station.Command("carrier MCI"), "ok");
    EXPECT_EQ(station.Command("protocol 7"), "error: IDC_PROTOCOL has no row 7");
    EXPECT_EQ(station.Command("add nothing here"), "error: no such file or folder: nothing here");
    EXPECT_EQ(station.Command("add report.txt"), "ok");
    EXPECT_EQ(station.Command("frobnicate"), "error: unknown command: frobnicate");
    EXPECT_EQ(station.Command("wait never logged 0.2"),
              "error: timed out waiting for never logged");
    EXPECT_EQ(station.Command("wait-state idle 1"), "ok");
    EXPECT_EQ(station.Command("wait-state connected 0.1"),
              "error: timed out waiting for the state");
    EXPECT_EQ(station.Command("wait-state dozing"),
              "error: the states are idle, dialing, connected, transfer, filesent, recovery");

    const std::vector<std::string> shown = station.CommandOutput("show");
    auto control = [&](const std::string& name) {
        for (const std::string& line : shown) {
            if (line.rfind("control " + name + " ", 0) == 0) {
                return line;
            }
        }
        return std::string();
    };
    EXPECT_EQ(control("IDC_NAME"), "control IDC_NAME text=\"Smith & Sons\" enabled=1 shown=1");
    EXPECT_EQ(control("IDC_SEND"), "control IDC_SEND text=\"Send\" enabled=1 shown=1");
    EXPECT_EQ(control("IDC_RETRIEVE"), "control IDC_RETRIEVE text=\"Retrieve\" enabled=0 shown=1");
    EXPECT_EQ(control("IDC_FILE_LIST"),
              "control IDC_FILE_LIST text=\"\" enabled=1 shown=1 selected=-1 rows=\"report.txt\"");
    EXPECT_EQ(control("IDC_CARRIER"),
              "control IDC_CARRIER text=\"\" enabled=1 shown=1 selected=2 "
              "rows=\"Default|AT&T|MCI|Sprint\"");
    EXPECT_EQ(control("IDC_2B"), "control IDC_2B text=\"2B\" enabled=1 shown=0 checked=0");
    EXPECT_EQ(control("IDC_TOTAL_KB"), "control IDC_TOTAL_KB text=\"1 KB\" enabled=1 shown=1");
    EXPECT_EQ(control("IDC_PROGRESS"),
              "control IDC_PROGRESS text=\"\" enabled=1 shown=0 position=0");
    // One line for each named control and one for each menu.
    EXPECT_EQ(shown.size(), 48u);
    EXPECT_EQ(shown.back(), "menu text=\"&Port Speed\" items=\"115200|230400\" checked=\"\"");

    EXPECT_EQ(station.Command("clear-log"), "ok");
    EXPECT_EQ(station.Command("quit"), "ok");
    EXPECT_EQ(station.Wait(30s), 0);
    ExpectWholeLines(station.Lines());

    // Cleared, then the Stopping line alone; no adapter, so the preferences
    // are the first run's.
    const std::vector<std::string> stored = StoredLines(folder / "kestrelbound_log");
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].rfind("Stopping Kestrelbound ", 0), 0u);
    const std::string prefs = ReadWholeFile(folder / "kestrelbound_prefs");
    ASSERT_EQ(prefs.size(), 1176u);
    EXPECT_EQ(prefs.substr(0, 8), std::string("\0\0\0\0\x80\x25\0\0", 8));
    EXPECT_EQ(prefs.find_first_not_of('\0', 8), std::string::npos);
}

TEST(StationTest, TheEndOfInputLeavesItRunningAndSigtermEndsItAsQuitDoes) {
    TempFolder folder;
    BlockPorts(folder.Path());
    Child station(KBSTATION_PATH, {}, folder.Path());
    ASSERT_EQ(station.Command("wait ISDN TA not found. 30"), "ok");
    station.CloseInput();
    // Still answering: an unattended station waits for calls.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(station.Wait(0ms), -1);
    ASSERT_EQ(::kill(station.Pid(), SIGTERM), 0);
    EXPECT_EQ(station.Wait(30s), 0);
    EXPECT_NE(station.Next(LogHolding("Stopping Kestrelbound ")), "");
    const std::vector<std::string> stored = StoredLines(folder / "kestrelbound_log");
    ASSERT_GE(stored.size(), 2u);
    EXPECT_EQ(stored.front().rfind("Starting Kestrelbound ", 0), 0u);
    EXPECT_EQ(stored.back().rfind("Stopping Kestrelbound ", 0), 0u);
}

TEST(StationTest, WithAnAdapterTheStationSavesWhatItLearntAtExit) {
    TempFolder folder;
    BlockPorts(folder.Path());
    ASSERT_TRUE(DeleteFileAt(folder / "COM1"));
    Child adapters(VIRTUAL_TA_PATH, {folder / "COM1=zyxel-2864:5551234"}, "/");
    ASSERT_EQ(adapters.Next([](const std::string& line) { return line == "ready"; }, 20s), "ready");

    Child station(KBSTATION_PATH, {}, folder.Path());
    ASSERT_EQ(station.Command("wait Initializing Incoming: 60"), "ok");
    ASSERT_EQ(station.Command("wait-state idle"), "ok");
    // The ZyXEL's own controls are shown now, and answer.
    EXPECT_EQ(station.Command("2b on"), "ok");
    EXPECT_EQ(station.Command("quit"), "ok");
    EXPECT_EQ(station.Wait(30s), 0);
    ExpectWholeLines(station.Lines());

    // Port 1, the ZyXEL family, and a top speed above the first run's.
    const std::string prefs = ReadWholeFile(folder / "kestrelbound_prefs");
    ASSERT_EQ(prefs.size(), 1176u);
    EXPECT_EQ(prefs.substr(0, 2), std::string("\x01\x00", 2));
    EXPECT_EQ(prefs.substr(12, 2), std::string("\x14\x00", 2));
    EXPECT_NE(prefs.substr(4, 4), std::string("\x80\x25\0\0", 4));
    const std::vector<std::string> stored = StoredLines(folder / "kestrelbound_log");
    ASSERT_FALSE(stored.empty());
    EXPECT_EQ(stored.back().rfind("Stopping Kestrelbound ", 0), 0u);
    ::kill(adapters.Pid(), SIGTERM);
    adapters.Wait(10s);
}

TEST(StationTest, StationsThatLeaveDuringATransferStopCleanlyAndLeaveNoPartialFile) {
    TempFolder folder;
    const std::string sender = folder / "sender";
    const std::string receiver = folder / "receiver";
    ASSERT_TRUE(CreateFolder(sender));
    ASSERT_TRUE(CreateFolder(receiver));
    // 1 MB at 8000 bytes a second: the transfer is sure to be under way.
    WriteWholeFile(sender + "/big.bin", std::string(1000000, 'b'));
    Child adapters(
        VIRTUAL_TA_PATH,
        {"--rate", "8000", sender + "/COM1=bitsurfr:5551111", receiver + "/COM1=3com:5552222"},
        "/");
    ASSERT_EQ(adapters.Next([](const std::string& line) { return line == "ready"; }, 20s), "ready");
    Child a(KBSTATION_PATH, {}, sender);
    Child b(KBSTATION_PATH, {}, receiver);
    ASSERT_EQ(a.Command("wait Initializing Incoming: 60"), "ok");
    ASSERT_EQ(b.Command("wait Initializing Incoming: 60"), "ok");
    ASSERT_EQ(b.Command("wait-state idle"), "ok");
    ASSERT_EQ(a.Command("number 5552222"), "ok");
    ASSERT_EQ(a.Command("add big.bin"), "ok");
    ASSERT_EQ(a.Command("send"), "ok");
    ASSERT_EQ(b.Command("wait Receiving File: big.bin"), "ok");
    ASSERT_EQ(b.Command("wait-state transfer"), "ok");
    ASSERT_EQ(a.Command("wait-state transfer"), "ok");
    ASSERT_TRUE(PathExists(receiver + "/Incoming Files/big.bin"));

    // The receiver leaves in the middle of the file: its threads stop, and
    // the file that can never be finished does not stay.
    EXPECT_EQ(b.Command("quit"), "ok");
    EXPECT_EQ(b.Wait(30s), 0);
    EXPECT_FALSE(PathExists(receiver + "/Incoming Files/big.bin"));
    const std::vector<std::string> stored = StoredLines(receiver + "/kestrelbound_log");
    ASSERT_FALSE(stored.empty());
    EXPECT_EQ(stored.back().rfind("Stopping Kestrelbound ", 0), 0u);

    // The sender leaves while its feeder and writer may still be at work.
    EXPECT_EQ(a.Command("quit"), "ok");
    EXPECT_EQ(a.Wait(30s), 0);
    ExpectWholeLines(a.Lines());
    ExpectWholeLines(b.Lines());
    ::kill(adapters.Pid(), SIGTERM);
    adapters.Wait(10s);
}

}  // namespace
