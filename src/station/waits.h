// What kbstation waits for: work handed to the main loop's thread, a log
// line, a state of the link. Every wait ends on the event or on its time
// limit, and all of them give up once the main loop has ended.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "app/application.h"
#include "station/station_io.h"

namespace kb::station {

using app::TransferApp;

// How a command went: done, or refused with the reason.
struct Answer {
    bool Ok = true;
    std::string Why;
};
Answer Fail(std::string why);

// The log lines that a wait may still look at. A wait looks only behind the
// line that the last wait matched, so the lines up to that one are let go;
// and once the commands have ended no wait can come, so none is kept. An
// unattended station thus keeps nothing for its log, however long it runs.
class SeenLines {
public:
    void Add(const std::string& line);
    // Whether a line holding the text came after the last match; the first
    // such line is the new match.
    [[nodiscard]] bool TakeMatch(const std::string& text);
    // No wait will come any more.
    void EndWaits();
    [[nodiscard]] size_t Kept() const { return lines_.size(); }

private:
    std::deque<std::string> lines_;  // behind the last match
    bool ended_ = false;
};

// What the commands wait on: the log lines and the changes of the window,
// fed by the window's log observer and control listener from whichever
// thread logs or changes, and the end of the main loop, told by main.
class StationWaits {
public:
    explicit StationWaits(StationOutput& output) : output_(output) {}

    // Runs the work on the main loop's thread, between the window's timers as
    // a click would be, and waits until it is done.
    Answer OnMainLoop(std::function<Answer()> work);
    // Waits for a log line holding the text, among the lines added after the
    // one that the last such wait matched.
    Answer WaitForLog(const std::string& text, double seconds);
    // Waits until the program names the link's state so.
    Answer WaitForLinkState(const TransferApp& app, const std::string& state, double seconds);

    // Each line the log receives, in order; the window's log observer.
    void NoteLogLine(const std::string& line);
    // The commands have ended and every one of them has been answered.
    void NoteCommandsEnded();
    // A control changed: the waits look again.
    void NoteChange();
    // The main loop has ended; nothing posted to it runs any more.
    void NoteLoopEnded();

private:
    StationOutput& output_;
    std::mutex lock_;
    std::condition_variable changed_;
    SeenLines seen_;
    bool loopEnded_ = false;
};

}  // namespace kb::station
