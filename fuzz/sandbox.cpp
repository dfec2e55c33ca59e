#include "sandbox.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>

#include "engine/display.h"
#include "engine/receiving_session_test_hooks.h"
#include "engine/sessions.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "line/line.h"
#include "platform/files.h"
#include "platform/pseudo_terminal.h"
#include "stores/installation.h"
#include "support/test_clock.h"

namespace kb::fuzz {

using namespace kb::engine;
using namespace kb::line;
using namespace kb::platform;
using namespace kb::stores;

namespace fs = std::filesystem;

namespace {

PseudoTerminal Terminal;
std::string Base;  // the sandbox; the installation is base + "/inst"
std::string Root;
std::set<std::string> Known;
// The clock of the line and the engine. A fuzz target has no pause to wait
// out: its adapter answers at once.
std::unique_ptr<test::TestClock> SandboxClock;
// Made once, with the sandbox, and kept to the end: the engine and the line
// serve it for every input. The line goes first, since it logs to it.
std::unique_ptr<Installation> Inst;
// The engine's line, on the pseudo-terminal.
std::unique_ptr<Line> PortLine;
// The engine, with no window: its display calls show nothing.
std::unique_ptr<TransferEngine> Engine;

void Fail(const std::string& what) {
    std::fprintf(stderr, "sandbox: %s\n", what.c_str());
    std::abort();
}

}  // namespace

Line& SandboxLine() {
    return *PortLine;
}

TransferEngine& SandboxEngine() {
    return *Engine;
}

void SetUpSandbox() {
    if (!Base.empty()) {
        return;
    }
    // In memory where the system has such a folder: every input creates and
    // deletes files, and on a disk's file system the search for a free inode
    // among so many recently deleted ones soon costs more than the input.
    char inMemory[] = "/dev/shm/kbfuzz.XXXXXX";
    char onDisk[] = "/tmp/kbfuzz.XXXXXX";
    const char* made = ::mkdtemp(inMemory);
    if (made == nullptr) {
        made = ::mkdtemp(onDisk);
    }
    if (made == nullptr || !OpenPseudoTerminal(Terminal)) {
        Fail("cannot make the sandbox");
    }
    Base = made;
    // Gone again when the fuzzer ends; a crash or an interrupt leaves it.
    std::atexit([] { fs::remove_all(Base); });
    Root = Base + "/inst";
    fs::create_directory(Root);
    fs::create_symlink(Terminal.SlavePath, Root + "/COM1");
    Inst = std::make_unique<Installation>(Root);
    SandboxClock = std::make_unique<test::TestClock>();
    SandboxClock->CapPauses(1);
    PortLine = std::make_unique<Line>(*Inst, *SandboxClock);
    Engine = std::make_unique<TransferEngine>(*SandboxClock);
    Inst->Log.SetSink([](const std::string&) {});
    if (!CreateFolder(Inst->Paths.IncomingPath)) {
        Fail("cannot make the incoming folder");
    }
    if (!PortLine->CommPortCreate()) {
        Fail("no port record");
    }
    PortLine->SelectPortNumber(1);
    PortLine->SelectPortBaud(115200);
    // As for a call: RTS/CTS, so that 0x11 and 0x13 in the data are data.
    if (PortLine->CommPortOpen() == 0 || PortLine->EnableHardwareHandshake() != 1) {
        Fail("the port does not open");
    }
    Inst->Prefs.AdapterModel = ModelBitSURFR;
    SetEngineLine(*Engine, *PortLine);
    EngineStartup(*Engine, *Inst);
    PortLine->AdapterFound = 1;
    SetFreeSpaceQuery(*Engine, [] { return uint64_t{1} << 40; });
    Engine->Call.Role = Role::Receiver;
    Engine->Call.LinkState = LinkState::Connected;
    for (const auto& item : fs::recursive_directory_iterator(Base)) {
        Known.insert(item.path().string());
    }
    // The installation's record of a file kept for a resume, which the
    // receiving side writes beside the stores.
    Known.insert(Inst->Paths.ResumeRecordPath);
}

std::string PlaceSourceFile(const std::string& name, const std::string& bytes) {
    const std::string folder = Base + "/Outgoing";
    fs::create_directories(folder);
    const std::string path = folder + "/" + name;
    File file;
    if (!file.Open(path, File::Mode::CreateReadWrite) ||
        (!bytes.empty() && !file.Write(bytes.data(), static_cast<uint32_t>(bytes.size())))) {
        Fail("cannot place " + path);
    }
    file.Close();
    Known.insert(folder);
    Known.insert(path);
    return path;
}

void FeedPort(const std::string& bytes) {
    // The pseudo-terminal holds only a few kilobytes; the port's own queue
    // takes them over as they come, as it does for the program.
    const uint32_t before = PortLine->PortQueueCount(PortQueue::Input);
    size_t done = 0;
    for (int idle = 0;
         idle < 20000 && PortLine->PortQueueCount(PortQueue::Input) < before + bytes.size();
         ++idle) {
        if (done < bytes.size()) {
            const ssize_t n = ::write(Terminal.Master, bytes.data() + done, bytes.size() - done);
            if (n > 0) {
                done += static_cast<size_t>(n);
                idle = 0;
                continue;
            }
        }
        ::usleep(20);
    }
    if (PortLine->PortQueueCount(PortQueue::Input) < before + bytes.size()) {
        Fail("the port did not take the input");
    }
}

void DrainPortOutput() {
    char scratch[4096];
    while (::read(Terminal.Master, scratch, sizeof scratch) > 0) {
    }
}

// Writes all of text to the program's side, waiting while its input is full.
static void Answer(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(Terminal.Master, text.data() + done, text.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (errno == EAGAIN || errno == EINTR) {
            pollfd room{Terminal.Master, POLLOUT, 0};
            ::poll(&room, 1, 10);
        } else {
            Fail("the adapter cannot answer");
        }
    }
}

void StartInstantAdapter() {
    static bool Started = false;
    if (Started) {
        return;
    }
    Started = true;
    std::thread([] {
        std::string heard;
        char bytes[4096];
        for (;;) {
            pollfd ready{Terminal.Master, POLLIN, 0};
            if (::poll(&ready, 1, -1) <= 0) {
                continue;
            }
            const ssize_t n = ::read(Terminal.Master, bytes, sizeof bytes);
            if (n <= 0) {
                continue;
            }
            heard.append(bytes, static_cast<size_t>(n));
            // Only the end of what was heard can still begin a command.
            for (;;) {
                const size_t escape = heard.find("+++");
                const size_t at = heard.find("AT");
                const size_t cr =
                    at == std::string::npos ? std::string::npos : heard.find('\r', at);
                if (escape != std::string::npos && (cr == std::string::npos || escape < at)) {
                    heard.erase(0, escape + 3);
                } else if (cr != std::string::npos) {
                    heard.erase(0, cr + 1);
                } else {
                    break;
                }
                Answer("OK\r\n");
            }
            if (heard.size() > 64) {
                heard.erase(0, heard.size() - 64);
            }
        }
    }).detach();
}

void DiscardPortInput() {
    static uint8_t Scratch[8192];
    while (const uint32_t waiting = PortLine->PortQueueCount(PortQueue::Input)) {
        static_cast<void>(
            PortLine->ReadBlock(Scratch, waiting < sizeof Scratch ? waiting : sizeof Scratch, 0));
    }
}

void CheckAndEmptySandbox() {
    const std::string incoming = Inst->Paths.IncomingPath + "/";
    for (const auto& item : fs::recursive_directory_iterator(Base)) {
        const std::string path = item.path().string();
        if (path.rfind(incoming, 0) != 0 && Known.count(path) == 0) {
            Fail("written outside the receive folder: " + path);
        }
    }
    fs::remove_all(Inst->Paths.IncomingPath);
    fs::create_directory(Inst->Paths.IncomingPath);
}

}  // namespace kb::fuzz
