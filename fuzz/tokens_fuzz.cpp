// Fuzz target: the receiving side's token handler, fed what a far end sends
// during a call — tokens in any order, noise, retrieve requests, lists behind
// H100 and answers to a repair — from the moment the call is up until the
// first file's data would begin. Each input starts a fresh call on which the
// receive folder holds a file that a former call left for a resume, so that
// the recovery tokens have something to act on.
//
// The far end of the port answers every command with OK at once, as an
// adapter does in command mode, so that a list with a wrong magic ends its
// call without waiting out a reply limit, and the program's own pauses (the
// guard time around an escape, the adapter's rest after a fall of the line)
// are cut to a millisecond, so that a hang-up costs no more than any other
// input and the line may fall anywhere in one. Every input is followed by CR LF,
// zero bytes enough for the longest header and list, and CR LF again, so
// that no record read waits for bytes that will never come. A line read
// skips zero bytes, so the padding that a record read leaves over does not
// stand between a command and its OK either.

#include <cstdint>
#include <cstdlib>
#include <cstring>
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
#include "platform/clock.h"
#include "platform/files.h"
#include "sandbox.h"

namespace kb::fuzz {

using namespace kb::engine;
using namespace kb::platform;

namespace {

constexpr int StepLimit = 64;

// A file of two sections, the first of which had arrived when the former
// call fell.
void LeaveAResumableFile() {
    const std::string path = SandboxEngine().Stores().Paths.IncomingPath + "/resume.bin";
    const std::string bytes(SectionFileOffset(BlocksPerSection), 'r');
    File file;
    if (!file.Open(path, File::Mode::CreateReadWrite) ||
        !file.Write(bytes.data(), static_cast<uint32_t>(bytes.size()))) {
        std::abort();
    }
    file.Close();
    FileEntry& entry = SandboxEngine().ReceiveList[0];
    entry = FileEntry{};
    entry.WireName.Set("resume.bin");
    entry.DisplayName.Set("resume.bin");
    entry.FilePath.Set(path);
    SetEntryLengths(entry, 2 * SectionWireBytes);
    entry.NextBlock = static_cast<int16_t>(BlocksPerSection);
    entry.BlocksDone = entry.NextBlock;
    entry.BytesDone = SectionWireBytes;
    SandboxEngine().Call.ExpectedBlock = BlockBytes;
    SandboxEngine().Call.ReceiveRemaining = SectionWireBytes;
    SnapshotSection(SandboxEngine());
    SandboxEngine().ReceiveList[0] = FileEntry{};
}

}  // namespace

}  // namespace kb::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kb::engine;
    using namespace kb::fuzz;
    using namespace kb::line;
    using namespace kb::platform;

    SetUpSandbox();
    StartInstantAdapter();
    SandboxLine().AdapterFound = 0;  // no profile goes out after a call; nothing would answer it
    LeaveAResumableFile();
    SandboxEngine().Call.Role = Role::Receiver;
    SandboxEngine().Call.ReceiveCount = 0;
    SandboxEngine().Call.ReceiveListSize = 0;
    SandboxEngine().Call.RetrievePending = false;
    SandboxEngine().Call.LastRxTime = SandboxEngine().Clock.NowMs();
    SandboxEngine().Call.LinkState = LinkState::Connected;

    std::string input(reinterpret_cast<const char*>(data), size);
    input += "\r\n";
    const std::string padding =
        std::string(sizeof(SessionHeader) + ListCapacity * sizeof(WireFileEntry), '\0') + "\r\n";
    input += padding;
    FeedPort(input);
    // Once no more than the padding waits, what is left reads as an empty
    // line, one byte at a time; it is not read.
    for (int step = 0;
         step < StepLimit && SandboxLine().PortQueueCount(PortQueue::Input) > padding.size();
         ++step) {
        const LinkState state = SandboxEngine().Call.LinkState.load();
        if (state != LinkState::Connected && state != LinkState::Recovery) {
            break;  // the call has ended, or the data of a file has begun
        }
        OnReceiverInput(SandboxEngine());
    }

    // The call falls here, whatever its state: what is incomplete goes.
    if (SandboxEngine().Call.LinkState.load() >= LinkState::Connected) {
        EndOfCallCleanup(SandboxEngine());
    }
    EndRecoveryCandidacy(SandboxEngine());
    ForgetUnfinishedLine(SandboxEngine());
    ClearSessionFlags(SandboxEngine());
    SandboxEngine().Call.LinkState = LinkState::Connected;
    DiscardPortInput();
    CheckAndEmptySandbox();
    return 0;
}
