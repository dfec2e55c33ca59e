// Benchmark: one transfer on a virtual-ta line, by two stations or by ZMODEM
// (lrzsz's sz and rz on the two adapters' ports once a call is up), or the
// start-up time of a station on each adapter family. bench/compare.sh runs the
// cases and makes the table; each run prints one line of figures:
//   seconds=S bytes=B sender_cpu=S receiver_cpu=S sender_kb=K receiver_kb=K
//   identical=1|0 (0: a file arrived damaged), and for the stations
//   tools_cpu=S (every virtual-ta's processor seconds over the timed span)
//   set_up=S (from Alice's "send" to her first "Sending File: ")
//
// Usage: kb_transfer_bench [--program kestrelbound|zmodem] [--rate N]
//            [--channels 1|2] [--size BYTES] [--files N] [--noise P] [--logs]
//            [--across plain|tls [--delay MS]]
//        kb_transfer_bench --startup
//   --rate      bytes per second per B channel (virtual-ta's --rate; 0 = as
//               fast as the ports go)
//   --channels  2 sets both adapters up for AIMUX, so that the call bundles
//   --size      the bytes of each file (random), --files how many files
//   --noise     each byte that either adapter sends is garbled with
//               probability P (virtual-ta's noise fault, fixed seeds)
//   --logs      prints the stations' logs also when all went well
//   --across    the stations' adapters on two virtual-ta processes, Alice's
//               calling Bob's over TCP on loopback, plain or over TLS; the
//               stations alone, not ZMODEM
//   --delay     the call's connection through a relay that holds every byte
//               MS milliseconds each way
//   --startup   prints "FAMILY seconds" for each adapter family: from the
//               start of a station to its "Initializing Incoming"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "support/far_end.h"
#include "support/installation.h"
#include "support/process_state.h"
#include "support/tcp_relay.h"

namespace kb::bench {

using namespace kb::test;

namespace {

using Clock = std::chrono::steady_clock;

struct Settings {
    std::string Program = "kestrelbound";
    int Rate = 8000;
    int Channels = 1;
    size_t Size = 1 << 20;
    int Files = 1;
    std::string Noise;  // "" for a clean line
    bool ShowLogs = false;
    std::string Across;  // "" for both adapters on one virtual-ta, "plain" or "tls"
    int DelayMs = 0;
};

struct Figures {
    double Seconds = 0;
    double SenderCpu = 0;  // processor seconds, user and system
    double ReceiverCpu = 0;
    long SenderPeakKb = 0;
    long ReceiverPeakKb = 0;
    double ToolsCpu = 0;  // every virtual-ta together, over the same span as the stations'
    // From Alice's "send" to her first "Sending File: ": the call's set-up
    // and the file list, which a delay of the network stretches.
    double SetUpSeconds = 0;
    // Whether every file arrived as sent. A run whose transfer ended but
    // delivered a damaged file still has its figures: on a noisy line that
    // is part of the result.
    bool Identical = false;
};

// The adapters: a BitSURFR calls an AdTran. For two channels both are set up
// for AIMUX, as the program's own AIMUX profiles set them.
const char* const CallerNumber = "5551001";
const char* const AnswererNumber = "5552002";
const char* const CallerTwoChannels = "AT\\Q3%A2=3&M0%A4=0S0=0S12=25&D0&C1W1E1@M2=P@B0=2&R1";
const char* const AnswererTwoChannels = "AT&F4\\Q3&D0X1S0=0S12=25S53=3S54=2S15=1";

std::vector<std::string> AdapterOptions(const Settings& settings) {
    std::vector<std::string> options = {"--rate", std::to_string(settings.Rate)};
    if (!settings.Noise.empty()) {
        // Both directions are noisy, each from a seed of its own.
        options.insert(
            options.end(),
            {"--fault", "noise:" + std::string(CallerNumber) + ":" + settings.Noise + ":1",
             "--fault", "noise:" + std::string(AnswererNumber) + ":" + settings.Noise + ":2"});
    }
    return options;
}

// Processor time of a running process, user and system, in seconds.
double ProcessorSeconds(pid_t pid) {
    return ProcessCpuMs(pid) / 1000;
}

// Peak resident memory of a running process, in kB.
long PeakResidentKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

// The line ID of the key in the file, made there if missing.
std::string LineIdOf(const std::string& keyFile) {
    ChildProcess show(VIRTUAL_TA_PATH, {"--show-identity", "--identity", keyFile});
    std::string id;
    if (!show.NextLine(id, std::chrono::seconds(20)) ||
        show.WaitForExit(std::chrono::seconds(20)) != 0) {
        throw std::runtime_error("virtual-ta --show-identity --identity " + keyFile + " failed");
    }
    return id;
}

// The adapters of a run: both on one virtual-ta, or Bob's on one that listens
// and Alice's on another that routes his number there, and through a relay
// when the network is to be far away.
class Adapters {
public:
    Adapters(const Settings& settings, const std::string& alicePath, const std::string& bobPath,
             const TempFolder& root) {
        const std::string alice = alicePath + "/COM1=bitsurfr:" + CallerNumber;
        const std::string bob = bobPath + "/COM1=adtran-xr:" + AnswererNumber;
        if (settings.Across.empty()) {
            tools_.push_back(std::make_unique<VirtualAdapters>(std::vector{alice, bob},
                                                               AdapterOptions(settings)));
            return;
        }
        const bool tls = settings.Across == "tls";
        std::vector<std::string> bobs = AdapterOptions(settings);
        std::vector<std::string> alices = bobs;
        std::string routeId;
        if (tls) {
            bobs.insert(bobs.end(),
                        {"--identity", root / "bob.key", "--peer", LineIdOf(root / "alice.key")});
            alices.insert(alices.end(), {"--identity", root / "alice.key"});
            routeId = "/" + LineIdOf(root / "bob.key");
        }
        bobs.insert(bobs.end(), {"--listen", "127.0.0.1:0"});
        tools_.push_back(std::make_unique<VirtualAdapters>(std::vector{bob}, bobs));
        uint16_t port = ListeningPort(tools_.back()->OutputLines());
        if (settings.DelayMs > 0) {
            relay_ = std::make_unique<TcpRelay>(port, std::chrono::milliseconds(settings.DelayMs));
            port = relay_->Port();
        }
        alices.insert(alices.end(), {"--route", std::string(AnswererNumber) + "=127.0.0.1:" +
                                                    std::to_string(port) + routeId});
        tools_.push_back(std::make_unique<VirtualAdapters>(std::vector{alice}, alices));
    }

    // Processor seconds of every virtual-ta so far.
    double ProcessorSeconds() const {
        double seconds = 0;
        for (const auto& tool : tools_) {
            seconds += ProcessCpuMs(tool->Pid()) / 1000;
        }
        return seconds;
    }

private:
    std::vector<std::unique_ptr<VirtualAdapters>> tools_;
    std::unique_ptr<TcpRelay> relay_;
};

// The files to send, random, in a folder of their own; their names in order.
std::vector<std::string> MakeFiles(const std::string& folder, const Settings& settings) {
    ::mkdir(folder.c_str(), 0755);
    std::vector<std::string> names;
    for (int i = 0; i < settings.Files; ++i) {
        names.push_back("file" + std::to_string(i) + ".bin");
        WriteWholeFile(folder + "/" + names.back(),
                       RandomBytes(settings.Size, static_cast<uint32_t>(i + 1)));
    }
    return names;
}

bool SameFiles(const std::string& sent, const std::string& received,
               const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (ReadWholeFile(received + "/" + name) != ReadWholeFile(sent + "/" + name)) {
            std::fprintf(stderr, "%s did not arrive identical\n", name.c_str());
            return false;
        }
    }
    return true;
}

void PrintLogs(Station& alice, Station& bob) {
    std::fprintf(stderr, "alice:\n%s\nbob:\n%s\n", alice.LogText().c_str(), bob.LogText().c_str());
}

// Two stations; the time runs from the first "Sending File: " to "All files
// sent.", processor time over the same span.
bool RunStations(const Settings& settings, Figures& figures) {
    TempFolder root;
    const std::string alicePath = MakeInstallation(root, "alice");
    const std::string bobPath = MakeInstallation(root, "bob");
    const std::vector<std::string> names = MakeFiles(root / "out", settings);
    const Adapters adapters(settings, alicePath, bobPath, root);
    Station alice(alicePath);
    Station bob(bobPath);
    std::string add = "add";
    for (const std::string& name : names) {
        add += " " + root / "out" + "/" + name;
    }
    const bool twoChannels = settings.Channels == 2;
    if (!alice.WaitForLog("Initializing Incoming") || !bob.WaitForLog("Initializing Incoming") ||
        (twoChannels && bob.Command("in-protocol AIMUX") != "ok") ||
        (twoChannels && alice.Command("protocol AIMUX") != "ok") ||
        alice.Command("name Bob") != "ok" || alice.Command("number 5552002") != "ok" ||
        alice.Command(add) != "ok") {
        std::fprintf(stderr, "the stations did not get ready\n");
        PrintLogs(alice, bob);
        return false;
    }
    const auto sendAt = Clock::now();
    if (alice.Command("send") != "ok" ||
        !alice.WaitForLog("Sending File: ", std::chrono::seconds(120))) {
        std::fprintf(stderr, "the transfer did not start\n");
        PrintLogs(alice, bob);
        return false;
    }
    const auto start = Clock::now();
    figures.SetUpSeconds = std::chrono::duration<double>(start - sendAt).count();
    const double aliceStart = ProcessorSeconds(alice.Pid());
    const double bobStart = ProcessorSeconds(bob.Pid());
    const double toolsStart = adapters.ProcessorSeconds();
    if (!alice.WaitForLog("All files sent.", std::chrono::hours(3))) {
        std::fprintf(stderr, "the transfer did not end\n");
        PrintLogs(alice, bob);
        return false;
    }
    figures.Seconds = std::chrono::duration<double>(Clock::now() - start).count();
    figures.SenderCpu = ProcessorSeconds(alice.Pid()) - aliceStart;
    figures.ReceiverCpu = ProcessorSeconds(bob.Pid()) - bobStart;
    figures.ToolsCpu = adapters.ProcessorSeconds() - toolsStart;
    figures.SenderPeakKb = PeakResidentKb(alice.Pid());
    figures.ReceiverPeakKb = PeakResidentKb(bob.Pid());
    if (!bob.WaitForLog("All files received.", std::chrono::seconds(120))) {
        PrintLogs(alice, bob);
        return false;
    }
    figures.Identical = SameFiles(root / "out", bobPath + "/Incoming Files", names);
    if (settings.ShowLogs) {
        PrintLogs(alice, bob);
    }
    alice.Quit();
    bob.Quit();
    return true;
}

// Starts program in folder with the port as its standard input and output
// and its standard error in the file errors.
pid_t StartOnPort(const std::string& folder, int port, const std::string& errors,
                  std::vector<std::string> arguments) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::chdir(folder.c_str()) != 0) {
            ::_exit(126);
        }
        // The programs expect a blocking terminal, as a login gives them.
        ::fcntl(port, F_SETFL, ::fcntl(port, F_GETFL) & ~O_NONBLOCK);
        ::dup2(port, 0);
        ::dup2(port, 1);
        const int errorFile = ::open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(errorFile, 2);
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    return pid;
}

// Waits for the child, up to the limit; false unless it exits 0. Its
// processor seconds and peak memory go to the figures.
bool Reap(pid_t pid, std::chrono::seconds limit, double& cpu, long& peakKb) {
    int status = 0;
    rusage usage{};
    const auto end = Clock::now() + limit;
    pid_t reaped = 0;
    while ((reaped = ::wait4(pid, &status, WNOHANG, &usage)) == 0 && Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (reaped != pid) {
        ::kill(pid, SIGKILL);
        ::wait4(pid, &status, 0, &usage);
        return false;
    }
    cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
          static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    peakKb = usage.ru_maxrss;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// sz and rz on a call between the adapters: the ports are opened as a station
// opens its port (raw, RTS/CTS, 115200), the call is set up with AT commands,
// and the time runs from the start of both programs to the end of sz, which
// comes once rz has confirmed the end of the session. rz itself sometimes
// lingers on its way out (it puts its terminal back into echo mode while the
// far end's last bytes are still coming), which is no time of the transfer.
bool RunZmodem(const Settings& settings, Figures& figures) {
    TempFolder root;
    const std::vector<std::string> names = MakeFiles(root / "out", settings);
    const std::string inFolder = root / "in";
    ::mkdir(inFolder.c_str(), 0755);
    VirtualAdapters adapters(
        {root / "caller=bitsurfr:" + CallerNumber, root / "answerer=adtran-xr:" + AnswererNumber},
        AdapterOptions(settings));
    FarEnd caller(root / "caller");
    FarEnd answerer(root / "answerer");
    if (settings.Channels == 2 &&
        (caller.Command(CallerTwoChannels).find("OK") == std::string::npos ||
         answerer.Command(AnswererTwoChannels).find("OK") == std::string::npos)) {
        std::fprintf(stderr, "the adapters refused the two-channel set-up\n");
        return false;
    }
    bool answered = false;
    std::thread answering([&] { answered = answerer.Answer(30000); });
    const bool dialled = caller.Dial(AnswererNumber);
    answering.join();
    if (!dialled || !answered) {
        std::fprintf(stderr, "the call did not come up\n");
        return false;
    }
    std::vector<std::string> send = {"sz", "-q"};
    for (const std::string& name : names) {
        send.push_back(name);
    }
    const auto start = Clock::now();
    const pid_t receiver =
        StartOnPort(inFolder, answerer.Descriptor(), root / "rz.err", {"rz", "-q"});
    const pid_t sender = StartOnPort(root / "out", caller.Descriptor(), root / "sz.err", send);
    const bool sent = Reap(sender, std::chrono::hours(3), figures.SenderCpu, figures.SenderPeakKb);
    figures.Seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const bool received =
        Reap(receiver, std::chrono::seconds(60), figures.ReceiverCpu, figures.ReceiverPeakKb);
    if (!sent || !received) {
        std::fprintf(stderr, "sz or rz failed:\n%s\n%s\n", ReadWholeFile(root / "sz.err").c_str(),
                     ReadWholeFile(root / "rz.err").c_str());
        return false;
    }
    figures.Identical = SameFiles(root / "out", inFolder, names);
    return true;
}

// Each family's station from its start to "Initializing Incoming", the median
// of three starts.
bool RunStartup() {
    for (const char* family : {"bitsurfr", "adtran-xr", "adtran-xrt", "zyxel-2864", "zyxel-omninet",
                               "zyxel-ta128", "3com"}) {
        std::vector<double> seconds;
        for (int i = 0; i < 3; ++i) {
            TempFolder root;
            const std::string path = MakeInstallation(root, "station");
            VirtualAdapters adapters({path + "/COM1=" + family + ":5551001"});
            const auto start = Clock::now();
            Station station(path);
            if (!station.WaitForLog("Initializing Incoming", std::chrono::seconds(120))) {
                std::fprintf(stderr, "%s: no \"Initializing Incoming\"\n%s\n", family,
                             station.LogText().c_str());
                return false;
            }
            seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
            station.Quit();
        }
        std::sort(seconds.begin(), seconds.end());
        std::printf("%s %.2f\n", family, seconds[1]);
        std::fflush(stdout);
    }
    return true;
}

}  // namespace

}  // namespace kb::bench

int main(int argc, char** argv) {
    using namespace kb::bench;

    Settings settings;
    bool startup = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const bool hasValue = i + 1 < argc;
        if (option == "--startup") {
            startup = true;
        } else if (option == "--program" && hasValue) {
            settings.Program = argv[++i];
        } else if (option == "--rate" && hasValue) {
            settings.Rate = std::stoi(argv[++i]);
        } else if (option == "--channels" && hasValue) {
            settings.Channels = std::stoi(argv[++i]);
        } else if (option == "--size" && hasValue) {
            settings.Size = std::stoul(argv[++i]);
        } else if (option == "--files" && hasValue) {
            settings.Files = std::stoi(argv[++i]);
        } else if (option == "--logs") {
            settings.ShowLogs = true;
        } else if (option == "--noise" && hasValue) {
            settings.Noise = argv[++i];
        } else if (option == "--across" && hasValue) {
            settings.Across = argv[++i];
        } else if (option == "--delay" && hasValue) {
            settings.DelayMs = std::stoi(argv[++i]);
        } else {
            std::fprintf(stderr,
                         "usage: kb_transfer_bench [--program kestrelbound|zmodem] [--rate N] "
                         "[--channels 1|2] [--size BYTES] [--files N] [--noise P] [--logs] "
                         "[--across plain|tls [--delay MS]] | --startup\n");
            return 2;
        }
    }
    // The noise faults name both adapters, which two tools do not share; and
    // ZMODEM runs on one tool's ports.
    const bool acrossKnown =
        settings.Across.empty() || settings.Across == "plain" || settings.Across == "tls";
    if (!acrossKnown ||
        (!settings.Across.empty() && (!settings.Noise.empty() || settings.Program == "zmodem")) ||
        (settings.DelayMs != 0 && settings.Across.empty())) {
        std::fprintf(stderr,
                     "--across is plain or tls, without --noise or ZMODEM; --delay needs it\n");
        return 2;
    }
    if (startup) {
        return RunStartup() ? 0 : 1;
    }
    Figures figures;
    // A tool that does not start (an option it does not know, say) throws.
    try {
        const bool done = settings.Program == "zmodem" ? RunZmodem(settings, figures)
                                                       : RunStations(settings, figures);
        if (!done) {
            return 1;
        }
    } catch (const std::exception& thrown) {
        std::fprintf(stderr, "%s\n", thrown.what());
        return 1;
    }
    std::printf(
        "seconds=%.3f bytes=%zu sender_cpu=%.3f receiver_cpu=%.3f sender_kb=%ld "
        "receiver_kb=%ld identical=%d",
        figures.Seconds, settings.Size * static_cast<size_t>(settings.Files), figures.SenderCpu,
        figures.ReceiverCpu, figures.SenderPeakKb, figures.ReceiverPeakKb,
        figures.Identical ? 1 : 0);
    if (settings.Program != "zmodem") {
        std::printf(" tools_cpu=%.3f set_up=%.3f", figures.ToolsCpu, figures.SetUpSeconds);
    }
    std::printf("\n");
    return 0;
}
