#include "engine/token_lines.h"

#include <cstring>

#include "engine/transfer_engine.h"
#include "line/comm_port.h"
#include "platform/clock.h"

namespace kb::engine {

using namespace kb::line;
using namespace kb::platform;

namespace {

// How much of an unfinished line is kept (CarriedLine), and for how long.
constexpr size_t CarryBytes = 15;
constexpr uint32_t CarryLimitMs = 1000;

// What was just read, behind what the previous read left unfinished.
std::string JoinCarried(TransferEngine& engine, const char* read) {
    std::string line;
    if (!engine.Call.TokenCarry.Bytes.empty() &&
        engine.Clock.NowMs() - engine.Call.TokenCarry.At <= CarryLimitMs) {
        line = engine.Call.TokenCarry.Bytes;
    }
    engine.Call.TokenCarry.Bytes.clear();
    return line + read;
}

}  // namespace

bool ReadTokenLine(TransferEngine& engine, int16_t limitMs, std::string& line) {
    std::memset(engine.Line->TokenBuffer, 0, TokenBufferSize);
    const bool ended = engine.Line->ReadLine(limitMs, engine.Line->TokenBuffer) != nullptr;
    if (ended) {
        line = JoinCarried(engine, engine.Line->TokenBuffer);
        return true;
    }
    line.clear();
    if (*engine.Line->TokenBuffer != '\0') {  // when nothing came, what is carried ages on
        const std::string unfinished = JoinCarried(engine, engine.Line->TokenBuffer);
        engine.Call.TokenCarry.Bytes =
            unfinished.substr(unfinished.size() > CarryBytes ? unfinished.size() - CarryBytes : 0);
        engine.Call.TokenCarry.At = engine.Clock.NowMs();
    }
    return false;
}

void ForgetUnfinishedLine(TransferEngine& engine) {
    engine.Call.TokenCarry.Bytes.clear();
}

void SendToken(TransferEngine& engine, const WireToken& token) {
    engine.Line->SendBytes(token.Bytes(), static_cast<int16_t>(token.Length()));
}

void DispatchLine(TransferEngine& engine, std::string_view line, std::span<const TokenRow> rows) {
    for (const TokenRow& row : rows) {
        if (LineHoldsEither(line, row.Text, row.OrText) && row.Handle(engine) == Dispatch::Stop) {
            return;
        }
    }
}

}  // namespace kb::engine
