#include "engine/token_lines.h"

#include <cstring>

#include "engine/transfer_engine.h"
#include "line/comm_port.h"
#include "platform/clock.h"

namespace {

// Only the last few bytes are kept, too few to hold a whole token but enough
// to begin any, and only for a moment, so that no fragment outlives its call.
// The communications thread alone uses them.
constexpr size_t CarryBytes = 15;
constexpr uint32_t CarryLimitMs = 1000;
std::string CarriedBytes;
uint32_t CarriedAt = 0;

// What was just read, behind what the previous read left unfinished.
std::string JoinCarried(const char* read) {
    std::string line;
    if (!CarriedBytes.empty() && NowMs() - CarriedAt <= CarryLimitMs) {
        line = CarriedBytes;
    }
    CarriedBytes.clear();
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
        CarriedBytes =
            unfinished.substr(unfinished.size() > CarryBytes ? unfinished.size() - CarryBytes : 0);
        CarriedAt = NowMs();
    }
    return false;
}

void ForgetUnfinishedLine() {
    CarriedBytes.clear();
}

void SendToken(const WireToken& token) {
    TheEngine.Line->SendBytes(token.Bytes(), static_cast<int16_t>(token.Length()));
}
