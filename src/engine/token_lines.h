// Lines of tokens as the two sides of a session read them from the port and
// write them to it.
#pragma once

#include <cstdint>
#include <string>

#include "engine/wire.h"

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
[[nodiscard]] bool ReadTokenLine(int16_t limitMs, std::string& line);
// Drops what an earlier read left unfinished: the call it belonged to is over.
void ForgetUnfinishedLine();
// Writes a token, its text and CR LF, to the port.
void SendToken(const WireToken& token);
