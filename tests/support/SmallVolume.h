#pragma once

#include <sys/mount.h>

#include <cstddef>
#include <string>

#include "support/TempDirectory.h"

namespace vorrel::test {

/// A fresh volume in memory of a given size, where the test's rights allow one.
class SmallVolume {
public:
    explicit SmallVolume(std::size_t sizeBytes)
        : mounted(::mount("none", directory.Path().c_str(), "tmpfs", 0,
                          ("size=" + std::to_string(sizeBytes)).c_str()) == 0) {}
    ~SmallVolume() {
        if (mounted) {
            ::umount2(directory.Path().c_str(), MNT_DETACH);
        }
    }
    SmallVolume(const SmallVolume&) = delete;
    SmallVolume& operator=(const SmallVolume&) = delete;

    bool Mounted() const { return mounted; }
    std::string File(const std::string& name) const { return directory.File(name); }

private:
    const TempDirectory directory;
    const bool mounted;
};

}  // namespace vorrel::test
