#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

// None of this asks for memory, so that a want of it never hides what a volume takes.
namespace vorrel {

/// The name of a file-system type as it stands in the system's record: at most 15 bytes.
class FileSystemTypeName {
public:
    FileSystemTypeName() = default;
    /// Takes the first 15 bytes of `name`.
    explicit FileSystemTypeName(std::string_view name) { name.copy(bytes.data(), kMostBytes); }

    std::string_view Text() const { return bytes.data(); }

    static constexpr std::size_t kMostBytes = 15;

private:
    std::array<char, kMostBytes + 1> bytes{};  // with a zero behind it
};

/// What a volume says of itself: the name of its file-system type and a number that tells variants
/// of that type apart.
struct FileSystemType {
    FileSystemTypeName name;
    std::uint32_t subtype = 0;
};

/// Writes the reported name of a file system, with its terminating zero, to `buffer`:
/// "FAT" and "FAT32" for type names that begin with "msdos" (subtype 0 or 1, any other), the four
/// names of "hfs" (subtypes 0 to 3), else the type name as it stands, in 16 bytes.
/// @param buffer  May be null. Untouched when `size` is below the name's minimum size.
void WriteFileSystemName(std::string_view typeName, std::uint32_t subtype, char* buffer,
                         std::size_t size);

/// Maps the kernel's identification of a file system onto type name and subtype.
/// @param magic   `f_type` of `statfs`.
/// @param blocks  `f_blocks` of `statfs`; the number of clusters of a FAT volume.
/// @return Nothing where the magic does not decide: then the mount table's name stands.
std::optional<FileSystemType> IdentifyFileSystem(std::uint64_t magic, std::uint64_t blocks);

/// Finds a file-system type in a mount table in the format of /proc/self/mountinfo.
/// @param mountTable  Descriptor, read to its end.
/// @param mountId     Id of the mount; 0 when it is not known.
/// @param path        Absolute path without links; empty when it is not known. Where the id is
///                    unknown or not in the table, the mount point with the longest common path
///                    decides, of equals the last mounted.
/// @return Empty when no line fits or the table cannot be read.
FileSystemTypeName FindMountedType(int mountTable, std::uint64_t mountId, std::string_view path);

/// The type of the file system that holds `path`. Its name is empty where only the mount table
/// knows it and that cannot be read.
/// @return false, with `type` untouched, when the system knows nothing of the path.
bool FileSystemTypeOf(const char* path, FileSystemType& type);

}  // namespace vorrel
