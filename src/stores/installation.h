// One installation: the files and folders below the folder it was started in,
// and what they hold while the program runs.
//
// A front end makes one at start and hands it down to every layer that keeps
// or reads a store, so nothing of an installation lives at namespace scope and
// a test makes as many as it likes, each in a folder of its own. It outlives
// every thread that reads it.
#pragma once

#include <string>

#include "stores/directory.h"
#include "stores/paths.h"
#include "stores/preferences.h"
#include "stores/status_log.h"

namespace kb::stores {

class Installation {
public:
    explicit Installation(const std::string& root) : Paths(root), Log(Paths.LogPath) {}
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

    const StorePaths Paths;
    // Zero until loaded, as a first run finds them.
    Preferences Prefs{};
    CorrespondentDirectory Directory;
    StatusLog Log;

    // Reads the three stores from their files; a loader that fails has told
    // the user so itself and leaves its store empty.
    void Load() {
        static_cast<void>(LoadPreferences(Prefs, Paths.PrefsPath));
        static_cast<void>(LoadDirectory(Directory, Paths.DirectoryPath));
        static_cast<void>(Log.Load());
    }
};

}  // namespace kb::stores
