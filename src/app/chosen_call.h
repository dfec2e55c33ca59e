// The call that the window has set up: the number and name in the directory
// panel, the carrier, and the outgoing settings. Only the window's own
// sources use it; the engine gets it as a record.
#pragma once

#include <string>

#include "engine/dialing.h"

namespace kb::app {

using engine::CallRequest;

// The protocol is the one the selected row names; no row selected is V.120.
CallRequest ChosenCall();

// A number the dial can use: digits, and between them only the separators
// people write numbers with and the "+" or "&" that joins a second number.
// Anything else, a letter O for a zero above all, would be dropped from the
// dial without a word.
[[nodiscard]] bool NumberCanBeDialled(const std::string& number);
// What the user is told about a number that cannot be dialled.
[[nodiscard]] std::string UndiallableNumberMessage(const std::string& number);

}  // namespace kb::app
