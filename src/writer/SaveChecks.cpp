#include "writer/SaveChecks.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <tuple>

#include "platform/SystemHelpers.h"

namespace vorrel {

namespace {

constexpr std::uint64_t kMebibyte = 1 << 20;

/// The largest file of a file system. Kept: the bound itself passes, also where the file system
/// proper ends one byte earlier (FileSizeLimitTest.PassesTheBoundAndRefusesOneByteMore).
struct FileSystemLimit {
    std::string_view name;
    std::uint64_t maxTotalBlocks;  ///< The row is meant for volumes of at most so many blocks.
    std::uint64_t maxFileBytes;
};
constexpr std::uint64_t kAnyVolume = ~std::uint64_t{0};
constexpr std::string_view kFat = "FAT";
constexpr std::array kFileSystemLimits = {
    FileSystemLimit{"FAT32", kAnyVolume, 4096 * kMebibyte},
    FileSystemLimit{kFat, 4084, 32 * kMebibyte},           // 12-bit cluster numbers
    FileSystemLimit{kFat, kAnyVolume, 2048 * kMebibyte},   // 16-bit ones
    FileSystemLimit{"hfs", kAnyVolume, 2048 * kMebibyte},  // the plain one; "hfs plus" has no limit
    FileSystemLimit{"ufs", kAnyVolume, 4096 * kMebibyte},
};

}  // namespace

std::string DirectoryPart(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string() : std::string(path.substr(0, slash + 1));
}

VrError SaveCreateDirectory(const std::string& path, std::string& created) {
    std::string directory = DirectoryPart(path);
    if (directory.empty()) {
        return VrErrorFailed;
    }
    if (CreateDirectory(directory.c_str(), nullptr)) {
        created = std::move(directory);
    }
    return VrSuccess;
}

bool CheckDiskSpace(const std::string& path, std::uint64_t bytes) {
    _ULARGE_INTEGER freeToCaller{};
    return GetDiskFreeSpaceEx(DirectoryPart(path).c_str(), &freeToCaller, nullptr, nullptr) &&
           freeToCaller >= bytes;
}

bool CheckFileSystemFileSizeLimit(const std::string& path, std::uint64_t bytes) {
    const std::string directory = DirectoryPart(path);
    if (directory.empty()) {
        return false;
    }
    std::array<char, 64> name{};  // the longest name takes 30
    if (!GetVolumeInformation(directory.c_str(), nullptr, 0, nullptr, nullptr, nullptr, name.data(),
                              name.size())) {
        return false;
    }
    std::uint64_t totalBlocks = 0;
    if (name.data() == kFat &&
        !GetDiskFreeSpace(directory.c_str(), nullptr, nullptr, nullptr, &totalBlocks)) {
        return false;
    }
    return FileSystemTakes(name.data(), totalBlocks, bytes);
}

bool FileSystemTakes(std::string_view name, std::uint64_t totalBlocks, std::uint64_t bytes) {
    const auto limit = std::find_if(
        kFileSystemLimits.begin(), kFileSystemLimits.end(), [&](const FileSystemLimit& row) {
            return row.name == name && totalBlocks <= row.maxTotalBlocks;
        });
    return limit == kFileSystemLimits.end() || bytes <= limit->maxFileBytes;
}

VrError DeleateSaveFile(const VrSaveSettingInternal* setting) {
    if (setting == nullptr) {
        return VrErrorInvalidParameter;
    }
    std::ignore = DeleteFile(setting->path.c_str());
    RemoveEmptyDirectory(DirectoryPart(setting->path));
    return VrSuccess;
}

void RemoveEmptyDirectory(std::string path) noexcept {
    // Asked and removed in one step, never with what is in it: somebody, the host's next save
    // perhaps, may put a file there at any moment.
    if (::rmdir(path.c_str()) == 0 || errno != ENOTDIR || !PathIsDirectory(path.c_str()) ||
        !PathIsDirectoryEmpty(path.c_str())) {
        return;
    }
    // A link. The system takes one with a slash behind it for what it points to.
    path.erase(path.find_last_not_of('/') + 1);
    std::ignore = ::unlink(path.c_str());
}

}  // namespace vorrel
