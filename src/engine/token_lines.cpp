#include "engine/token_lines.h"

#include <cstring>

#include "engine/transfer_engine.h"
#include "line/comm_port.h"
#include "platform/clock.h"

namespace {

// How much of an unfinished line is kept (CarriedLine), and for how long.
constexpr size_t CarryBytes = 15;
constexpr uint32_t CarryLimitMs = 1000;

// What was just read, behind what the previous read left unfinished.
std::string JoinCarried(const char* read) {
    std::string line;
    if (!TheEngine.Call.TokenCarry.Bytes.empty() &&
        NowMs() - TheEngine.Call.TokenCarry.At <= CarryLimitMs) {
        line = TheEngine.Call.TokenCarry.Bytes;
    }
    TheEngine.Call.TokenCarry.Bytes.clear();
    return line + read;
}

}  // namespace

bool ReadTokenLine(int16_t limitMs, std::string& line) {
    std::memset(TheEngine.Line->TokenBuffer, 0, TokenBufferSize);
    const bool ended = TheEngine.Line->ReadLine(limitMs, TheEngine.Line->TokenBuffer) != nullptr;
    if (ended) {
        line = JoinCarried(TheEngine.Line->TokenBuffer);
        return true;
    }
    line.clear();
    if (*TheEngine.Line->TokenBuffer != '\0') {  // when nothing came, what is carried ages on
        const std::string unfinished = JoinCarried(TheEngine.Line->TokenBuffer);
        TheEngine.Call.TokenCarry.Bytes =
            unfinished.substr(unfinished.size() > CarryBytes ? unfinished.size() - CarryBytes : 0);
        TheEngine.Call.TokenCarry.At = NowMs();
    }
    return false;
}

void ForgetUnfinishedLine() {
    TheEngine.Call.TokenCarry.Bytes.clear();
}

void SendToken(const WireToken& token) {
    TheEngine.Line->SendBytes(token.Bytes(), static_cast<int16_t>(token.Length()));
}

void DispatchLine(std::string_view line, std::span<const TokenRow> rows) {
    for (const TokenRow& row : rows) {
        if (LineHoldsEither(line, row.Text, row.OrText) && row.Handle() == Dispatch::Stop) {
            return;
        }
    }
}
