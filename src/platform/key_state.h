// Whether the Shift or Ctrl key is held down, as the front end knows it. A
// program without a keyboard reports both keys up, unless told otherwise.
#pragma once

#include <functional>

namespace kb::platform {

enum class Key { Shift, Control };

bool KeyIsDown(Key key);

// Installs the front end's way of asking; an empty query restores "up".
void SetKeyStateQuery(std::function<bool(Key)> query);

}  // namespace kb::platform
