#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorrel::cli {

/// What a path leads to: a directory on a volume, by way of a mount.
struct Place {
    dev_t device = 0;
    std::uint64_t file = 0;   ///< Its number on the volume. FAT gives out new ones now and then.
    std::uint64_t mount = 0;  ///< 0 where the kernel does not tell.
};

/// @return None where there is nothing, or it cannot be told.
std::optional<Place> PlaceOf(const std::string& path);

/// Whether nothing speaks against one directory: the same volume, and the same number or mount. A
/// volume that was mounted anew is the same one.
bool IsSamePlace(const Place& one, const Place& other);

/// What the mounts are made of: volumes of different numbers can have their room in common, as
/// subvolumes of one file system do and the data sets of one pool.
class MountTable {
public:
    /// As this process sees it now.
    MountTable();
    /// @param text  Lines as those of /proc/self/mountinfo.
    explicit MountTable(std::string text);

    /// What has the room of a place: the block device or the pool, and the kind of file system. ""
    /// = it cannot be told, and the volume stands for itself.
    std::string PoolOf(const Place& place) const;

private:
    std::string lines;
};

}  // namespace vorrel::cli
