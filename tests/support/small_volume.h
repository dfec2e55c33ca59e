// A small volume of its own on a folder: a tmpfs of a given size mounted
// there for the life of the object, so that a test meets a real full disk.
// Mounting needs root (CAP_SYS_ADMIN); where the test runs without it, the
// volume is not there and the test says why it skips.
#pragma once

#include <string>

namespace kb::test {

class SmallVolume {
public:
    // Mounts a tmpfs of that size ("200k", "1m") on the folder, which exists.
    SmallVolume(const std::string& folder, const std::string& size);
    ~SmallVolume();
    SmallVolume(const SmallVolume&) = delete;
    SmallVolume& operator=(const SmallVolume&) = delete;

    bool Mounted() const { return mounted_; }
    // Why there is no volume, for the message of a skipped test.
    const std::string& Why() const { return why_; }
    // Gives the volume another size, keeping what it holds.
    bool Resize(const std::string& size);

private:
    std::string folder_;
    bool mounted_ = false;
    std::string why_;
};

}  // namespace kb::test
