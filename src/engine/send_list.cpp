#include "engine/send_list.h"

#include <algorithm>

namespace kb::engine {

void SendList::Allocate() {
    if (entries_ == nullptr) {
        entries_ = std::make_unique<FileEntry[]>(ListCapacity);
    }
}

void SendList::Free() {
    entries_.reset();
    count_.store(0);
    remaining_.store(0);
}

int16_t SendList::Count() const {
    return std::clamp<int16_t>(count_.load(), 0, static_cast<int16_t>(ListCapacity));
}

bool SendList::Add(const FileEntry& entry) {
    const int16_t count = Count();
    if (entries_ == nullptr || count >= ListCapacity) {
        return false;
    }
    entries_[count] = entry;
    count_.store(static_cast<int16_t>(count + 1));
    if (entry.EntryKind != FileKind::FolderMarker) {
        remaining_.fetch_add(entry.TotalLength);
    }
    return true;
}

void SendList::StartFolder(const FileEntry& marker) {
    Clear();
    if (entries_ == nullptr) {
        return;
    }
    entries_[0] = marker;
    count_.store(1);
}

bool SendList::Remove(int index) {
    const int16_t count = Count();
    if (index < 0 || index >= count) {
        return false;
    }
    for (int i = index; i + 1 < count; ++i) {
        entries_[i] = entries_[i + 1];
    }
    count_.store(static_cast<int16_t>(count - 1));
    RecomputeTotal();
    return true;
}

void SendList::Clear() {
    remaining_.store(0);
    count_.store(0);
}

void SendList::DropFirst() {
    const int16_t count = Count();
    if (count <= 0) {
        return;
    }
    for (int i = 0; i + 1 < count; ++i) {
        entries_[i] = entries_[i + 1];
    }
    count_.store(static_cast<int16_t>(count - 1));
    RecomputeTotal();
}

uint32_t SendList::RecomputeTotal() {
    const int16_t count = Count();
    uint32_t total = 0;
    for (int i = 0; i < count; ++i) {
        // The folder marker carries no bytes of its own.
        if (entries_[i].EntryKind != FileKind::FolderMarker) {
            total += entries_[i].TotalLength;
        }
    }
    remaining_.store(total);
    return total;
}

void SendList::Book(uint32_t bytes) {
    const uint32_t remaining = remaining_.load();
    remaining_.store(remaining > bytes ? remaining - bytes : 0);
}

}  // namespace kb::engine
