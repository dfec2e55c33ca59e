// kbstation's commands: a table of verbs, each with what it takes and what it
// does to the window. docs/kbstation.md lists them for the user.
#pragma once

#include <string>

// Runs one command line and says how it went: "ok" or "error: <why>".
std::string RunStationCommand(const std::string& line);
