#include "stores/paths.h"

namespace {

std::string rootDirectory;
std::string prefsPath;
std::string directoryPath;
std::string logPath;
std::string incomingPath;
std::string pickUpPath;
std::string helpPath;

std::string Below(const std::string& root, const char* name) {
    if (!root.empty() && root.back() == '/') {
        return root + name;
    }
    return root + "/" + name;
}

}  // namespace

// Bound to objects of static storage, these references are set before any
// code runs, so a reader in another file's start-up never sees them unbound.
const std::string& RootDirectory = rootDirectory;
const std::string& PrefsPath = prefsPath;
const std::string& DirectoryPath = directoryPath;
const std::string& LogPath = logPath;
const std::string& IncomingPath = incomingPath;
const std::string& PickUpPath = pickUpPath;
const std::string& HelpPath = helpPath;

void BuildPaths(const std::string& root) {
    rootDirectory = root;
    prefsPath = Below(root, PrefsFileName);
    directoryPath = Below(root, DirectoryFileName);
    logPath = Below(root, LogFileName);
    incomingPath = Below(root, IncomingFolderName);
    pickUpPath = Below(root, PickUpFolderName);
    helpPath = Below(root, HelpPageName);
}
