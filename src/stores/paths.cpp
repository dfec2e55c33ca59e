#include "stores/paths.h"

namespace {

std::string RootDirectoryValue;
std::string PrefsPathValue;
std::string DirectoryPathValue;
std::string LogPathValue;
std::string IncomingPathValue;
std::string PickUpPathValue;
std::string HelpPathValue;

std::string Below(const std::string& root, const char* name) {
    if (!root.empty() && root.back() == '/') {
        return root + name;
    }
    return root + "/" + name;
}

}  // namespace

// Bound to objects of static storage, these references are set before any
// code runs, so a reader in another file's start-up never sees them unbound.
const std::string& RootDirectory = RootDirectoryValue;
const std::string& PrefsPath = PrefsPathValue;
const std::string& DirectoryPath = DirectoryPathValue;
const std::string& LogPath = LogPathValue;
const std::string& IncomingPath = IncomingPathValue;
const std::string& PickUpPath = PickUpPathValue;
const std::string& HelpPath = HelpPathValue;

std::string ResumeRecordPath() {
    return Below(RootDirectoryValue, ResumeFileName);
}

void BuildPaths(const std::string& root) {
    RootDirectoryValue = root;
    PrefsPathValue = Below(root, PrefsFileName);
    DirectoryPathValue = Below(root, DirectoryFileName);
    LogPathValue = Below(root, LogFileName);
    IncomingPathValue = Below(root, IncomingFolderName);
    PickUpPathValue = Below(root, PickUpFolderName);
    HelpPathValue = Below(root, HelpPageName);
}
