#include "stores/folder_tree.h"

namespace kb::stores {

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

}  // namespace kb::stores
