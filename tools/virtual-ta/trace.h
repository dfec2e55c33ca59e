// The trace file: one line per command, reply, call event and byte count,
// each with the seconds since the tool started. Every line goes to the file
// at once, so that a test or a user can follow it while the tool runs.
#pragma once

#include <string>
#include <string_view>

namespace kb::virtual_ta {

// Opens the trace file, replacing an old one. False if it cannot be made.
bool OpenTrace(const std::string& path);
void CloseTrace();
bool TraceOn();

// Writes "SECONDS WHO TEXT".
void TraceLine(std::string_view who, std::string_view text);

// The tool's log: what its user should know of its calls with other
// computers (a refused connection, a call in plain TCP under --insecure).
// A line on standard error, which the journal keeps when the tool runs as
// a service, and the same in the trace as "-".
void LogLine(std::string_view text);

// Bytes as readable text: printable characters as they are, CR as \r, LF as
// \n, anything else as \xNN.
std::string Printable(std::string_view bytes);

}  // namespace kb::virtual_ta
