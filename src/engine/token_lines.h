// Lines of tokens as the two sides of a session read them from the port and
// write them to it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "engine/wire.h"

namespace kb::engine {

struct TransferEngine;

// The end of a token line that one read got before the line's end had come.
// Only the last few bytes are kept, too few to hold a whole token but enough
// to begin any, and only for a moment, so that no fragment outlives its call.
// The communications thread alone uses it.
struct CarriedLine {
    std::string Bytes;
    uint32_t At = 0;
};

// Reads one line within limitMs into TokenBuffer and gives it in line, behind
// whatever an earlier read left unfinished. Returns false if the line did
// not end in time; its end is then kept for the next read, so that a token
// whose pieces come further apart than one read waits is still heard.
[[nodiscard]] bool ReadTokenLine(TransferEngine& engine, int16_t limitMs, std::string& line);
// Drops what an earlier read left unfinished: the call it belonged to is over.
void ForgetUnfinishedLine(TransferEngine& engine);
// Writes a token, its text and CR LF, to the port.
void SendToken(TransferEngine& engine, const WireToken& token);

// Whether a line's dispatch goes on after a token's handler: one that has
// ended the call stops it, since nothing else on the line belongs to a call
// that is gone.
enum class Dispatch { Next, Stop };

// A token a side hears and what it does about it. A line is looked at for
// every row in order, each row's handler running when the line holds its
// text, or its other text that counts the same.
struct TokenRow {
    std::string_view Text;
    std::string_view OrText;  // empty when only Text counts
    Dispatch (*Handle)(TransferEngine& engine);
};

// Runs the handler of every row whose text the line holds, in the rows'
// order, until one says to stop.
void DispatchLine(TransferEngine& engine, std::string_view line, std::span<const TokenRow> rows);

}  // namespace kb::engine
