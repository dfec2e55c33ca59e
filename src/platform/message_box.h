// Messages that the user must see at once.
//
// The front end installs the function that shows a message and returns when
// the user has acknowledged it. Without a front end the text goes to standard
// error. The text uses CR to break lines, as the program's messages are
// written.
#pragma once

#include <functional>
#include <string>

namespace kb::platform {

using MessageBoxHandler = std::function<void(const std::string& text)>;

// Shows the message and returns when it has been acknowledged.
void ShowMessageBox(const std::string& text);

// Installs the front end's way of showing messages; an empty handler restores
// the default.
void SetMessageBoxHandler(MessageBoxHandler handler);

}  // namespace kb::platform
