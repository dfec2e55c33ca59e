// Files and folders.
//
// File stands in for the design's file object: it is opened for one operation
// and closed at once, and only a plain file opens: never a folder, FIFO,
// device or socket, so that no thread can hang on opening one. The folder operations give the
// results the program relies on: making a folder that exists fails, removing a folder that holds
// anything fails, and a move never replaces an existing file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kb::platform {

class File {
public:
    enum class Mode {
        Read,             // an existing file, for reading
        Write,            // an existing file, for writing; its content stays
        ReadWrite,        // an existing file, for reading and writing
        CreateReadWrite,  // a new empty file, or an existing one cut to length 0
        CreateNew,        // a new empty file for writing; fails if anything is at the path
    };
    enum class From { Begin, End };

    File() = default;
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // True if the file could be opened in that mode.
    [[nodiscard]] bool Open(const std::string& path, Mode mode);
    void Close();
    [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }

    // Bytes read; fewer than asked at the end of the file, 0 on an error.
    [[nodiscard]] uint32_t Read(void* buffer, uint32_t count);
    // True if every byte was written.
    [[nodiscard]] bool Write(const void* bytes, uint32_t count);
    // True if the position could be set.
    [[nodiscard]] bool Seek(int64_t offset, From from);
    // Length of the open file; none if it cannot be told (no file open, or
    // the system would not say).
    [[nodiscard]] std::optional<int64_t> Length() const;
    // Cuts the file back to length bytes. True if it could.
    [[nodiscard]] bool Truncate(int64_t length);
    // Whether the last open or write failed because the volume is full (or
    // the user's share of it is used up).
    [[nodiscard]] bool OutOfSpace() const { return outOfSpace_; }

private:
    void NoteFailure();

    int fd_ = -1;
    bool outOfSpace_ = false;
};

// Makes a folder. False if it exists already or cannot be made.
[[nodiscard]] bool CreateFolder(const std::string& path);
// Removes an empty folder. False if it holds anything or is missing.
[[nodiscard]] bool RemoveFolder(const std::string& path);
// Renames a file or folder; an existing target is replaced only for plain files.
[[nodiscard]] bool RenamePath(const std::string& from, const std::string& to);
// Moves a file. False if the target exists already or the move is impossible.
[[nodiscard]] bool MoveFileNoReplace(const std::string& from, const std::string& to);
// Deletes a file. False if it is missing or cannot be deleted.
[[nodiscard]] bool DeleteFileAt(const std::string& path);
// The parts of a path around its last "/": the folder before it, and the
// name behind it; a path without "/" is all name, in no folder.
[[nodiscard]] std::string FolderOfPath(std::string_view path);
[[nodiscard]] std::string NameOfPath(std::string_view path);
// True if a file or folder exists at the path.
[[nodiscard]] bool PathExists(const std::string& path);
// True if a folder exists at the path.
[[nodiscard]] bool FolderExists(const std::string& path);
// What lies at the path, links followed: a plain file, a folder, something
// else (a FIFO, device or socket), or nothing.
enum class PathKind { Missing, File, Folder, Other };
[[nodiscard]] PathKind KindOfPath(const std::string& path);

// One entry of a folder listing.
struct FolderEntry {
    std::string Name;
    bool IsFolder = false;
    bool IsFile = false;  // a plain file; neither flag: a FIFO, device or socket
    uint64_t Size = 0;    // of a plain file
    // When the content of a plain file last changed, in nanoseconds of the
    // system's clock; 0 for anything else.
    int64_t ModifiedNs = 0;
};

// Lists a folder, "." and ".." included, in the order the file system gives.
// False if the folder cannot be read.
[[nodiscard]] bool ListFolder(const std::string& path, std::vector<FolderEntry>& entries);

// Free bytes for this user on the volume that holds the path, in 64 bits.
[[nodiscard]] uint64_t FreeDiskSpace(const std::string& path);

// The current directory; none if the system cannot tell it.
[[nodiscard]] std::optional<std::string> CurrentFolder();
// Changes the current directory. False on failure.
[[nodiscard]] bool ChangeCurrentFolder(const std::string& path);

}  // namespace kb::platform
