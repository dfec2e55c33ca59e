// kbstation's commands: a table of verbs, each with what it takes and what it
// does to the window. docs/kbstation.md lists them for the user.
#pragma once

#include <string>

#include "station/station_front_end.h"

namespace kb::station {

// Runs one command line on the station and says how it went: "ok" or
// "error: <why>".
std::string RunStationCommand(StationFrontEnd& station, const std::string& line);

}  // namespace kb::station
