// Soak: many calls in a row between two stations on one virtual-ta, as an
// unattended pair of stations would take them, sampling what each of the
// three processes holds: resident memory, open descriptors and threads.
// bench/soak.sh runs it, makes the table and the plot and judges the growth.
//
// The calls vary: mostly Alice sends Bob a few files, every third call Bob
// sends to Alice, every tenth Alice fetches the files that Bob keeps for her
// in a pick-up folder, and every twenty-fifth the line falls in the middle of
// a file (virtual-ta's drop fault). Each file that arrives is compared with
// what was sent and then removed, so that the folders stay small.
//
// Usage: kb_soak [--calls N] [--every N]
//   --calls  how many calls (default 500)
//   --every  a sample after every that many calls (default 25), and one
//            before the first
// Prints a header line and then one line per sample:
//   call alice_kb alice_fds alice_threads bob_kb ... vta_kb vta_fds vta_threads
// and its progress on standard error. Exits 1 if a call goes wrong.

#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "harness.h"
#include "support/installation.h"
#include "support/temp_folder.h"

namespace kb::bench {

using namespace kb::test;

namespace {

const char* const AliceNumber = "5551001";
const char* const BobNumber = "5552002";
// Alice's data bytes after which the line falls in a call that is cut off;
// the other calls send fewer (three files of at most 21 KB).
constexpr size_t CutAfter = 100000;
constexpr size_t CutFileSize = 300000;

// What /proc tells of a process: resident memory in kB, open descriptors,
// threads.
struct Holding {
    long ResidentKb = -1;
    long Descriptors = -1;
    long Threads = -1;
};

Holding HoldingOf(pid_t pid) {
    Holding holding;
    const std::string base = "/proc/" + std::to_string(pid);
    std::ifstream status(base + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            holding.ResidentKb = std::stol(line.substr(6));
        } else if (line.rfind("Threads:", 0) == 0) {
            holding.Threads = std::stol(line.substr(8));
        }
    }
    if (DIR* folder = ::opendir((base + "/fd").c_str())) {
        holding.Descriptors = 0;
        while (const dirent* entry = ::readdir(folder)) {
            holding.Descriptors += entry->d_name[0] == '.' ? 0 : 1;
        }
        ::closedir(folder);
        --holding.Descriptors;  // the listing's own
    }
    return holding;
}

struct File {
    std::string Name;
    std::string Bytes;
};

// A few files for one call, named after it so that no name repeats.
std::vector<File> FilesOfCall(int call) {
    std::vector<File> files;
    for (int i = 0; i < 3; ++i) {
        const size_t size = 1024 + static_cast<size_t>((call * 7919 + i * 104729) % 20000);
        files.push_back({"call" + std::to_string(call) + "-" + std::to_string(i) + ".bin",
                         RandomBytes(size, static_cast<uint32_t>(call * 3 + i + 1))});
    }
    return files;
}

class Soak {
public:
    explicit Soak(int calls) {
        alicePath_ = MakeInstallation(root_, "alice");
        bobPath_ = MakeInstallation(root_, "bob");
        std::vector<std::string> options = {"--rate", "0"};
        // One drop fault for each call that is cut off; a call in which Alice
        // sends fewer bytes leaves the next fault for a later call.
        for (int call = 1; call <= calls; ++call) {
            if (IsCutOff(call)) {
                options.insert(options.end(), {"--fault", "drop:" + std::string(AliceNumber) + ":" +
                                                              std::to_string(CutAfter)});
            }
        }
        adapters_ = std::make_unique<VirtualAdapters>(
            std::vector<std::string>{alicePath_ + "/COM1=bitsurfr:" + AliceNumber,
                                     bobPath_ + "/COM1=adtran-xr:" + BobNumber},
            options);
        alice_ = std::make_unique<Station>(alicePath_);
        bob_ = std::make_unique<Station>(bobPath_);
    }

    static bool IsCutOff(int call) { return call % 25 == 12; }

    bool SetUp() {
        // Bob keeps a pick-up folder for Alice; each station's panel shows
        // the other's number.
        return Ok(*alice_, "wait Initializing Incoming") &&
               Ok(*bob_, "wait Initializing Incoming") &&
               Ok(*alice_, "number " + std::string(BobNumber)) && Ok(*bob_, "name Alice") &&
               Ok(*bob_, "number " + std::string(AliceNumber)) && Ok(*bob_, "entry add") &&
               Ok(*bob_, "make-folder");
    }

    bool Call(int call) {
        if (IsCutOff(call)) {
            return CutOff(call);
        }
        const std::vector<File> files = FilesOfCall(call);
        if (call % 10 == 0) {
            return Retrieve(files);
        }
        if (call % 3 == 0) {
            return Send(*bob_, *alice_, alicePath_, files);
        }
        return Send(*alice_, *bob_, bobPath_, files);
    }

    void Sample(int call) {
        std::printf("%d", call);
        for (const pid_t pid : {alice_->Pid(), bob_->Pid(), adapters_->Pid()}) {
            const Holding holding = HoldingOf(pid);
            std::printf(" %ld %ld %ld", holding.ResidentKb, holding.Descriptors, holding.Threads);
        }
        std::printf("\n");
        std::fflush(stdout);
    }

    bool End() { return alice_->Quit() == 0 && bob_->Quit() == 0; }

    void PrintLogs() const {
        std::fprintf(stderr, "alice:\n%s\nbob:\n%s\n", alice_->LogText().c_str(),
                     bob_->LogText().c_str());
    }

private:
    static bool Ok(Station& station, const std::string& command) {
        const std::string answer = station.Command(command);
        if (answer != "ok") {
            std::fprintf(stderr, "%s: %s\n", command.c_str(), answer.c_str());
        }
        return answer == "ok";
    }

    static std::string Add(const std::string& folder, const std::vector<File>& files) {
        std::string command = "add";
        for (const File& file : files) {
            WriteWholeFile(folder + "/" + file.Name, file.Bytes);
            command += " \"" + folder + "/" + file.Name + "\"";
        }
        return command;
    }

    bool BothIdle() {
        return Ok(*alice_, "wait-state idle 120") && Ok(*bob_, "wait-state idle 120");
    }

    // Each file arrived as sent; then the arrivals and the files sent go.
    bool Arrived(const std::string& folder, const std::vector<File>& files) {
        bool same = true;
        for (const File& file : files) {
            if (ReadWholeFile(folder + "/" + file.Name) != file.Bytes) {
                std::fprintf(stderr, "%s/%s did not arrive as sent\n", folder.c_str(),
                             file.Name.c_str());
                same = false;
            }
        }
        Tidy();
        return same;
    }

    void Tidy() {
        for (const std::string& folder :
             {alicePath_ + "/Incoming Files", bobPath_ + "/Incoming Files", root_ / "out",
              bobPath_ + "/Pick Up/Alice/Sent Files"}) {
            std::error_code error;
            for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
                std::filesystem::remove_all(entry.path(), error);
            }
        }
    }

    bool Send(Station& from, Station& to, const std::string& toPath,
              const std::vector<File>& files) {
        std::filesystem::create_directories(root_ / "out");
        return Ok(from, Add(root_ / "out", files)) && Ok(from, "send") &&
               Ok(from, "wait All files sent. 120") && Ok(to, "wait All files received. 120") &&
               BothIdle() && Arrived(toPath + "/Incoming Files", files);
    }

    bool Retrieve(const std::vector<File>& files) {
        const std::string folder = bobPath_ + "/Pick Up/Alice";
        for (const File& file : files) {
            WriteWholeFile(folder + "/" + file.Name, file.Bytes);
        }
        return Ok(*alice_, "retrieve") && Ok(*alice_, "wait All files received. 120") &&
               Ok(*bob_, "wait All files sent. 120") && BothIdle() &&
               Arrived(alicePath_ + "/Incoming Files/Alice", files);
    }

    // Alice sends a file longer than the line lets through: both stations
    // must come back to waiting for calls.
    bool CutOff(int call) {
        std::filesystem::create_directories(root_ / "out");
        const std::vector<File> files = {
            {"cut" + std::to_string(call) + ".bin", RandomBytes(CutFileSize, 7)}};
        const bool ended =
            Ok(*alice_, Add(root_ / "out", files)) && Ok(*alice_, "send") && BothIdle();
        // Whatever of the list the lost call left goes.
        alice_->Command("file-clear");
        Tidy();
        return ended;
    }

    TempFolder root_;
    std::string alicePath_;
    std::string bobPath_;
    std::unique_ptr<VirtualAdapters> adapters_;
    std::unique_ptr<Station> alice_;
    std::unique_ptr<Station> bob_;
};

}  // namespace

}  // namespace kb::bench

int main(int argc, char** argv) {
    using namespace kb::bench;

    int calls = 500;
    int every = 25;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--calls" && i + 1 < argc) {
            calls = std::stoi(argv[++i]);
        } else if (option == "--every" && i + 1 < argc) {
            every = std::stoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: kb_soak [--calls N] [--every N]\n");
            return 2;
        }
    }
    Soak soak(calls);
    if (!soak.SetUp()) {
        std::fprintf(stderr, "the stations did not get ready\n");
        soak.PrintLogs();
        return 1;
    }
    std::printf(
        "call alice_kb alice_fds alice_threads bob_kb bob_fds bob_threads vta_kb vta_fds "
        "vta_threads\n");
    soak.Sample(0);
    const auto start = std::chrono::steady_clock::now();
    for (int call = 1; call <= calls; ++call) {
        if (!soak.Call(call)) {
            std::fprintf(stderr, "call %d went wrong\n", call);
            soak.PrintLogs();
            return 1;
        }
        if (call % every == 0 || call == calls) {
            soak.Sample(call);
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            std::fprintf(stderr, "%d calls in %.0f s\n", call, seconds);
        }
    }
    return soak.End() ? 0 : 1;
}
