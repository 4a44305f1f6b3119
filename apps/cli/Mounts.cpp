#include "Mounts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

namespace vorrel::cli {
namespace {

/// The pool of a file system that is mounted from `source`.
std::string PoolName(const std::string& type, const std::string& source) {
    if (type == "zfs") {
        return type + " " + source.substr(0, source.find('/'));  // POOL/DATA/SET
    }
    // Elsewhere a source is a word of whoever mounts, and many have the same one.
    const bool inMemory = type == "tmpfs" || type == "ramfs" || type.rfind("fuse.", 0) == 0;
    return !inMemory && source.rfind('/', 0) == 0 ? type + " " + source : "";
}

}  // namespace

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

MountTable::MountTable() {
    std::ifstream file("/proc/self/mountinfo", std::ios::binary);
    lines.assign(std::istreambuf_iterator<char>(file), {});
}

MountTable::MountTable(std::string text) : lines(std::move(text)) {}

std::string MountTable::PoolOf(const Place& place) const {
    // "36 35 0:32 / /mnt rw,noatime master:1 - btrfs /dev/sda1 rw": the number of the mount, then
    // what it is mounted on, any number of words, and behind the "-" what is mounted.
    const std::string number = std::to_string(place.mount) + " ";
    std::istringstream rows(lines);
    for (std::string row; place.mount != 0 && std::getline(rows, row);) {
        const std::size_t end = row.find(" - ");
        if (row.rfind(number, 0) != 0 || end == std::string::npos) {
            continue;
        }
        std::istringstream words(row.substr(end + 3));
        std::string type;
        std::string source;
        words >> type >> source;
        return PoolName(type, source);
    }
    return "";
}

}  // namespace vorrel::cli
