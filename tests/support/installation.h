// Installation folders for the program in tests. Their ports COMn are plain
// files unless a test puts a virtual adapter there, so that a search for the
// adapter never touches a serial port of the machine.
#pragma once

#include <string>
#include <vector>

#include "support/temp_folder.h"

namespace kb::test {

// Makes the ports from COM firstPort to COM4 of the installation plain files:
// a search finds no adapter there.
void BlockPorts(const std::string& folder, int firstPort = 1);

// Makes folder/name as an installation and returns its path. The ports from
// firstFreePort on are blocked; those before it are left for virtual adapters
// (COM1 by default).
std::string MakeInstallation(const TempFolder& root, const std::string& name,
                             int firstFreePort = 2);

// The lines of an installation's saved log, read as the program reads them.
std::vector<std::string> SavedLog(const std::string& installation);

}  // namespace kb::test
