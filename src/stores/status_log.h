// The status log: plain lines of text that tell the user what happens.
//
// The window's log list is the log while the program runs; StatusLog carries
// lines to it from any thread and moves it to and from the file
// "kestrelbound_log" at stop and start, and the list's rules keep it within
// its limit.
//
// The file holds each line and a NUL byte, oldest first, then one more NUL as
// the end mark. It is written over its old content without being cut short, so
// bytes of an earlier, longer log may lie behind the end mark; they are never
// read. At most the first LogBufferSize bytes of the file are read at start.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kb::stores {

inline constexpr uint32_t LogBufferSize = 28000;
// The list keeps at most this many lines; the next one takes the oldest
// LogTrimCount away in one batch.
inline constexpr size_t LogLineLimit = 600;
inline constexpr size_t LogTrimCount = 300;
// Callers keep their lines within this length.
inline constexpr size_t LogLineMaxLength = 255;

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

// Receives every line logged while it is installed.
using LogLineSink = std::function<void(const std::string& line)>;

// One installation's log: the lines on their way to the window, and the file
// they are kept in between runs.
class StatusLog {
public:
    explicit StatusLog(std::string path) : path_(std::move(path)) {}
    StatusLog(const StatusLog&) = delete;
    StatusLog& operator=(const StatusLog&) = delete;

    // ---- Adding lines, from any thread ----

    // Tells the user something in passing. Any thread may call it. With a
    // sink installed the line goes to the sink and Add returns once the sink
    // has taken it. Without one the line is held, in order and under the
    // list's own limit, and handed to the next sink installed, so that nothing
    // logged before the window exists, or after it has gone, is lost.
    void Add(const std::string& text);

    // Installs the window's sink; an empty one removes it. Held lines go to a
    // new sink at once, oldest first, before any line logged after the call.
    // When the call returns, no call into the previous sink is still running
    // and none will start. Not to be called from inside a sink, nor while
    // holding anything a sink waits for.
    void SetSink(LogLineSink sink);

    // ---- The file ----

    // Allocates and zeroes the log buffer and reads at most LogBufferSize
    // bytes of the file into it. A missing file is created as a single NUL
    // byte. True when the buffer holds what the file holds, read or just
    // made; false after "Not enough memory for status log." or "Cannot create
    // status log file.", after which the log starts empty.
    bool Load();

    // The lines that Load read, oldest first; none if it failed. The stored
    // lines are not trimmed here, whatever their number.
    [[nodiscard]] std::vector<std::string> StoredLines() const;

    // Frees the log buffer; at exit.
    void Free();

    // Writes the lines over the start of the existing file, each with its
    // NUL, then the end mark, without cutting the file short and without
    // creating it. A line is written up to any NUL within it, and a line that
    // is empty by then is left out, since in the file it would be the end mark
    // and hide every line after it. False if the file cannot be opened or
    // written; no message.
    [[nodiscard]] bool Save(const std::vector<std::string>& lines) const;

private:
    void LeaveSink(std::unique_lock<std::mutex>& lock);

    const std::string path_;
    // The file as the program last read it; the window takes its lines once.
    std::unique_ptr<char[]> buffer_;

    // Where lines go. A sink is never called with sinkLock_ held: a window
    // that hands the line to its own thread and waits there must not meet a
    // thread that waits here to log.
    std::mutex sinkLock_;
    std::condition_variable sinkIdle_;
    LogLineSink sink_;
    // Lines logged without a sink, or while held lines are being handed over.
    std::vector<std::string> heldLines_;
    // A thread is handing held lines to a new sink; later lines queue behind
    // them.
    bool handingOver_ = false;
    // Calls into a sink that are running now.
    int callsInSink_ = 0;
};

// ---- Time ----

// The time as ctime gives it, without the line end: "Wed Nov 18 20:38:05 1997".
std::string TimeText(std::time_t when);
// TimeText of now.
std::string CurrentTimeText();
// The line that marks a start ("Starting Kestrelbound " and the time) or a
// stop ("Stopping Kestrelbound " and the time).
std::string StartStopLine(bool starting);

}  // namespace kb::stores
