#include "stores/directory.h"

#include <algorithm>
#include <cstring>

#include "platform/files.h"
#include "platform/message_box.h"

namespace kb::stores {

using namespace kb::platform;

bool LoadDirectory(CorrespondentDirectory& directory, const std::string& path) {
    // The table is part of its installation, so it cannot fail to exist; the
    // message about memory for it does not arise.
    std::memset(directory.Records, 0, sizeof directory.Records);
    directory.Count = 0;

    File file;
    if (!file.Open(path, File::Mode::Read)) {
        if (!file.Open(path, File::Mode::CreateReadWrite)) {
            ShowMessageBox("Cannot create directory file.");
            return false;
        }
        const uint8_t emptyCount[2] = {0, 0};
        // A count not written reads as none.
        static_cast<void>(file.Write(emptyCount, sizeof emptyCount));
        file.Close();
        return true;
    }

    uint8_t countBytes[2] = {0, 0};
    const uint32_t got = file.Read(countBytes, sizeof countBytes);
    const int16_t stored = got == sizeof countBytes
                               ? static_cast<int16_t>(countBytes[0] | (countBytes[1] << 8))
                               : int16_t{0};
    // The stored count is not trusted beyond what fits the table and what the
    // file really holds, so a damaged file can never write past the table nor
    // bring half a record in. A file whose length cannot be told holds no
    // whole record.
    const int64_t length = file.Length().value_or(0);
    const int64_t wholeRecords = length > 2 ? (length - 2) / CorrespondentSize : 0;
    int64_t count = std::clamp<int64_t>(stored, 0, DirectoryMaxRecords);
    count = std::min(count, wholeRecords);
    const uint32_t wanted = static_cast<uint32_t>(count) * CorrespondentSize;
    const uint32_t read = file.Read(directory.Records, wanted);
    file.Close();
    if (read < wanted) {
        const uint32_t whole = read / CorrespondentSize;
        std::memset(reinterpret_cast<uint8_t*>(directory.Records) + whole * CorrespondentSize, 0,
                    wanted - whole * CorrespondentSize);
        count = whole;
    }
    directory.Count = static_cast<int16_t>(count);
    return true;
}

bool SaveDirectory(const CorrespondentDirectory& directory, const std::string& path) {
    File file;
    if (!file.Open(path, File::Mode::Write)) {
        return false;
    }
    const int16_t count = std::clamp<int16_t>(directory.Count.load(), 0, DirectoryMaxRecords);
    // The count and the records go out in one write, so that a reader of the
    // file never finds a count without its records.
    uint8_t bytes[2 + DirectoryMaxRecords * CorrespondentSize];
    bytes[0] = static_cast<uint8_t>(count & 0xFF);
    bytes[1] = static_cast<uint8_t>((count >> 8) & 0xFF);
    const uint32_t recordBytes = static_cast<uint32_t>(count) * CorrespondentSize;
    std::memcpy(bytes + 2, directory.Records, recordBytes);
    // A failure to write a store while the program runs is silent.
    static_cast<void>(file.Write(bytes, 2 + recordBytes));
    file.Close();
    return true;
}

int CompareCorrespondents(const Correspondent& a, const Correspondent& b) {
    return std::strncmp(a.FirmName, b.FirmName, FirmNameMaxLength);
}

void SortDirectory(CorrespondentDirectory& directory) {
    const int count = std::clamp<int>(directory.Count.load(), 0, DirectoryMaxRecords);
    std::sort(directory.Records, directory.Records + count,
              [](const Correspondent& a, const Correspondent& b) {
                  return CompareCorrespondents(a, b) < 0;
              });
}

}  // namespace kb::stores
