// Fuzz target: the admission of a header and a file list, as the receiving
// side reads them from its port. The input is the 28-byte header and then the
// list; the list goes to the port whole (cut or padded to what the header
// announces), so that no read waits out its time limit.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "engine/sessions.h"
#include "engine/transfer_engine.h"
#include "engine/wire.h"
#include "line/comm_port.h"
#include "sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kb::engine;
    using namespace kb::fuzz;

    SetUpSandbox();
    if (size < sizeof(SessionHeader)) {
        return 0;
    }
    SessionHeader probe = RecordFromBytes<SessionHeader>(data);
    SwapSessionHeader(probe);
    if (probe.Magic != SessionMagic) {
        return 0;  // a wrong magic only ends the call
    }
    std::string list(reinterpret_cast<const char*>(data) + sizeof(SessionHeader),
                     size - sizeof(SessionHeader));
    if (probe.FileCount <= static_cast<uint32_t>(ListCapacity)) {
        list.resize(size_t{probe.FileCount} * sizeof(WireFileEntry), '\0');
    }
    SandboxEngine().Call.InHeader = RecordFromBytes<SessionHeader>(data);
    SandboxEngine().SavedEntry = FileEntry{};
    SandboxEngine().Call.LinkState = LinkState::Connected;
    SandboxEngine().Call.Role = Role::Receiver;
    FeedPort(list);
    const AdmitResult result = AdmitFileList(SandboxEngine());
    // An accepted list awaits its first file's data; a refused one, or one of
    // empty files only, leaves nothing to receive.
    const bool awaiting = SandboxEngine().Call.LinkState.load() == LinkState::Transfer &&
                          SandboxEngine().Call.ReceiveCount.load() > 0;
    if (awaiting != (result == AdmitAccepted || result == AdmitRecovered)) {
        std::abort();
    }
    // What a refusal leaves, and what the program answered, goes.
    DiscardPortInput();
    DrainPortOutput();
    SandboxEngine().Call.ReceiveCount = 0;
    SandboxEngine().Call.ReceiveListSize = 0;
    CheckAndEmptySandbox();
    return 0;
}
