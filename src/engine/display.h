// Where the engine's display calls go.
#pragma once

#include "engine/engine_window.h"

// TheEngine.Window while the window exists. Before it exists and after it has
// gone the engine's threads may still run, and then the calls go to a
// NoWindow.
EngineWindow& Display();
