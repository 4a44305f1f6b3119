#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

// File-system and system functions under classic system-interface names. The names, the argument
// lists and the kinds of result are the contract of their callers: the underscores, the `_s`, the
// wide-declared overloads and the arguments that are never used stay as they are.
//
// All are free functions without state, callable from any thread. Paths are UTF-8 bytes, also where
// they are declared wide. None throws, logs or asks for memory by operator new. Boolean results are
// 1 (true) and 0 (false).
namespace vorrel {

/// Results of the helpers that answer with an error number: 0, or one of these, or `errno`.
inline constexpr int kErrorMissingArgument = 22;      // EINVAL
inline constexpr int kErrorDestinationTooSmall = 34;  // ERANGE

/// A count of bytes.
using _ULARGE_INTEGER = std::uint64_t;  // NOLINT(bugprone-reserved-identifier): a classic name

/// Copies `count` bytes. The ranges must not overlap.
/// @return 0; `kErrorMissingArgument` (destination or source null); `kErrorDestinationTooSmall`
///         (size below count). A count of 0 gives 0, whatever the other arguments are. Copies
///         nothing on failure.
int memcpy_s(void* destination, std::size_t destinationSize, const void* source, std::size_t count);

/// Opens a file as `fopen` does and stores the result, null on failure, in `*file`.
/// @return 0; `kErrorMissingArgument` (`file`, `path` or `mode` null); else the `errno` of `fopen`.
int _tfopen_s(std::FILE** file, const char* path, const char* mode);

/// Reads up to `count` elements as `fread` does.
/// @return The number of elements read; 0, with nothing read, when an argument is null or zero or
///         the buffer has no room for `count` elements.
std::size_t fread_s(void* buffer, std::size_t bufferSize, std::size_t elementSize,
                    std::size_t count, std::FILE* stream);

/// Makes one directory level with mode 0775 (less the process's mask).
/// @param securityAttributes  Ignored.
/// @return 1 only when the directory was made; 0 for one that exists already.
int CreateDirectory(const char* path, void* securityAttributes);

/// Converts as `wcstombs` in the current locale.
/// @param converted  Never written.
/// @param count      Ignored.
/// @return What `wcstombs(destination, source, destinationSize)` returns: bytes without the
///         terminating zero, or (size_t)-1.
std::size_t wcstombs_s(std::size_t* converted, char* destination, std::size_t destinationSize,
                       const wchar_t* source, std::size_t count);

/// The number of blocks of the volume that holds `directory`.
/// @param sectorsPerCluster, bytesPerSector, freeClusters  Never written.
/// @param totalClusters  Receives the volume's blocks, at most 2^32 - 1. May be null.
/// @return 0 for a null path or one of which the system knows nothing, else 1.
int GetDiskFreeSpace(const char* directory, std::uint64_t* sectorsPerCluster,
                     std::uint64_t* bytesPerSector, std::uint64_t* freeClusters,
                     std::uint64_t* totalClusters);

/// The space of the volume that holds `directory`, in bytes. Each output may be null.
/// @param freeToCaller  What the caller may still use.
/// @param total         All of the volume.
/// @param totalFree     What is free, the system's reserve included.
/// @return 0, with nothing written, for a null path or one of which the system knows nothing.
int GetDiskFreeSpaceEx(const char* directory, _ULARGE_INTEGER* freeToCaller, _ULARGE_INTEGER* total,
                       _ULARGE_INTEGER* totalFree);

/// Bytes up to the first zero byte.
std::size_t lstrlen(const char* text);
/// Also bytes up to the first zero byte, not wide characters.
std::size_t lstrlen(const wchar_t* text);

/// Fills the whole record, zone included, with the local time; with zeros for a time that is past
/// the calendar. Arguments must not be null.
/// @return 0, always.
/// @note Looks for the zone (TZ) anew each time, in the environment: not while a thread changes
/// that.
int localtime_s(std::tm* result, const std::time_t* time);

/// Removes a file, or a symbolic link to one (the link, not the file).
/// @return 1 when it was removed; 0 for a missing path, a directory, or a failure.
int DeleteFile(const char* path);
/// The same, of UTF-8 bytes behind a pointer declared wide.
int DeleteFile(const wchar_t* path);

/// 1 when the path, symbolic links followed, is an existing directory. Null gives 0.
int PathIsDirectory(const char* path);

/// 1 when a listing of the directory has no entries, and also when there is no listing: a path
/// that is missing or not a directory counts as empty.
int PathIsDirectoryEmpty(const char* path);

/// Removes a directory with everything in it. A symbolic link in it, or in its place, is removed
/// itself; what it points to stays. The root directory is left alone.
/// @return 1 when all was removed; 0 for a missing path, something else than a directory, or a
///         failure (part of the contents may be gone then).
int RemoveDirectory(const char* path);

/// The name of the file system that holds `rootPath`: "FAT", "FAT32", the names of the "hfs"
/// family, else the system's name for it (at most 15 bytes; empty where that cannot be read).
/// @param fileSystemName      Receives the name with its terminating zero. May be null; stays
///                            untouched when `fileSystemNameSize` is too small: 4 bytes for "FAT",
///                            6 for "FAT32", the exact length for the "hfs" family, 16 for all
///                            else.
/// @param volumeName, volumeNameSize, serialNumber, maximumComponentLength, flags  Never written.
/// @return 0 for a null path or one of which the system knows nothing, else 1, also when no name
///         was written.
int GetVolumeInformation(const char* rootPath, char* volumeName, std::size_t volumeNameSize,
                         std::uint32_t* serialNumber, std::uint32_t* maximumComponentLength,
                         std::uint32_t* flags, char* fileSystemName,
                         std::size_t fileSystemNameSize);

}  // namespace vorrel
