// A fresh folder under the system's temporary folder, removed with all it
// holds when the object goes.
#pragma once

#include <string>

namespace kb::test {

class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return path_; }
    // Path of a name inside the folder.
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // A file of these bytes in the folder, and any folders on its way; its
    // full path.
    std::string MakeFile(const std::string& name, const std::string& bytes) const;
    // The same, of that many bytes.
    std::string MakeFile(const std::string& name, size_t size) const {
        return MakeFile(name, std::string(size, 'x'));
    }

private:
    std::string path_;
};

// Reads a whole file; an empty text if it cannot be read.
std::string ReadWholeFile(const std::string& path);
// Writes a whole file, replacing what was there.
void WriteWholeFile(const std::string& path, const std::string& bytes);

}  // namespace kb::test
