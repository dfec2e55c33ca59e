// Hanging up, the stall that ends a call, and the lists' tidying after it.

#include "engine/teardown.h"

#include <cstring>
#include <string>
#include <string_view>

#include "engine/call_end.h"
#include "engine/display.h"
#include "engine/resume_record.h"
#include "engine/session_threads.h"
#include "engine/sessions.h"
#include "engine/token_lines.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/adapter_family.h"
#include "line/comm_port.h"
#include "line/profiles.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "stores/paths.h"

namespace kb::engine {

using namespace kb::line;
using namespace kb::platform;

namespace {

// How long bytes just written may take to leave the port for the adapter
// before a hang-up counts them as stuck: far longer than any port needs for
// a token, far shorter than the pause of the escape.
constexpr uint32_t OutputGraceMs = 200;
constexpr int16_t HangUpLineLimitMs = 1000;
constexpr int16_t StallBodyLimitMs = 200;
constexpr int16_t StallTailLimitMs = 100;
constexpr uint32_t StallTailBytes = 12;
constexpr int32_t HangUpRetryLimit = 2;
constexpr uint32_t HangUpRetryMs = 5000;

// The adapter answered neither the escape nor the hang-up: the call may
// still be up. The receiving side's watchdog ends it in the end; the
// sending side has none, so it tries again a few times.
bool HangUpFailed(TransferEngine& engine) {
    engine.Stores().Log.Add("Hang-up failed.");
    if (engine.Call.Role.load() == Role::Sender &&
        engine.Call.Session.HangUpRetries.load() < HangUpRetryLimit) {
        engine.Call.Session.HangUpRetries.fetch_add(1);
        engine.Call.Session.HangUpRetryAt = engine.Clock.NowMs();
        engine.Call.Session.HangUpRetryDue = true;
        engine.Line->InterruptPortWait();
    }
    return false;
}

bool EndsWith(std::string_view text, std::string_view tail) {
    return text.size() >= tail.size() && text.substr(text.size() - tail.size()) == tail;
}

// Whether the file that SavedEntry names is this entry's, kept for a resume.
bool KeptForResume(TransferEngine& engine, const FileEntry& entry) {
    const FileEntry& saved = engine.SavedEntry;
    return !saved.WireName.IsEmpty() && saved.FilePath.View() == entry.FilePath.View() &&
           SavedPartialIntact(engine);
}

}  // namespace

void EndCallByHangUp(TransferEngine& engine) {
    // A hang-up the adapter did not answer needs nothing more here: HangUp
    // has logged it, and a call that stays up is ended by the sending side's
    // retries or the receiving side's watchdog.
    static_cast<void>(HangUp(engine));
}

bool HangUp(TransferEngine& engine) {
    PortConversation conversation(*engine.Line);
    engine.Call.Session.HangUpRetryDue = false;
    engine.Call.Session.HangUpTried = true;
    // The escape needs the port silent for the pause. Whatever of ours still
    // waits to go out would break that silence for as long as the line needs
    // to carry it, and for ever when the far end takes nothing more; but what
    // was written a moment ago, such as the abort of a Disconnect pressed
    // just before, is on its way and goes out.
    engine.Line->PurgeStuckOutput(OutputGraceMs);
    engine.Clock.SleepMs(CurrentFamily(engine.Stores().Prefs).EscapePauseMs);
    engine.Line->SendBytes("+++", 3);
    std::memset(engine.Line->TokenBuffer, 0, TokenBufferSize);
    // The OK may come behind whatever the far end still sends; the wait runs
    // its whole time through that, so that nothing is sent within the guard
    // time behind "+++".
    if (engine.Line->ReadUntilTokenInStream("OK\r\n", EscapeReplyLimitMs,
                                            engine.Line->TokenBuffer) == nullptr) {
        // The line fell before the escape: the adapter, in command mode
        // already, reported NO CARRIER and lets "+++" pass unanswered.
        if (std::string_view(engine.Line->TokenBuffer).find(TextNoCarrier) !=
            std::string_view::npos) {
            EndCall(engine, CallEnd::HungUp);
            return true;
        }
        // Its NO CARRIER may also have gone before: with input thrown away
        // when the feeder was stopped, or read by another wait. An adapter in
        // command mode answers "AT"; one still in data mode passes it on.
        if (engine.Line->SendAndWaitOkShort("AT")) {
            EndCall(engine, CallEnd::HungUp);
            return true;
        }
        return HangUpFailed(engine);  // still in data mode; the state stays as it was
    }
    engine.Line->SendCommand("ATH");
    const uint32_t t0 = engine.Clock.NowMs();
    do {
        std::memset(engine.Line->TokenBuffer, 0, TokenBufferSize);
        if (engine.Line->ReadLine(HangUpLineLimitMs, engine.Line->TokenBuffer) != nullptr) {
            const std::string_view line(engine.Line->TokenBuffer);
            if (LineHolds(line, "OK") || LineHolds(line, TextNoCarrier)) {
                EndCall(engine, CallEnd::HungUp);
                return true;
            }
        }
    } while (engine.Clock.NowMs() - t0 < static_cast<uint32_t>(HangUpReplyLimitMs));
    return HangUpFailed(engine);
}

std::optional<int> MsUntilHangUpRetry(TransferEngine& engine) {
    if (!engine.Call.Session.HangUpRetryDue.load()) {
        return std::nullopt;
    }
    const uint32_t elapsed = engine.Clock.NowMs() - engine.Call.Session.HangUpRetryAt.load();
    return elapsed >= HangUpRetryMs ? 0 : static_cast<int>(HangUpRetryMs - elapsed);
}

bool RetryHangUpIfDue(TransferEngine& engine) {
    if (MsUntilHangUpRetry(engine) != 0) {
        return false;
    }
    // A call that has ended meanwhile (NO CARRIER) cleared the retry.
    if (engine.Call.LinkState.load() < LinkState::Connected) {
        engine.Call.Session.HangUpRetryDue = false;
        return false;
    }
    // A failure has set up the next try, up to the limit.
    EndCallByHangUp(engine);
    return true;
}

void EndStalledCall(TransferEngine& engine, uint32_t waiting) {
    uint8_t tail[32] = {};
    if (waiting > StallTailBytes) {
        const int16_t slot = engine.Call.BlockIndex.load();
        static_cast<void>(engine.Line->ReadBlock(engine.WorkingSection.get() + slot * BlockBytes,
                                                 waiting - StallTailBytes, StallBodyLimitMs));
    }
    // What did not come leaves zeros, in which no answer is found.
    static_cast<void>(engine.Line->ReadBlock(tail, StallTailBytes, StallTailLimitMs));
    // A line that fell leaves NO CARRIER behind its last data, and the
    // adapter is back in command mode. Without it the far end has only gone
    // quiet and the call is still up: it is hung up, so that neither adapter
    // stays in a call that nobody uses and both can be called again.
    const std::string_view text(reinterpret_cast<const char*>(tail), StallTailBytes);
    EndCall(engine, text.find(TextNoCarrier) != std::string_view::npos ? CallEnd::BlockCutOff
                                                                       : CallEnd::BlockStalled);
}

void DeleteUnfinishedReceives(TransferEngine& engine) {
    const uint32_t count = engine.Call.ReceiveCount.load();
    for (uint32_t i = 0; i < count && i < static_cast<uint32_t>(ListCapacity); ++i) {
        const FileEntry& entry = engine.ReceiveList[i];
        // A file that has not begun has nothing on the disk.
        if (entry.EntryComplete != 0 || entry.FilePath.IsEmpty()) {
            continue;
        }
        // The file in progress stays while it can be resumed.
        if (KeptForResume(engine, entry)) {
            continue;
        }
        // A part that will not go stays, as the user sees it.
        static_cast<void>(DeleteFileAt(std::string(entry.FilePath.View())));
        if (!engine.SavedEntry.WireName.IsEmpty() &&
            engine.SavedEntry.FilePath.View() == entry.FilePath.View()) {
            ForgetResumeCandidate(engine);
        }
    }
    engine.Call.ReceiveCount = 0;
}

void EndOfCallCleanup(TransferEngine& engine) {
    DeleteUnfinishedReceives(engine);
    ImportReceivedEntries(engine);
    TellWhereFilesWereFiled(engine);
    engine.Call.ReceiveCount = 0;
    engine.SendList.Clear();
    Display(engine).ClearFileList();
}

void ImportReceivedEntries(TransferEngine& engine) {
    const int16_t size = engine.Call.ReceiveListSize.load();
    for (int16_t i = 0; i < size && i < ListCapacity; ++i) {
        const FileEntry& entry = engine.ReceiveList[i];
        const std::string_view name = entry.DisplayName.View();
        // An entry that arrived under another name than its own, beside a
        // file of that name, is kept but not entered: its letter now stands
        // in front of the extension, so the extension alone no longer tells.
        if (entry.EntryComplete != 0 && name == entry.WireName.View() &&
            (EndsWith(name, ".KBE") || EndsWith(name, ".kbe"))) {
            Display(engine).ImportDirectoryEntry(std::string(entry.FilePath.View()));
        }
    }
    engine.Call.ReceiveListSize = 0;
}

void TellWhereFilesWereFiled(TransferEngine& engine) {
    const std::string folder(engine.FiledFolder.View());
    if (folder.empty()) {
        return;
    }
    engine.FiledFolder.Clear();
    // As the user finds it from the installation's folder. Each list with a
    // folder marker gets a folder of its own, "Alice", "Alice-A" and on, so
    // the name alone would not tell which one.
    const std::string& incoming = engine.Stores().Paths.IncomingPath;
    const bool below = folder.compare(0, incoming.size(), incoming) == 0;
    engine.Stores().Log.Add(
        "Received files are in " +
        (below ? stores::IncomingFolderName + folder.substr(incoming.size()) : folder));
}

void DiscardUnfinishedFiles(TransferEngine& engine) {
    if (engine.ReceiveList != nullptr) {
        DeleteUnfinishedReceives(engine);
    }
}

}  // namespace kb::engine
