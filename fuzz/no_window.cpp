// The program's window defines the engine's one window pointer; the fuzz
// targets have no window, and the engine then shows nothing.
#include "engine/engine_window.h"

EngineWindow* TheMainWindow = nullptr;
