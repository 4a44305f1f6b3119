#include "platform/FileSystemName.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <span>
#include <tuple>

namespace vorrel {

namespace {

constexpr std::size_t kTypeNameBytes = FileSystemTypeName::kMostBytes + 1;
/// What one line of the mount table takes as far as the type's name: a path of the longest kind,
/// every byte escaped, and another one as it mostly is. Of a longer line the end is left out.
constexpr std::size_t kTableBytes = std::size_t{6} * PATH_MAX;
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

/// Undoes the mount table's escapes, a backslash and three octal digits for a byte, in place.
std::string_view Unescape(std::span<char> text) {
    const auto isOctal = [](char digit) { return digit >= '0' && digit <= '7'; };
    std::size_t size = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && at + 3 < text.size() && isOctal(text[at + 1]) &&
            isOctal(text[at + 2]) && isOctal(text[at + 3])) {
            const int value =
                (text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0');
            text[size++] = static_cast<char>(value);
            at += 3;
        } else {
            text[size++] = text[at];
        }
    }
    return {text.data(), size};
}

bool LiesUnder(std::string_view path, std::string_view mountPoint) {
    if (mountPoint == "/") {
        return path.starts_with('/');
    }
    return path.starts_with(mountPoint) &&
           (path.size() == mountPoint.size() || path[mountPoint.size()] == '/');
}

/// Takes the first field off a line. @return Empty behind the last one.
std::span<char> TakeField(std::span<char>& line) {
    const auto begin = std::find_if(line.begin(), line.end(), [](char at) { return at != ' '; });
    const auto end = std::find(begin, line.end(), ' ');
    const std::span<char> field(begin, end);
    line = std::span<char>(end, line.end());
    return field;
}

std::string_view Text(std::span<char> field) {
    return {field.data(), field.size()};
}

/// Looks for one mount in the lines of a table.
class MountSearch {
public:
    MountSearch(std::uint64_t soughtId, std::string_view soughtPath)
        : mountId(soughtId), path(soughtPath) {}

    /// @return true when nothing behind this line can fit better.
    bool Look(std::span<char> line) {
        // 36 35 98:0 /root /mount/point options [optional fields] - type source options
        const std::string_view idText = Text(TakeField(line));
        std::uint64_t id = 0;
        std::ignore = std::from_chars(idText.data(), idText.data() + idText.size(), id);
        for (int skipped = 0; skipped < 3; ++skipped) {
            TakeField(line);
        }
        const std::span<char> mountPoint = TakeField(line);
        for (std::span<char> field = TakeField(line); !field.empty() && Text(field) != "-";) {
            field = TakeField(line);
        }
        const FileSystemTypeName type(Text(TakeField(line)));
        if (type.Text().empty()) {
            return false;
        }
        if (mountId != 0 && id == mountId) {
            found = type;
            return true;
        }
        const std::string_view plain = Unescape(mountPoint);
        if (LiesUnder(path, plain) && plain.size() >= foundLength) {
            found = type;
            foundLength = plain.size();
        }
        return false;
    }
    const FileSystemTypeName& Found() const { return found; }

private:
    const std::uint64_t mountId;
    const std::string_view path;
    FileSystemTypeName found;
    std::size_t foundLength = 0;
};

ssize_t ReadSome(int descriptor, std::span<char> out) {
    ssize_t count = 0;
    do {
        count = ::read(descriptor, out.data(), out.size());
    } while (count < 0 && errno == EINTR);
    return count;
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

std::optional<FileSystemType> IdentifyFileSystem(std::uint64_t magic, std::uint64_t blocks) {
    switch (magic) {
        case kMsdosMagic:  // all of FAT12, FAT16 and FAT32
            return FileSystemType{FileSystemTypeName(kMsdos),
                                  blocks >= kFat32Clusters ? kMsdosFat32 : kMsdosFat16};
        case kHfsMagic:
            return FileSystemType{FileSystemTypeName(kHfs), kHfsPlain};
        case kHfsPlusMagic:
            return FileSystemType{FileSystemTypeName(kHfs), kHfsPlus};
        default:
            return std::nullopt;
    }
}

FileSystemTypeName FindMountedType(int mountTable, std::uint64_t mountId, std::string_view path) {
    MountSearch search(mountId, path);
    // Overwritten before it is read.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
    std::array<char, kTableBytes> buffer;
    std::size_t size = 0;    // of what is in the buffer
    bool isTooLong = false;  // the rest of a line that was looked at is still to come
    for (;;) {
        const ssize_t count = ReadSome(mountTable, std::span<char>(buffer).subspan(size));
        if (count < 0) {
            return {};
        }
        size += static_cast<std::size_t>(count);
        std::span<char> text(buffer.data(), size);
        while (!text.empty()) {
            const auto end = std::find(text.begin(), text.end(), '\n');
            const bool isWhole = end != text.end();
            if (!isWhole && count > 0 && text.size() < buffer.size()) {
                break;  // more of it follows
            }
            if (!isTooLong && search.Look(std::span<char>(text.begin(), end))) {
                return search.Found();
            }
            isTooLong = !isWhole;
            text = std::span<char>(isWhole ? end + 1 : end, text.end());
        }
        if (count == 0) {
            return search.Found();
        }
        std::memmove(buffer.data(), text.data(), text.size());
        size = text.size();
    }
}

bool FileSystemTypeOf(const char* path, FileSystemType& type) {
    struct statfs volume {};
    if (::statfs(path, &volume) != 0) {
        return false;
    }
    const std::optional<FileSystemType> known =
        IdentifyFileSystem(static_cast<std::uint64_t>(volume.f_type), volume.f_blocks);
    type = known.value_or(FileSystemType());
    if (known) {
        return true;
    }
    const int mountTable = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (mountTable >= 0) {
        std::array<char, PATH_MAX> canonical{};
        if (::realpath(path, canonical.data()) == nullptr) {
            canonical.front() = '\0';
        }
        type.name = FindMountedType(mountTable, MountIdOf(path), canonical.data());
        ::close(mountTable);
    }
    return true;
}

}  // namespace vorrel
