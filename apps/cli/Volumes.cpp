#include "Volumes.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "Mounts.h"

namespace vorrel::cli {
namespace {

constexpr double kNoLimit = std::numeric_limits<double>::max();
// A size in a directory of FAT has 32 bits.
constexpr double kLargestOnFat = 4294967295.0;

/// Makes a file in `directory` and takes it away again. @return 0 or an errno.
int TryFile(const std::string& directory) {
    // Writable and searchable is not enough: volumes can be read-only, quotas full.
    std::string name = directory + "/.vorrel-probe-" + std::to_string(::getpid());
    const int descriptor = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        return errno;
    }
    ::close(descriptor);
    ::unlink(name.c_str());
    return 0;
}

}  // namespace

std::optional<double> FreeBytes(const std::string& path) {
    struct statvfs volume {};
    if (::statvfs(path.c_str(), &volume) != 0) {
        return std::nullopt;
    }
    return static_cast<double>(volume.f_bavail) * static_cast<double>(volume.f_frsize);
}

std::string SizeText(std::uint64_t bytes) {
    constexpr std::uint64_t kMebibyte = 1 << 20;
    return bytes < kMebibyte ? std::to_string(bytes) + " bytes"
                             : std::to_string(bytes / kMebibyte) + " MiB";
}

std::optional<dev_t> VolumeOf(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return status.st_dev;
}

double LargestFile(const std::string& directory) {
    double largest = kNoLimit;
    if (rlimit limit{}; ::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        largest = static_cast<double>(limit.rlim_cur);
    }
    struct statfs volume {};
    if (::statfs(directory.c_str(), &volume) == 0 && volume.f_type == MSDOS_SUPER_MAGIC) {
        largest = std::min(largest, kLargestOnFat);
    }
    return largest;
}

std::string LimitText(const WantedFile& wish, const TakeFormat& format) {
    // Where they are the same, the kind of file is the better word.
    if (!format.dsd && wish.largest >= kLargestOnFat) {
        return "the 4 GiB that a WAV file can hold";
    }
    return "the " + SizeText(static_cast<std::uint64_t>(wish.largest)) + " that a file in " +
           DirectoryOf(wish.path) + " can have";
}

std::string WhyNotWritten(const std::string& path, double fileBytes, double missingBytes) {
    const std::string directory = DirectoryOf(path);
    if (const int error = TryFile(directory); error != 0) {
        return std::strerror(error);
    }
    if (LargestFile(directory) < fileBytes) {
        return std::strerror(EFBIG);
    }
    if (FreeBytes(directory).value_or(kNoLimit) < missingBytes) {
        return std::strerror(ENOSPC);
    }
    return "";
}

std::vector<RescuePlace> FindRescuePlaces(const std::vector<std::string>& directories,
                                          std::size_t firstNumber) {
    std::vector<RescuePlace> places;
    const MountTable mounts;
    struct Room {
        dev_t device;
        std::string pool;
        double free;
    };
    std::vector<Room> rooms;
    for (std::size_t index = 0; index < directories.size(); ++index) {
        std::string directory = directories[index];
        const std::optional<Place> place = directory.empty() ? std::nullopt : PlaceOf(directory);
        if (!place) {
            continue;
        }
        const Room room = {place->device, mounts.PoolOf(*place),
                           FreeBytes(directory).value_or(kNoLimit)};
        const bool known = std::any_of(rooms.begin(), rooms.end(), [&room](const Room& other) {
            return other.device == room.device ||
                   (!room.pool.empty() && other.pool == room.pool && other.free >= room.free);
        });
        if (known || TryFile(directory) != 0) {
            continue;
        }
        rooms.push_back(room);
        if (directory.back() != '/') {
            directory += '/';
        }
        places.push_back({firstNumber + index, directory, room.free, LargestFile(directory)});
    }
    return places;
}

}  // namespace vorrel::cli
