// kbstation's own parts, made once by its main and handed to whatever needs
// them: the output every thread prints to, the desktop and keys it stands in
// for, what its waits look at, the program and its window, and the command
// input with its threads.
#pragma once

#include "app/application.h"
#include "station/station_desktop.h"
#include "station/station_io.h"
#include "station/waits.h"

namespace kb::station {

using app::TransferApp;
using platform::Desktop;

struct StationFrontEnd {
    StationOutput Output;
    StationDesktop Desktop{Output};
    StationWaits Waits{Output};
    // The program itself, whose window the commands reach.
    TransferApp App;
    // Last, so that its threads, which reach the parts above, end first.
    CommandInput Input{Output};
};

}  // namespace kb::station
