#include "virtual-ta/config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "platform/files.h"
#include "virtual-ta/identity.h"

namespace kb::virtual_ta {

namespace {

constexpr const char* Blanks = " \t\r";

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

// The file's text, if it is a file (a folder would read as an empty one,
// a FIFO would hang the start) that only its user may change: whoever can
// write it can add a peer, take --insecure or point the trace at any of the
// user's files. One of root's is the user's too, as for ssh.
bool ReadOwnFile(const std::string& path, std::string& text, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        if (fd >= 0) {
            ::close(fd);
        }
        error = "cannot read the configuration file '" + path + "'";
        return false;
    }
    if (status.st_uid != ::geteuid() && status.st_uid != 0) {
        ::close(fd);
        error = "the configuration file '" + path + "' belongs to another user (" +
                std::to_string(status.st_uid) + "): make it the user's own with chown";
        return false;
    }
    if ((status.st_mode & 022) != 0) {
        ::close(fd);
        error = "the configuration file '" + path + "' may be changed by others (mode " +
                ModeText(status.st_mode) + "): make it the user's alone with chmod go-w";
        return false;
    }
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::read(fd, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(count));
    }
    ::close(fd);
    if (count < 0) {
        error = "cannot read the configuration file '" + path + "'";
        return false;
    }
    return true;
}

}  // namespace

bool ReadConfigFile(const std::string& path, Options& options, std::string& error) {
    std::string text;
    if (!ReadOwnFile(path, text, error)) {
        return false;
    }
    const std::string folder = kb::platform::FolderOfPath(path);
    std::istringstream file(text);
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
