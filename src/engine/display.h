// Where the engine's display calls go.
#pragma once

#include "engine/engine_window.h"

namespace kb::engine {

struct TransferEngine;

// The engine's Window while the window exists. Before it exists and after it has
// gone the engine's threads may still run, and then the calls go to a
// NoWindow.
EngineWindow& Display(TransferEngine& engine);
// Where the display calls go from now on: the window, as it comes, or null
// as it goes. Set by the window's thread.
void SetEngineWindow(TransferEngine& engine, EngineWindow* window);

}  // namespace kb::engine
