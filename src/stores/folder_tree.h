// The folders of a correspondent below "Pick Up", and the folder below
// "Incoming Files" where the latest file arrived.
//
// A firm name is also the name of its record's pick-up folder. Names arrive
// from other people, in exported entries dropped or received, so a name
// becomes a path only when it names one folder directly below "Pick Up" and
// nothing else: never the folder itself, its parent or a folder further down.
#pragma once

#include <string>
#include <string_view>

#include "stores/directory.h"

namespace kb::stores {

// Whether the name can name a folder of its own: not empty, not "." or "..",
// and without "/" and control characters.
bool NameCanBeFolder(std::string_view name);

// The pick-up folder of the record, below the installation's pick-up root
// (StorePaths::PickUpPath); "" when its firm name cannot name a folder, so
// that no operation on it reaches anywhere.
std::string PickUpFolderOf(const std::string& pickUpRoot, const Correspondent& record);

// Where the latest file arrived: the folder, "Incoming Files" itself or one
// directly below it (each list that brings a folder gets one of its own,
// "Alice", "Alice-A" and on), that holds the plain file changed last; the
// incoming folder when none holds any. A file manager sorts a folder its own
// way, so the program cannot put the newest first in "Incoming Files"; it can
// open the folder the newest is in.
[[nodiscard]] std::string NewestArrivalFolder(const std::string& incomingRoot);

}  // namespace kb::stores
