// What the communications thread's passes offer the handlers they call.
#pragma once

#include <string>

// True on the communications thread.
bool OnCommThread();
// Shows a message. On the communications thread, inside a pass, the message
// is shown when the pass has let go of the port, so that a message box that
// waits for the user never keeps another thread from the port.
void ShowMessageOutsidePass(const std::string& text);
