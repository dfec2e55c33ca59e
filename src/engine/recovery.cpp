// Repair of a failed section within a call, and the snapshot of the
// receiver's position that a repair and a resumed transfer start from.

#include "engine/recovery.h"

#include <string>

#include "engine/display.h"
#include "engine/resume_record.h"
#include "engine/teardown.h"
#include "engine/token_lines.h"
#include "engine/transfer_engine.h"
#include "line/adapter.h"
#include "line/comm_port.h"
#include "platform/clock.h"

namespace kb::engine {

using namespace kb::line;
using namespace kb::platform;

namespace {

constexpr int16_t DrainQuietMs = 100;
// The longest the rest of a section is waited out: a sound sender stops
// well within the receiver's limit on silence.
constexpr uint32_t DrainLongestMs = 10000;

}  // namespace

void SnapshotSection(TransferEngine& engine) {
    const FileEntry& entry = engine.ReceiveList[0];
    engine.RecoveryRecord = MakeRecoveryMessage(
        TokenFileRecovr, MakeRecoveryBody(engine.Call.ExpectedBlock.load(),
                                          engine.Call.ReceiveRemaining.load(), entry));
    engine.SavedEntry = entry;
    SaveResumeCandidate(engine);
}

void RequestSectionResend(TransferEngine& engine) {
    {
        // Reads on this thread alone until the line has fallen quiet.
        PortConversation conversation(*engine.Line);
        engine.Line->SendBytes(&engine.RecoveryRecord, sizeof(RecoveryMessage));
        // What is left of the section's stream is thrown away. A stream that
        // does not stop comes from no sound sender: the repair is not
        // confirmed, and the limit on silence ends the call.
        if (!engine.Line->DrainInputWithin(DrainQuietMs, DrainLongestMs)) {
            return;
        }
        engine.Call.LastRxTime = engine.Clock.NowMs();
    }
    SendToken(engine, TokenContSend);
}

void ApplyRecoveryAtReceiver(TransferEngine& engine) {
    engine.Call.BlockIndex = 0;
    FileEntry& entry = engine.ReceiveList[0];
    const RecoveryPosition position = ApplyRecoveryBody(engine.RecoveryRecord.Body, entry);
    engine.Call.ExpectedBlock = position.ExpectedBlock;
    engine.Call.ReceiveRemaining = position.ReceiveRemaining;
    EngineWindow& display = Display(engine);
    display.ShowBatchEstimate(position.ReceiveRemaining);
    display.SetProgress(entry.BytesDone, entry.TotalLength);
    display.ShowThroughput(false, false);
}

void ApplyRecoveryAtSender(TransferEngine& engine) {
    const RecoveryBody body = RecordFromBytes<RecoveryBody>(engine.Line->TokenBuffer);
    engine.Call.BlockIndex = 0;
    FileEntry& entry = engine.SendList[0];
    const RecoveryPosition position = ApplyRecoveryBody(body, entry);
    engine.SendList.SetRemaining(position.ReceiveRemaining);
    EngineWindow& display = Display(engine);
    display.ShowBatchEstimate(position.ReceiveRemaining);
    display.SetProgress(entry.BytesDone, entry.TotalLength);
    display.ShowThroughput(true, false);
    // The section read ahead is dropped; the next read starts at the position.
    engine.SectionWanted = true;
}

void ConfirmRecovery(TransferEngine& engine) {
    SendToken(engine, TokenSendRecovr);
    engine.Call.LinkState = LinkState::Transfer;
}

}  // namespace kb::engine
