// kbstation's standard input and output: commands come in a line at a time,
// and every answer, log line and message goes out as one whole line, never
// mixed with another thread's.
#pragma once

#include <functional>
#include <string>

// Writes the line and a newline to standard output in one piece. A reader
// that has gone away does not stop the station.
void PrintLine(const std::string& line);
// The text on one line of printable UTF-8: CR, LF and TAB shown as \r, \n
// and \t, every other control character and every byte that is no UTF-8
// character as \xNN, and a backslash as \\ (docs/kbstation.md).
std::string OneLine(const std::string& text);
// The same in double quotes, a double quote in it escaped as \".
std::string Quoted(const std::string& text);

// Reads commands from standard input and runs them one after another, each
// once the one before has been answered, until StopCommandInput. A command is
// a line without the blanks and CR around it; empty lines are skipped. The
// end of the input leaves the station running; once every command before it
// has been answered, onCommandsEnded is called once. A stopping signal
// (SIGINT, SIGTERM) calls onStop once. Call BlockStopSignals first, before
// any other thread starts.
void StartCommandInput(std::function<std::string(const std::string& command)> run,
                       std::function<void()> onStop, std::function<void()> onCommandsEnded);
// Stops reading and waits for the command under way to be answered.
void StopCommandInput();
// Holds SIGINT and SIGTERM back in this thread and every thread it starts,
// so that only the command input sees them, and ignores SIGPIPE. False if
// the signals cannot be read.
[[nodiscard]] bool BlockStopSignals();
