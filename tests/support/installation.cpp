#include "support/installation.h"

#include <filesystem>

#include "stores/paths.h"
#include "stores/status_log.h"

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

std::vector<std::string> SavedLog(const std::string& installation) {
    const std::string bytes = ReadWholeFile(stores::StorePaths(installation).LogPath);
    return stores::LogLinesFromBuffer(bytes.data(), bytes.size());
}

}  // namespace kb::test
