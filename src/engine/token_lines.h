// Lines of tokens as the two sides of a session read them from the port and
// write them to it.
#pragma once

#include <cstdint>
#include <string>

#include "engine/wire.h"

// Reads one line within limitMs into TokenBuffer and gives it in line, behind
// whatever an earlier read left unfinished. Returns false if the line did
// not end in time; its end is then kept for the next read, so that a token
// whose pieces come further apart than one read waits is still heard.
[[nodiscard]] bool ReadTokenLine(int16_t limitMs, std::string& line);
// Drops what an earlier read left unfinished: the call it belonged to is over.
void ForgetUnfinishedLine();
// Writes a token, its text and CR LF, to the port.
void SendToken(const WireToken& token);
