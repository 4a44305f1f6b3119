#include "platform/SystemHelpers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "platform/FileSystemName.h"

namespace vorrel {

namespace {

constexpr mode_t kDirectoryMode = 0775;

bool IsDotEntry(const dirent& entry) {
    const std::string_view name = entry.d_name;
    return name == "." || name == "..";
}

bool RemoveTree(int parent, const char* name);

/// Removes everything in the directory `descriptor`, which it closes; stops at the first failure.
bool RemoveContents(int descriptor) {
    DIR* const directory = ::fdopendir(descriptor);
    if (directory == nullptr) {
        ::close(descriptor);
        return false;
    }
    bool removed = true;
    while (removed) {
        errno = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread has this listing
        const dirent* const entry = ::readdir(directory);
        if (entry == nullptr) {
            removed = errno == 0;
            break;
        }
        if (!IsDotEntry(*entry)) {
            // What goes away by itself meanwhile is gone, too.
            removed = ::unlinkat(descriptor, entry->d_name, 0) == 0 || errno == ENOENT ||
                      RemoveTree(descriptor, entry->d_name);
        }
    }
    ::closedir(directory);
    return removed;
}

/// Removes the directory `name` of the directory `parent` with everything in it. Each step goes
/// through a descriptor and through no link, so that nobody can put a link to somewhere else in a
/// directory's place meanwhile.
bool RemoveTree(int parent, const char* name) {
    const int descriptor = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    return descriptor >= 0 && RemoveContents(descriptor) &&
           ::unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

bool IsRootDirectory(const struct stat& status) {
    struct stat root {};
    return ::stat("/", &root) == 0 && root.st_dev == status.st_dev && root.st_ino == status.st_ino;
}

}  // namespace

int memcpy_s(void* destination, std::size_t destinationSize, const void* source,
             std::size_t count) {
    if (count == 0) {
        return 0;
    }
    if (destination == nullptr || source == nullptr) {
        return kErrorMissingArgument;
    }
    if (destinationSize < count) {
        return kErrorDestinationTooSmall;
    }
    std::memcpy(destination, source, count);
    return 0;
}

int _tfopen_s(std::FILE** file, const char* path, const char* mode) {
    if (file == nullptr) {
        return kErrorMissingArgument;
    }
    if (path == nullptr || mode == nullptr) {
        *file = nullptr;
        return kErrorMissingArgument;
    }
    *file = std::fopen(path, mode);
    return *file != nullptr ? 0 : errno;
}

std::size_t fread_s(void* buffer, std::size_t bufferSize, std::size_t elementSize,
                    std::size_t count, std::FILE* stream) {
    if (buffer == nullptr || elementSize == 0 || count == 0) {
        return 0;
    }
    if (stream == nullptr || bufferSize / elementSize < count) {
        return 0;
    }
    return std::fread(buffer, elementSize, count, stream);
}

int CreateDirectory(const char* path, void* /*securityAttributes*/) {
    if (path == nullptr) {
        return 0;
    }
    return ::mkdir(path, kDirectoryMode) == 0 ? 1 : 0;
}

std::size_t wcstombs_s(std::size_t* /*converted*/, char* destination, std::size_t destinationSize,
                       const wchar_t* source, std::size_t /*count*/) {
    // The conversion state that it may share is that of encodings with shift states, which no
    // locale of a supported system has.
    return std::wcstombs(  // NOLINT(concurrency-mt-unsafe)
        destination, source, destinationSize);
}

int GetDiskFreeSpace(const char* directory, std::uint64_t* /*sectorsPerCluster*/,
                     std::uint64_t* /*bytesPerSector*/, std::uint64_t* /*freeClusters*/,
                     std::uint64_t* totalClusters) {
    struct statvfs volume {};
    if (directory == nullptr || ::statvfs(directory, &volume) != 0) {
        return 0;
    }
    if (totalClusters != nullptr) {
        // A 32-bit count: what does not fit must not come out as a small volume.
        *totalClusters =
            std::min<std::uint64_t>(volume.f_blocks, std::numeric_limits<std::uint32_t>::max());
    }
    return 1;
}

int GetDiskFreeSpaceEx(const char* directory, _ULARGE_INTEGER* freeToCaller, _ULARGE_INTEGER* total,
                       _ULARGE_INTEGER* totalFree) {
    struct statvfs volume {};
    if (directory == nullptr || ::statvfs(directory, &volume) != 0) {
        return 0;
    }
    const _ULARGE_INTEGER blockBytes = volume.f_frsize;
    if (freeToCaller != nullptr) {
        *freeToCaller = volume.f_bavail * blockBytes;
    }
    if (total != nullptr) {
        *total = volume.f_blocks * blockBytes;
    }
    if (totalFree != nullptr) {
        *totalFree = volume.f_bfree * blockBytes;
    }
    return 1;
}

std::size_t lstrlen(const char* text) {
    return std::strlen(text);
}

// Kept: counts bytes, as the narrow one does (SystemHelpersTest.WideLstrlenCountsBytes).
std::size_t lstrlen(const wchar_t* text) {
    return std::strlen(reinterpret_cast<const char*>(text));
}

int localtime_s(std::tm* result, const std::time_t* time) {
    // The re-entrant form does not look for a zone that has changed.
    ::tzset();
    // A time past the calendar gives an empty record.
    if (::localtime_r(time, result) == nullptr) {
        *result = {};
    }
    return 0;
}

int DeleteFile(const char* path) {
    // Asks the system alone, not the C++ library, which needs memory to do it: a cancelled file
    // goes also where there is none. And a directory that takes the file's place meanwhile stays.
    struct stat status {};
    if (path == nullptr || ::stat(path, &status) != 0 || S_ISDIR(status.st_mode)) {
        return 0;
    }
    return ::unlink(path) == 0 ? 1 : 0;
}

// Kept: the pointer is only declared wide (FileHelpersTest.WideDeleteFileReadsBytes).
int DeleteFile(const wchar_t* path) {
    return DeleteFile(reinterpret_cast<const char*>(path));
}

int PathIsDirectory(const char* path) {
    struct stat status {};
    return path != nullptr && ::stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

// Kept: what cannot be listed is empty
// (FileHelpersTest.PathIsDirectoryEmptyIsTrueForAMissingPath).
int PathIsDirectoryEmpty(const char* path) {
    // The system's own listing: that of the C++ library ends the process when memory is short.
    DIR* const directory = path != nullptr ? ::opendir(path) : nullptr;
    if (directory == nullptr) {
        return 1;
    }
    bool isEmpty = true;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread has this listing
    while (const dirent* const entry = isEmpty ? ::readdir(directory) : nullptr) {
        isEmpty = IsDotEntry(*entry);
    }
    ::closedir(directory);
    return isEmpty ? 1 : 0;
}

int RemoveDirectory(const char* path) {
    if (PathIsDirectory(path) == 0) {
        return 0;
    }
    // Without the slashes at its end, a link in the directory's place is seen as the link it is.
    std::string_view plain = path;
    plain = plain.substr(0, plain.find_last_not_of('/') + 1);
    std::array<char, PATH_MAX> name{};
    if (plain.size() >= name.size()) {
        return 0;
    }
    plain.copy(name.data(), plain.size());
    struct stat status {};
    if (::lstat(name.data(), &status) != 0) {
        return 0;
    }
    if (S_ISLNK(status.st_mode)) {
        return ::unlink(name.data()) == 0 ? 1 : 0;
    }
    // The root cannot go, and its contents must not go before that shows.
    return !IsRootDirectory(status) && RemoveTree(AT_FDCWD, name.data()) ? 1 : 0;
}

int GetVolumeInformation(const char* rootPath, char* /*volumeName*/, std::size_t /*volumeNameSize*/,
                         std::uint32_t* /*serialNumber*/, std::uint32_t* /*maximumComponentLength*/,
                         std::uint32_t* /*flags*/, char* fileSystemName,
                         std::size_t fileSystemNameSize) {
    FileSystemType type;
    if (rootPath == nullptr || !FileSystemTypeOf(rootPath, type)) {
        return 0;
    }
    WriteFileSystemName(type.name.Text(), type.subtype, fileSystemName, fileSystemNameSize);
    return 1;
}

}  // namespace vorrel
