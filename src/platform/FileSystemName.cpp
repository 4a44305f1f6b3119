#include "platform/FileSystemName.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

namespace vorrel {

namespace {

/// Size of a type name as it stands in the system's record, its zero included.
constexpr std::size_t kTypeNameBytes = 16;
constexpr std::string_view kMsdos = "msdos";
constexpr std::string_view kHfs = "hfs";

/// Names of "hfs" by subtype.
constexpr std::array<std::string_view, 4> kHfsNames = {
    "hfs plus", "hfs journaled", "hfs case-sensitive", "hfs case-sensitive, journaled"};

// Magic numbers of the kernel.
constexpr std::uint64_t kMsdosMagic = 0x4d44;
constexpr std::uint64_t kHfsMagic = 0x4244;
constexpr std::uint64_t kHfsPlusMagic = 0x482b;

// Subtypes of "msdos" and "hfs".
constexpr std::uint32_t kMsdosFat16 = 1;
constexpr std::uint32_t kMsdosFat32 = 2;
constexpr std::uint32_t kHfsPlus = 0;
constexpr std::uint32_t kHfsPlain = 128;

/// The smallest number of clusters that makes a volume FAT32.
constexpr std::uint64_t kFat32Clusters = 65'525;

/// Undoes the mount table's escapes: a backslash and three octal digits for a byte.
std::string Unescaped(std::string_view text) {
    const auto isOctal = [](char digit) { return digit >= '0' && digit <= '7'; };
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && at + 3 < text.size() && isOctal(text[at + 1]) &&
            isOctal(text[at + 2]) && isOctal(text[at + 3])) {
            const int value =
                (text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0');
            result.push_back(static_cast<char>(value));
            at += 3;
        } else {
            result.push_back(text[at]);
        }
    }
    return result;
}

bool LiesUnder(std::string_view path, std::string_view mountPoint) {
    if (mountPoint == "/") {
        return true;
    }
    return path.starts_with(mountPoint) &&
           (path.size() == mountPoint.size() || path[mountPoint.size()] == '/');
}

std::uint64_t MountIdOf(const char* path) {
#if defined(STATX_MNT_ID)
    struct statx status {};
    if (::statx(AT_FDCWD, path, AT_NO_AUTOMOUNT, STATX_MNT_ID, &status) == 0 &&
        (status.stx_mask & STATX_MNT_ID) != 0) {
        return status.stx_mnt_id;
    }
#else
    std::ignore = path;
#endif
    return 0;
}

}  // namespace

void WriteFileSystemName(std::string_view typeName, std::uint32_t subtype, char* buffer,
                         std::size_t size) {
    std::string_view name = typeName.substr(0, kTypeNameBytes - 1);
    std::size_t bytes = kTypeNameBytes;
    if (typeName.starts_with(kMsdos)) {
        name = subtype <= kMsdosFat16 ? "FAT" : "FAT32";
        bytes = name.size() + 1;
    } else if (typeName == kHfs && subtype < kHfsNames.size()) {
        name = kHfsNames[subtype];
        bytes = name.size() + 1;
    }
    if (buffer == nullptr || size < bytes) {
        return;
    }
    std::memset(buffer, 0, bytes);
    std::memcpy(buffer, name.data(), name.size());
}

FileSystemType IdentifyFileSystem(std::uint64_t magic, std::uint64_t blocks,
                                  std::string kernelName) {
    switch (magic) {
        case kMsdosMagic:  // all of FAT12, FAT16 and FAT32
            return {std::string(kMsdos), blocks >= kFat32Clusters ? kMsdosFat32 : kMsdosFat16};
        case kHfsMagic:
            return {std::string(kHfs), kHfsPlain};
        case kHfsPlusMagic:
            return {std::string(kHfs), kHfsPlus};
        default:
            return {std::move(kernelName), 0};
    }
}

std::string FindMountedType(std::istream& mountTable, std::uint64_t mountId,
                            const std::string& path) {
    // 36 35 98:0 /root /mount/point options [optional fields] - type source options
    std::string found;
    std::size_t foundLength = 0;
    for (std::string line; std::getline(mountTable, line);) {
        std::istringstream fields(line);
        std::uint64_t id = 0;
        std::string skipped;
        std::string mountPoint;
        fields >> id >> skipped >> skipped >> skipped >> mountPoint;
        while (fields >> skipped && skipped != "-") {
        }
        std::string type;
        if (!(fields >> type)) {
            continue;
        }
        if (mountId != 0 && id == mountId) {
            return type;
        }
        mountPoint = Unescaped(mountPoint);
        if (LiesUnder(path, mountPoint) && mountPoint.size() >= foundLength) {
            found = std::move(type);
            foundLength = mountPoint.size();
        }
    }
    return found;
}

bool FileSystemTypeOf(const char* path, FileSystemType& type) {
    struct statfs volume {};
    if (::statfs(path, &volume) != 0) {
        return false;
    }
    std::error_code error;
    const std::string canonical = std::filesystem::canonical(path, error).string();
    std::ifstream mountTable("/proc/self/mountinfo");
    type = IdentifyFileSystem(static_cast<std::uint64_t>(volume.f_type), volume.f_blocks,
                              FindMountedType(mountTable, MountIdOf(path), canonical));
    return true;
}

}  // namespace vorrel
