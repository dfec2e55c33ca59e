#include "sandbox.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string_view>

#include "engine/display.h"
#include "engine/receiving_session_test_hooks.h"
#include "engine/sessions.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "line/line.h"
#include "platform/files.h"
#include "stores/installation.h"
#include "support/byte_pipe.h"
#include "support/test_clock.h"

namespace kb::fuzz {

using namespace kb::engine;
using namespace kb::line;
using namespace kb::platform;
using namespace kb::stores;
using test::BytePipe;

namespace fs = std::filesystem;

namespace {

// The port: the line's device at one end, the sandbox at the other.
BytePipe Pipe;
std::string Base;  // the sandbox; the installation is base + "/inst"
std::string Root;
std::set<std::string> Known;
// The clock of the line and the engine. A fuzz target has no pause to wait
// out: its adapter answers at once.
std::unique_ptr<test::TestClock> SandboxClock;
// Made once, with the sandbox, and kept to the end: the engine and the line
// serve it for every input. The line goes first, since it logs to it.
std::unique_ptr<Installation> Inst;
// The engine's line, on the pipe.
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
    if (made == nullptr) {
        Fail("cannot make the sandbox");
    }
    Base = made;
    // Gone again when the fuzzer ends; a crash or an interrupt leaves it.
    std::atexit([] { fs::remove_all(Base); });
    Root = Base + "/inst";
    fs::create_directory(Root);
    // The port's name, a plain file: the pipe stands behind it, and a device
    // outside /dev takes no lock file that another sandbox would meet.
    File name;
    if (!name.Open(Root + "/COM1", File::Mode::CreateReadWrite)) {
        Fail("cannot name the port");
    }
    name.Close();
    Inst = std::make_unique<Installation>(Root);
    SandboxClock = std::make_unique<test::TestClock>();
    SandboxClock->CapPauses(1);
    PortLine = std::make_unique<Line>(*Inst, *SandboxClock, [] { return Pipe.MakeDevice(); });
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
    const uint32_t before = PortLine->PortQueueCount(PortQueue::Input);
    Pipe.Put(bytes);
    // A target's input must fit the port's queue whole: what it held back
    // would only come in as the line reads, unlike the far end meant it.
    if (PortLine->PortQueueCount(PortQueue::Input) < before + bytes.size()) {
        Fail("the port did not take the input");
    }
}

void DrainPortOutput() {
    static_cast<void>(Pipe.Take());
}

void StartInstantAdapter() {
    static bool Started = false;
    if (Started) {
        return;
    }
    Started = true;
    // What was heard and may still begin a command; the pipe calls the
    // listener for one write at a time.
    static std::string Heard;
    Pipe.OnWrite([](std::string_view bytes) {
        Heard.append(bytes);
        for (;;) {
            const size_t escape = Heard.find("+++");
            const size_t at = Heard.find("AT");
            const size_t cr = at == std::string::npos ? std::string::npos : Heard.find('\r', at);
            if (escape != std::string::npos && (cr == std::string::npos || escape < at)) {
                Heard.erase(0, escape + 3);
            } else if (cr != std::string::npos) {
                Heard.erase(0, cr + 1);
            } else {
                break;
            }
            Pipe.Put("OK\r\n");
        }
        // Only the end of what was heard can still begin a command.
        if (Heard.size() > 64) {
            Heard.erase(0, Heard.size() - 64);
        }
    });
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
