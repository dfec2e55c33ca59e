#include "support/installation.h"

#include <filesystem>

namespace kb::test {

void BlockPorts(const std::string& folder, int firstPort) {
    for (int port = firstPort; port <= 4; ++port) {
        WriteWholeFile(folder + "/COM" + std::to_string(port), "");
    }
}

std::string MakeInstallation(const TempFolder& root, const std::string& name, int firstFreePort) {
    const std::string folder = root / name;
    std::error_code ignored;
    std::filesystem::create_directories(folder, ignored);
    BlockPorts(folder, firstFreePort);
    return folder;
}

}  // namespace kb::test
