// Folders for stations: each an installation of its own, whose COM1 is a
// virtual adapter and whose COM2 to COM4 are plain files, so that a search
// never touches a real serial port of the machine.
#pragma once

#include <string>

#include "support/temp_folder.h"

// Makes folder/name as an installation and returns its path.
inline std::string MakeInstallation(const TempFolder& root, const std::string& name,
                                    int firstFreePort = 2) {
    const std::string folder = root / name;
    std::string command = "mkdir -p '" + folder + "'";
    if (std::system(command.c_str()) != 0) {
        return folder;
    }
    for (int port = firstFreePort; port <= 4; ++port) {
        WriteWholeFile(folder + "/COM" + std::to_string(port), "");
    }
    return folder;
}
