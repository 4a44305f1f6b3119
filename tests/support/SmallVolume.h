#pragma once

#include <sys/mount.h>

#include <cstddef>
#include <string>

#include "support/TempDirectory.h"

namespace vorrel::test {

/// A fresh volume in memory of a given size, where the test's rights allow one.
class SmallVolume {
public:
    /// @param options  Further mount options, each with a comma in front.
    explicit SmallVolume(std::size_t sizeBytes, const std::string& options = "")
        : mounted(::mount("none", directory.Path().c_str(), "tmpfs", 0,
                          ("size=" + std::to_string(sizeBytes) + options).c_str()) == 0) {}
    ~SmallVolume() {
        if (mounted) {
            ::umount2(directory.Path().c_str(), MNT_DETACH);
        }
    }
    SmallVolume(const SmallVolume&) = delete;
    SmallVolume& operator=(const SmallVolume&) = delete;

    bool Mounted() const { return mounted; }
    /// As pulled out: what was below it is there again. @return Whether that worked.
    bool GoAway() const { return ::umount2(directory.Path().c_str(), MNT_DETACH) == 0; }
    const std::string& Path() const { return directory.Path(); }
    std::string File(const std::string& name) const { return directory.File(name); }
    /// From now on it takes no file. @return Whether that worked; files open for writing hinder it.
    bool MakeReadOnly() const {
        return ::mount(nullptr, directory.Path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY,
                       nullptr) == 0;
    }

private:
    const TempDirectory directory;
    const bool mounted;
};

}  // namespace vorrel::test
