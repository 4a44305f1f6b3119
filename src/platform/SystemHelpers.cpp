#include "platform/SystemHelpers.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/FileSystemName.h"

namespace vorrel {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kDirectoryMode = 0775;

/// The file system's answer for `path`, symbolic links followed; `none` or `not_found` without one.
fs::file_type TypeOf(const fs::path& path) {
    std::error_code error;
    return fs::status(path, error).type();
}

bool IsRootDirectory(const fs::path& path) {
    std::error_code error;
    return fs::equivalent(path, "/", error);
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
    // The re-entrant form gives the same record; a time past the calendar gives an empty one.
    if (::localtime_r(time, result) == nullptr) {
        *result = {};
    }
    return 0;
}

int DeleteFile(const char* path) try {
    if (path == nullptr) {
        return 0;
    }
    const fs::file_type type = TypeOf(path);
    if (type == fs::file_type::none || type == fs::file_type::not_found ||
        type == fs::file_type::directory) {
        return 0;
    }
    std::error_code error;
    return fs::remove(path, error) && !error ? 1 : 0;
} catch (const std::bad_alloc&) {
    return 0;
}

// Kept: the pointer is only declared wide (SystemHelpersTest.WideDeleteFileReadsBytes).
int DeleteFile(const wchar_t* path) {
    return DeleteFile(reinterpret_cast<const char*>(path));
}

int PathIsDirectory(const char* path) {
    struct stat status {};
    return path != nullptr && ::stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

// Kept: what cannot be listed is empty; the callers remove a directory, or treat it as gone, by
// this answer (SystemHelpersTest.PathIsDirectoryEmptyIsTrueForAMissingPath).
int PathIsDirectoryEmpty(const char* path) {
    // The system's own listing: that of the C++ library ends the process when memory is short.
    DIR* const directory = path != nullptr ? ::opendir(path) : nullptr;
    if (directory == nullptr) {
        return 1;
    }
    bool isEmpty = true;
    while (const dirent* const entry = isEmpty ? ::readdir(directory) : nullptr) {
        const std::string_view name = entry->d_name;
        isEmpty = name == "." || name == "..";
    }
    ::closedir(directory);
    return isEmpty ? 1 : 0;
}

int RemoveDirectory(const char* path) try {
    if (path == nullptr || PathIsDirectory(path) == 0) {
        return 0;
    }
    // Without the slashes at its end, a link in the directory's place is seen as the link it is.
    std::string plain = path;
    plain.erase(plain.find_last_not_of('/') + 1);
    // The root cannot go, and its contents must not go before that shows.
    if (plain.empty() || (!fs::is_symlink(plain) && IsRootDirectory(plain))) {
        return 0;
    }
    std::error_code error;
    fs::remove_all(plain, error);
    return error ? 0 : 1;
} catch (const std::exception&) {  // no memory, or the path went away meanwhile
    return 0;
}

int GetVolumeInformation(const char* rootPath, char* /*volumeName*/, std::size_t /*volumeNameSize*/,
                         std::uint32_t* /*serialNumber*/, std::uint32_t* /*maximumComponentLength*/,
                         std::uint32_t* /*flags*/, char* fileSystemName,
                         std::size_t fileSystemNameSize) try {
    FileSystemType type;
    if (rootPath == nullptr || !FileSystemTypeOf(rootPath, type)) {
        return 0;
    }
    WriteFileSystemName(type.name, type.subtype, fileSystemName, fileSystemNameSize);
    return 1;
} catch (const std::exception&) {  // no memory
    return 0;
}

}  // namespace vorrel
