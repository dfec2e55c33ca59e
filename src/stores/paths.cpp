#include "stores/paths.h"

namespace kb::stores {

namespace {

std::string Below(const std::string& root, const char* name) {
    if (!root.empty() && root.back() == '/') {
        return root + name;
    }
    return root + "/" + name;
}

}  // namespace

StorePaths::StorePaths(const std::string& root)
    : RootDirectory(root),
      PrefsPath(Below(root, PrefsFileName)),
      DirectoryPath(Below(root, DirectoryFileName)),
      LogPath(Below(root, LogFileName)),
      IncomingPath(Below(root, IncomingFolderName)),
      PickUpPath(Below(root, PickUpFolderName)),
      HelpPath(Below(root, HelpPageName)),
      ResumeRecordPath(Below(root, ResumeFileName)),
      WindowPlacePath(Below(root, WindowPlaceFileName)) {}

}  // namespace kb::stores
