// Messages that the user must see at once, and questions that the user
// answers Yes or No before the program goes on.
//
// The front end installs the function that shows a message and returns when
// the user has acknowledged it, and the one that asks a question and returns
// the answer. Without a front end the text goes to standard error, and a
// question is answered Yes: with nobody to ask, what was asked for goes
// ahead. The text uses CR to break lines, as the program's messages are
// written.
#pragma once

#include <functional>
#include <string>

namespace kb::platform {

using MessageBoxHandler = std::function<void(const std::string& text)>;
using QuestionHandler = std::function<bool(const std::string& text)>;

// The text with its line breaks (CR, or CR LF) as LF, as a box or a terminal
// shows them.
[[nodiscard]] std::string MessageLines(const std::string& text);
// Writes the message to standard error: where no box can show it.
void PrintMessage(const std::string& text);

// Shows the message and returns when it has been acknowledged.
void ShowMessageBox(const std::string& text);

// Installs the front end's way of showing messages; an empty handler restores
// the default.
void SetMessageBoxHandler(MessageBoxHandler handler);

// Asks the question and returns the answer: true for Yes.
[[nodiscard]] bool AskYesNo(const std::string& text);

// Installs the front end's way of asking; an empty handler restores the
// default.
void SetQuestionHandler(QuestionHandler handler);

}  // namespace kb::platform
