#include "virtual-ta/config.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "platform/files.h"

namespace kb::virtual_ta {

namespace {

constexpr const char* Blanks = " \t\r";

std::string HomeFolder() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') {
        return home;
    }
    const passwd* user = ::getpwuid(::getuid());
    return user != nullptr && user->pw_dir != nullptr ? user->pw_dir : "";
}

// A path written in the file, as the tool opens it: the file does not move
// with the folder the tool happens to start in (the service manager's is /).
std::string PathFromFile(const std::string& path, const std::string& fileFolder) {
    if (path.rfind("~/", 0) == 0) {
        return HomeFolder() + path.substr(1);
    }
    if (path.empty() || path[0] == '/' || fileFolder.empty()) {
        return path;
    }
    return fileFolder + "/" + path;
}

}  // namespace

bool ReadConfigFile(const std::string& path, Options& options, std::string& error) {
    // A folder would open, and read as an empty file.
    std::ifstream file(path);
    if (kb::platform::KindOfPath(path) != kb::platform::PathKind::File || !file) {
        error = "cannot read the configuration file '" + path + "'";
        return false;
    }
    const std::string folder = kb::platform::FolderOfPath(path);
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        line = line.substr(0, line.find('#'));
        const size_t nameStart = line.find_first_not_of(Blanks);
        if (nameStart == std::string::npos) {
            continue;
        }
        const size_t nameEnd = line.find_first_of(Blanks, nameStart);
        const std::string name = line.substr(nameStart, nameEnd - nameStart);
        std::string value;
        const size_t valueStart =
            nameEnd == std::string::npos ? nameEnd : line.find_first_not_of(Blanks, nameEnd);
        if (valueStart != std::string::npos) {
            value = line.substr(valueStart, line.find_last_not_of(Blanks) + 1 - valueStart);
        }
        if (name == "adapter" || name == "trace" || name == "identity") {
            value = PathFromFile(value, folder);
        }
        bool taken = false;
        const ValueTaker take = [&](std::string& given, std::string& reason) {
            taken = true;
            given = value;
            if (valueStart == std::string::npos) {
                reason = name + " needs a value";
                return false;
            }
            return true;
        };
        const std::string where = path + ":" + std::to_string(number) + ": ";
        switch (ApplySetting(name, name, take, options, error)) {
            case Applied::Taken:
                if (!taken && valueStart != std::string::npos) {
                    error = where + name + " takes no value";
                    return false;
                }
                break;
            case Applied::Refused:
                error = where + error;
                return false;
            case Applied::Unknown:
                error = where + "unknown setting '" + name + "'";
                return false;
        }
    }
    return true;
}

}  // namespace kb::virtual_ta
