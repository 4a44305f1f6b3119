#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <string_view>

namespace vorrel {

/// What a volume says of itself: the name of its file-system type and a number that tells variants
/// of that type apart.
struct FileSystemType {
    std::string name;
    std::uint32_t subtype = 0;
};

/// Writes the reported name of a file system, with its terminating zero, to `buffer`:
/// "FAT" and "FAT32" for type names that begin with "msdos" (subtype 0 or 1, any other), the four
/// names of "hfs" (subtypes 0 to 3), else the type name as it stands, in 16 bytes.
/// @param buffer  May be null. Untouched when `size` is below the name's minimum size.
void WriteFileSystemName(std::string_view typeName, std::uint32_t subtype, char* buffer,
                         std::size_t size);

/// Maps the kernel's identification of a file system onto type name and subtype.
/// @param magic       `f_type` of `statfs`.
/// @param blocks      `f_blocks` of `statfs`; the number of clusters of a FAT volume.
/// @param kernelName  Name of the type in the mount table; kept where the magic says no more.
FileSystemType IdentifyFileSystem(std::uint64_t magic, std::uint64_t blocks,
                                  std::string kernelName);

/// Finds a file-system type in a mount table in the format of /proc/self/mountinfo.
/// @param mountId  Id of the mount; 0 when it is not known.
/// @param path     Absolute path without links. Where the id is unknown or not in the table, the
///                 mount point with the longest common path decides, of equals the last mounted.
/// @return Empty when no line fits.
std::string FindMountedType(std::istream& mountTable, std::uint64_t mountId,
                            const std::string& path);

/// The type of the file system that holds `path`.
/// @return false, with `type` untouched, when the system knows nothing of the path.
bool FileSystemTypeOf(const char* path, FileSystemType& type);

}  // namespace vorrel
