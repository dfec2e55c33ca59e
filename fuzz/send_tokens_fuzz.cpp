// Fuzz target: the sending side's token handler, fed whatever a far end
// answers to an offer: RCVCON, the acceptance or refusal of the list, a
// resume with its body, repairs of sections, ACKs for files, aborts, the
// loss of the line, noise and lines too long, in any order and in pieces.
// The first byte of an input chooses how the call began: with or without a
// folder in front of the files, and whether this end called to fetch files
// instead of sending them.
//
// The list holds a file of two sections, so that a resume or a repair may
// point to either, an empty file and a small one, read from real files; the
// feeder sends their data to the adapter as in a call. After every token:
// - no transfer is under way with nothing in the list to send (such a call
//   would hang: every ACK would wait for a file that never ends);
// - the files offered could be read (a fault there means the position went
//   outside the file).
// Every input ends with the line's fall, and then:
// - the files offered are unchanged on disk;
// - no feeder runs, the link is idle and this end no longer sends;
// - the list holds what it held less some files taken off its top, and the
//   file on top goes back to its start, to be sent whole next time;
// - nothing was written outside the receive folder.

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "engine/recovery.h"
#include "engine/session_threads.h"
#include "engine/sessions.h"
#include "engine/teardown.h"
#include "engine/token_lines.h"
#include "engine/transfer_engine.h"
#include "engine/wire.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "platform/files.h"
#include "sandbox.h"

namespace kb::fuzz {

using namespace kb::engine;
using namespace kb::platform;

namespace {

constexpr int StepLimit = 64;

struct SourceFile {
    const char* Name;
    std::string Bytes;
    std::string Path;
};

// Lower-case letters only, so that nothing in the data reads as a command to
// the adapter.
std::string Letters(size_t length, unsigned seed) {
    std::string text(length, 'a');
    for (size_t i = 0; i < length; ++i) {
        seed = seed * 1103515245u + 12345u;
        text[i] = static_cast<char>('a' + (seed >> 16) % 26);
    }
    return text;
}

std::array<SourceFile, 3>& Sources() {
    static std::array<SourceFile, 3> Sources = [] {
        std::array<SourceFile, 3> made{{
            {"two-sections.bin", Letters(SectionFileBytes + 777, 2), {}},
            {"empty.txt", std::string(), {}},
            {"small.txt", Letters(5000, 1), {}},
        }};
        for (SourceFile& source : made) {
            source.Path = PlaceSourceFile(source.Name, source.Bytes);
        }
        return made;
    }();
    return Sources;
}

void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "send_tokens_fuzz: %s\n", what);
        std::abort();
    }
}

// The list as the window makes it when the files are dropped on it.
void OfferTheFiles(bool withFolder) {
    SendList& list = SandboxEngine().SendList;
    list.Clear();
    if (withFolder) {
        FileEntry marker;
        marker.FilePath.Set(Sources()[0].Path.substr(0, Sources()[0].Path.rfind('/')));
        marker.DisplayName.Set("Outgoing");
        marker.EntryKind = FileKind::FolderMarker;
        list.StartFolder(marker);
    }
    for (const SourceFile& source : Sources()) {
        FileEntry entry;
        entry.FilePath.Set(source.Path);
        entry.DisplayName.Set(source.Name);
        entry.EntryKind = FileKind::PlainFile;
        SetEntryLengths(entry, static_cast<uint32_t>(DataLengthForSize(source.Bytes.size())));
        entry.CreatorCode = DefaultCreatorCode;
        entry.TypeCode = DefaultTypeCode;
        Require(list.Add(entry), "a list of the sources that does not fit");
    }
}

bool SourcesIntact() {
    for (const SourceFile& source : Sources()) {
        File file;
        if (!file.Open(source.Path, File::Mode::Read) ||
            file.Length() != static_cast<int64_t>(source.Bytes.size())) {
            return false;
        }
        std::string bytes(source.Bytes.size(), '\0');
        if (!bytes.empty() &&
            file.Read(bytes.data(), static_cast<uint32_t>(bytes.size())) != bytes.size()) {
            return false;
        }
        if (bytes != source.Bytes) {
            return false;
        }
    }
    return true;
}

// What is left of the list is its end, in order, and its top starts afresh.
void CheckTheListLeft() {
    const int16_t count = SandboxEngine().SendList.Count();
    Require(count >= 0 && count <= static_cast<int16_t>(Sources().size()) + 1,
            "a list longer than the one offered");
    const auto& sources = Sources();
    for (int16_t i = 0; i < count; ++i) {
        const FileEntry& entry = SandboxEngine().SendList[i];
        if (entry.EntryKind == FileKind::FolderMarker) {
            Require(i == 0, "a folder marker below the top");
            continue;
        }
        const size_t source = sources.size() - static_cast<size_t>(count - i);
        Require(entry.DisplayName.View() == sources[source].Name, "a list out of its order");
    }
    if (count > 0) {
        const FileEntry& top = SandboxEngine().SendList[0];
        Require(top.NextBlock == 0 && top.BlocksDone == 0 && top.BytesDone == 0,
                "the file on top does not go back to its start");
    }
}

// The station hands over to its receiving side after a request to fetch
// files; a list that comes then is admitted as any other.
void Step() {
    if (SandboxEngine().Call.Role.load() == Role::Sender) {
        // The files offered are there and readable: a fault in reading one
        // means the position went outside it.
        Require(!SandboxEngine().Call.Session.SendFault.load(), "a file offered could not be read");
        OnSenderInput(SandboxEngine());
    } else {
        OnReceiverInput(SandboxEngine());
    }
}

bool CallUp() {
    const LinkState state = SandboxEngine().Call.LinkState.load();
    if (SandboxEngine().Call.Role.load() == Role::Sender) {
        return state >= LinkState::Connected;
    }
    // The receiving side's data is not this target's.
    return state == LinkState::Connected || state == LinkState::Recovery;
}

}  // namespace

}  // namespace kb::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kb::engine;
    using namespace kb::fuzz;
    using namespace kb::line;

    if (size == 0) {
        return 0;
    }
    SetUpSandbox();
    StartInstantAdapter();
    SandboxLine().AdapterFound = 0;  // no profile goes out after a call; nothing would answer it
    OfferTheFiles((data[0] & 1) != 0);
    if ((data[0] & 2) != 0) {
        // A request to fetch files goes out instead of a list.
        SandboxEngine().Call.RetrievePending = true;
        SandboxEngine().SendList.Clear();
    }
    SandboxEngine().Call.ReceiveCount = 0;
    SandboxEngine().Call.ReceiveListSize = 0;
    SandboxEngine().Call.Role = Role::Sender;
    SandboxEngine().Call.LinkState = LinkState::Connected;

    std::string input(reinterpret_cast<const char*>(data + 1), size - 1);
    input += "\r\n";
    // Enough for the body behind a resume or a repair, or, after a request to
    // fetch files, for the list that may come.
    const size_t recordBytes = SandboxEngine().Call.RetrievePending.load()
                                   ? sizeof(SessionHeader) + ListCapacity * sizeof(WireFileEntry)
                                   : sizeof(RecoveryBody);
    const std::string padding = std::string(recordBytes, '\0') + "\r\n";
    input += padding;
    FeedPort(input);
    for (int step = 0; step < StepLimit &&
                       SandboxLine().PortQueueCount(PortQueue::Input) > padding.size() && CallUp();
         ++step) {
        Step();
        const LinkState state = SandboxEngine().Call.LinkState.load();
        Require(SandboxEngine().Call.Role.load() != Role::Sender ||
                    (state != LinkState::Transfer && state != LinkState::Recovery) ||
                    !SandboxEngine().SendList.IsEmpty(),
                "a transfer with nothing in the list to send");
    }

    // The line falls, as the adapter reports it.
    DiscardPortInput();
    if (SandboxEngine().Call.Role.load() == Role::Sender &&
        SandboxEngine().Call.LinkState.load() >= LinkState::Connected) {
        FeedPort("NO CARRIER\r\n");
        // An answer of the adapter to a command-like run of bytes in the data
        // may still have been on its way, and come first.
        for (int line = 0;
             line < 4 && SandboxEngine().Call.LinkState.load() >= LinkState::Connected &&
             SandboxLine().PortQueueCount(PortQueue::Input) > 0;
             ++line) {
            OnSenderInput(SandboxEngine());
        }
        Require(SandboxEngine().Call.LinkState.load() == LinkState::Idle,
                "the line's fall leaves the call up");
    } else if (SandboxEngine().Call.LinkState.load() >= LinkState::Connected) {
        EndOfCallCleanup(SandboxEngine());
        SandboxEngine().Call.LinkState = LinkState::Idle;
    }
    EndRecoveryCandidacy(SandboxEngine());
    ForgetUnfinishedLine(SandboxEngine());
    ClearSessionFlags(SandboxEngine());

    Require(!FeederRunning(SandboxEngine()), "a feeder runs after the call");
    Require(SourcesIntact(), "a file offered was changed");
    CheckTheListLeft();
    SandboxEngine().Call.RetrievePending = false;
    SandboxEngine().Call.Role = Role::Receiver;
    SandboxEngine().Call.LinkState = LinkState::Connected;
    DiscardPortInput();
    CheckAndEmptySandbox();
    return 0;
}
