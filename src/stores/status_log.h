// The status log: plain lines of text that tell the user what happens.
//
// The window's log list is the log while the program runs; these operations
// carry lines to it from any thread, keep the list within its limit, and move
// it to and from the file "kestrelbound_log" at stop and start.
//
// The file holds each line and a NUL byte, oldest first, then one more NUL as
// the end mark. It is written over its old content without being cut short, so
// bytes of an earlier, longer log may lie behind the end mark; they are never
// read. At most the first LogBufferSize bytes of the file are read at start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

inline constexpr uint32_t LogBufferSize = 28000;
// The list keeps at most this many lines; the next one takes the oldest
// LogTrimCount away in one batch.
inline constexpr size_t LogLineLimit = 600;
inline constexpr size_t LogTrimCount = 300;
// Callers keep their lines within this length.
inline constexpr size_t LogLineMaxLength = 255;

// ---- Adding lines, from any thread ----

// Receives every line logged while it is installed.
using LogLineSink = std::function<void(const std::string& line)>;

// Tells the user something in passing. Any thread may call it. With a sink
// installed the line goes to the sink and AddLogLine returns once the sink has
// taken it. Without one the line is held, in order and under the list's own
// limit, and handed to the next sink installed, so that nothing logged before
// the window exists, or after it has gone, is lost.
void AddLogLine(const std::string& text);

// Installs the window's sink; an empty one removes it. Held lines go to a new
// sink at once, oldest first, before any line logged after the call. When the
// call returns, no call into the previous sink is still running and none will
// start. Not to be called from inside a sink, nor while holding anything a
// sink waits for.
void SetLogLineSink(LogLineSink sink);

// ---- The list's rules, for the window ----

// Appends a line to the window's lines. When that makes more than
// LogLineLimit, the oldest LogTrimCount go: the 601st line leaves 301. Returns
// how many lines were taken from the front (0 or LogTrimCount).
size_t AppendLogLine(std::vector<std::string>& lines, std::string text);

// The lines stored in a buffer: each NUL-terminated, non-empty string from the
// start, up to the first empty one. Never reads beyond size bytes; a line that
// the end of the buffer cuts off has no NUL within it and is left out, since
// its cut-short text could say something other than what was logged.
std::vector<std::string> LogLinesFromBuffer(const char* buffer, size_t size);

// ---- The file ----

// Allocates and zeroes the log buffer and reads at most LogBufferSize bytes of
// LogPath into it. A missing file is created as a single NUL byte. 1, or 0
// after "Not enough memory for status log." or "Cannot create status log
// file.", after which the log starts empty.
int LoadStatusLog();

// The lines that LoadStatusLog read, oldest first; none if it failed. The
// stored lines are not trimmed here, whatever their number.
std::vector<std::string> StoredLogLines();

// Frees the log buffer; at exit.
void FreeStatusLog();

// Writes the lines over the start of the existing LogPath, each with its NUL,
// then the end mark, without cutting the file short and without creating it.
// A line is written up to any NUL within it, and a line that is empty by then
// is left out, since in the file it would be the end mark and hide every line
// after it. 1, or 0 if the file cannot be opened or written; no message.
int SaveStatusLog(const std::vector<std::string>& lines);

// ---- Time ----

// The time as ctime gives it, without the line end: "Wed Nov 18 20:38:05 1997".
std::string TimeText(std::time_t when);
// TimeText of now.
std::string CurrentTimeText();
// The line that marks a start ("Starting Kestrelbound " and the time) or a
// stop ("Stopping Kestrelbound " and the time).
std::string StartStopLine(bool starting);
