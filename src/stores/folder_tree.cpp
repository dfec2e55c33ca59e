#include "stores/folder_tree.h"

#include <cstdint>
#include <vector>

#include "platform/files.h"

namespace kb::stores {

using platform::FolderEntry;

namespace {

// When the newest plain file of the folder last changed; 0 when it holds
// none or cannot be read.
int64_t NewestFileIn(const std::string& folder) {
    std::vector<FolderEntry> entries;
    int64_t newest = 0;
    if (platform::ListFolder(folder, entries)) {
        for (const FolderEntry& entry : entries) {
            if (entry.IsFile && entry.ModifiedNs > newest) {
                newest = entry.ModifiedNs;
            }
        }
    }
    return newest;
}

}  // namespace

bool NameCanBeFolder(std::string_view name) {
    if (name.empty() || name == "." || name == "..") {
        return false;
    }
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '/' || byte < 0x20 || byte == 0x7F) {
            return false;
        }
    }
    return true;
}

std::string PickUpFolderOf(const std::string& pickUpRoot, const Correspondent& record) {
    const std::string name = FieldText(record.FirmName);
    return NameCanBeFolder(name) ? pickUpRoot + "/" + name : std::string();
}

std::string NewestArrivalFolder(const std::string& incomingRoot) {
    std::string newestName;  // "" for the incoming folder itself
    int64_t newest = NewestFileIn(incomingRoot);
    std::vector<FolderEntry> entries;
    if (!platform::ListFolder(incomingRoot, entries)) {
        return incomingRoot;
    }
    for (const FolderEntry& entry : entries) {
        if (!entry.IsFolder || entry.Name == "." || entry.Name == "..") {
            continue;
        }
        // Of two folders whose files arrived within one tick of a coarse
        // clock, the later letter is the later delivery.
        const int64_t time = NewestFileIn(incomingRoot + "/" + entry.Name);
        if (time > newest || (time != 0 && time == newest && entry.Name > newestName)) {
            newest = time;
            newestName = entry.Name;
        }
    }
    return newestName.empty() ? incomingRoot : incomingRoot + "/" + newestName;
}

}  // namespace kb::stores
