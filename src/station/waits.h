// What kbstation waits for: work handed to the main loop's thread, a log
// line, a state of the link. Every wait ends on the event or on its time
// limit, and all of them give up once the main loop has ended.
#pragma once

#include <functional>
#include <string>

// How a command went: done, or refused with the reason.
struct Answer {
    bool Ok = true;
    std::string Why;
};
Answer Fail(std::string why);

// Runs the work on the main loop's thread, between the window's timers as a
// click would be, and waits until it is done.
Answer OnMainLoop(std::function<Answer()> work);
// Waits for a log line holding the text, among the lines added after the one
// that the last such wait matched.
Answer WaitForLog(const std::string& text, double seconds);
// Waits until the window names the link's state so.
Answer WaitForLinkState(const std::string& state, double seconds);

// Each line the log receives, in order; the window's log observer.
void NoteLogLine(const std::string& line);
// A control changed: the waits look again.
void NoteChange();
// The main loop has ended; nothing posted to it runs any more.
void NoteLoopEnded();
