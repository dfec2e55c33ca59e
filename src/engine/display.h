// Where the engine's display calls go.
#pragma once

#include "engine/engine_window.h"

// TheMainWindow while the window exists. Before it exists and after it has
// gone the engine's threads may still run, and then the calls go to a window
// that shows nothing but keeps the engine's own figures right: the send total
// is still summed and an emptied file list still empties SendList.
EngineWindow& Display();
