#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "vorrel/VrError.h"
#include "writer/VrSaveSettingInternal.h"

// What is checked before a file is written and cleaned up after it. Save thread.
namespace vorrel {

/// Everything up to and including the last "/" of `path`; empty without one.
std::string DirectoryPart(std::string_view path);

/// Makes the file's directory, one level, where it is missing.
/// @param created  Receives the directory part if it was made now; else it is kept.
/// @return `VrErrorFailed` when `path` has no "/". A directory that cannot be made is no failure
///         here: the checks after this one find it missing.
VrError SaveCreateDirectory(const std::string& path, std::string& created);

/// True when the volume of the file's directory has `bytes` free to the caller, without a margin.
/// False, too, when that cannot be told (the directory is missing).
bool CheckDiskSpace(const std::string& path, std::uint64_t bytes);

/// True when the file system under the file's directory takes a file of `bytes`. False, too,
/// without a "/" in `path` or when the file system cannot be asked.
bool CheckFileSystemFileSizeLimit(const std::string& path, std::uint64_t bytes);

/// True when a file of `bytes` may stand on a file system of that name.
/// @param name         As `GetVolumeInformation` reports it; matched exactly.
/// @param totalBlocks  Clusters of the volume; tells the two kinds of "FAT" apart.
bool FileSystemTakes(std::string_view name, std::uint64_t totalBlocks, std::uint64_t bytes);

/// Deletes a file that a cancel left, and its directory when that is empty then, whether or not
/// the request made it. (Spelt so on purpose.)
/// @return `VrErrorInvalidParameter` (null); else `VrSuccess`, deleted or not.
VrError DeleateSaveFile(const VrSaveSettingInternal* setting);

/// Removes the directory `path` if nothing is in it; else does nothing. Of a symbolic link to an
/// empty directory the link is removed, and the directory stays. Asks for no memory.
void RemoveEmptyDirectory(std::string path) noexcept;

}  // namespace vorrel
