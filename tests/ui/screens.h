// Where the ui tests leave pictures of the window for people to look at:
// build/screens.
#pragma once

#include <string>

#include "platform/files.h"

inline std::string ScreensFolder() {
    const std::string folder = KB_SCREENS_DIR;
    CreateFolder(folder);
    return folder;
}
