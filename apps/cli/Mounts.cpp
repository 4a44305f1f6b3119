#include "Mounts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace vorrel::cli {

std::optional<Place> PlaceOf(const std::string& path) {
    struct statx status {};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_INO | STATX_MNT_ID, &status) != 0) {
        return std::nullopt;
    }
    const bool mountKnown = (status.stx_mask & STATX_MNT_ID) != 0;
    return Place{::makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino,
                 mountKnown ? status.stx_mnt_id : 0};
}

bool IsSamePlace(const Place& one, const Place& other) {
    return one.device == other.device && (one.file == other.file || one.mount == other.mount);
}

}  // namespace vorrel::cli
