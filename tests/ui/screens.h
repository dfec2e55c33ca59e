// Where the ui tests leave pictures of the window for people to look at:
// build/screens.
#pragma once

#include <string>

#include "platform/files.h"

namespace kb::test {

inline std::string ScreensFolder() {
    const std::string folder = KB_SCREENS_DIR;
    // Every screen test after the first finds the folder there already.
    static_cast<void>(platform::CreateFolder(folder));
    return folder;
}

}  // namespace kb::test
