// What the communications thread's passes offer the handlers they call.
#pragma once

#include <string>

namespace kb::engine {

struct TransferEngine;

// True on the communications thread.
bool OnCommThread(TransferEngine& engine);
// Shows a message. On the communications thread, inside a pass, the message
// is shown when the pass has let go of the port, so that a message box that
// waits for the user never keeps another thread from the port.
void ShowMessageOutsidePass(TransferEngine& engine, const std::string& text);

}  // namespace kb::engine
