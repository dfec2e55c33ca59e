#include "support/small_volume.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kb::test {

SmallVolume::SmallVolume(const std::string& folder, const std::string& size) : folder_(folder) {
    if (::geteuid() != 0) {
        why_ = "a small volume needs root to be mounted";
        return;
    }
    const std::string options = "size=" + size + ",mode=0755";
    if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        why_ = "mounting a tmpfs on " + folder + " failed: " + std::strerror(errno);
        return;
    }
    mounted_ = true;
}

SmallVolume::~SmallVolume() {
    if (mounted_) {
        // Detached, so that a program still inside the folder does not keep
        // it mounted; it goes when the last user has left.
        ::umount2(folder_.c_str(), MNT_DETACH);
    }
}

bool SmallVolume::Resize(const std::string& size) {
    const std::string options = "size=" + size;
    return mounted_ && ::mount("tmpfs", folder_.c_str(), "tmpfs", MS_REMOUNT, options.c_str()) == 0;
}

}  // namespace kb::test
