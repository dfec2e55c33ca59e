// The folders of a correspondent below "Pick Up".
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

}  // namespace kb::stores
