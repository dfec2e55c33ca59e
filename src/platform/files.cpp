#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace kb::platform {

File::~File() {
    Close();
}

void File::NoteFailure() {
    outOfSpace_ = errno == ENOSPC || errno == EDQUOT;
}

bool File::Open(const std::string& path, Mode mode) {
    Close();
    outOfSpace_ = false;
    int flags = O_CLOEXEC;
    switch (mode) {
        case Mode::Read:
            flags |= O_RDONLY;
            break;
        case Mode::Write:
            flags |= O_WRONLY;
            break;
        case Mode::ReadWrite:
            flags |= O_RDWR;
            break;
        case Mode::CreateReadWrite:
            flags |= O_RDWR | O_CREAT | O_TRUNC;
            break;
        case Mode::CreateNew:
            flags |= O_WRONLY | O_CREAT | O_EXCL;
            break;
    }
    // Without blocking: opening a FIFO for reading would wait for a writer,
    // and a device could wait for its line, so no thread may ever open one.
    do {
        fd_ = ::open(path.c_str(), flags | O_NONBLOCK, 0644);
    } while (fd_ < 0 && errno == EINTR);
    if (fd_ < 0) {
        NoteFailure();
        return false;
    }
    // Only plain files are files here: folders open for reading on Linux,
    // and a FIFO, device or socket never ends the way a file does.
    struct stat info {};
    if (::fstat(fd_, &info) != 0 || !S_ISREG(info.st_mode)) {
        Close();
        return false;
    }
    // Reads and writes of a plain file wait as they should.
    ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
    return true;
}

void File::Close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

uint32_t File::Read(void* buffer, uint32_t count) {
    if (fd_ < 0) {
        return 0;
    }
    auto* out = static_cast<uint8_t*>(buffer);
    uint32_t done = 0;
    while (done < count) {
        const ssize_t n = ::read(fd_, out + done, count - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<uint32_t>(n);
    }
    return done;
}

bool File::Write(const void* bytes, uint32_t count) {
    if (fd_ < 0) {
        return false;
    }
    const auto* in = static_cast<const uint8_t*>(bytes);
    uint32_t done = 0;
    while (done < count) {
        const ssize_t n = ::write(fd_, in + done, count - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            NoteFailure();
            return false;
        }
        done += static_cast<uint32_t>(n);
    }
    return true;
}

bool File::Seek(int64_t offset, From from) {
    if (fd_ < 0) {
        return false;
    }
    return ::lseek(fd_, offset, from == From::Begin ? SEEK_SET : SEEK_END) >= 0;
}

std::optional<int64_t> File::Length() const {
    struct stat info {};
    if (fd_ < 0 || ::fstat(fd_, &info) != 0) {
        return std::nullopt;
    }
    return int64_t{info.st_size};
}

bool File::Truncate(int64_t length) {
    return fd_ >= 0 && ::ftruncate(fd_, length) == 0;
}

bool CreateFolder(const std::string& path) {
    return ::mkdir(path.c_str(), 0755) == 0;
}

bool RemoveFolder(const std::string& path) {
    return ::rmdir(path.c_str()) == 0;
}

bool RenamePath(const std::string& from, const std::string& to) {
    return ::rename(from.c_str(), to.c_str()) == 0;
}

std::string FolderOfPath(std::string_view path) {
    const size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? std::string_view()
                                                       : path.substr(0, slash));
}

std::string NameOfPath(std::string_view path) {
    const size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

bool MoveFileNoReplace(const std::string& from, const std::string& to) {
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
}

bool DeleteFileAt(const std::string& path) {
    return ::unlink(path.c_str()) == 0;
}

bool PathExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

PathKind KindOfPath(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return PathKind::Missing;
    }
    if (S_ISREG(info.st_mode)) {
        return PathKind::File;
    }
    return S_ISDIR(info.st_mode) ? PathKind::Folder : PathKind::Other;
}

bool FolderExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool ListFolder(const std::string& path, std::vector<FolderEntry>& entries) {
    entries.clear();
    DIR* folder = ::opendir(path.c_str());
    if (folder == nullptr) {
        return false;
    }
    while (dirent* entry = ::readdir(folder)) {
        FolderEntry item;
        item.Name = entry->d_name;
        struct stat info {};
        const std::string full = path + "/" + item.Name;
        if (::stat(full.c_str(), &info) == 0) {
            item.IsFolder = S_ISDIR(info.st_mode);
            item.IsFile = S_ISREG(info.st_mode);
            item.Size = item.IsFile ? static_cast<uint64_t>(info.st_size) : 0;
            item.ModifiedNs =
                item.IsFile ? int64_t{info.st_mtim.tv_sec} * 1000000000 + info.st_mtim.tv_nsec : 0;
        } else {
            item.IsFolder = entry->d_type == DT_DIR;
        }
        entries.push_back(std::move(item));
    }
    ::closedir(folder);
    return true;
}

uint64_t FreeDiskSpace(const std::string& path) {
    struct statvfs info {};
    if (::statvfs(path.empty() ? "." : path.c_str(), &info) != 0) {
        return 0;
    }
    return static_cast<uint64_t>(info.f_bavail) * static_cast<uint64_t>(info.f_frsize);
}

std::optional<std::string> CurrentFolder() {
    char buffer[PATH_MAX];
    if (::getcwd(buffer, sizeof buffer) == nullptr) {
        return std::nullopt;
    }
    return std::string(buffer);
}

bool ChangeCurrentFolder(const std::string& path) {
    return ::chdir(path.c_str()) == 0;
}

}  // namespace kb::platform
