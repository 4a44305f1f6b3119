#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

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

}  // namespace vorrel::cli
