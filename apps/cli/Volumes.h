#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "SavePlan.h"

namespace vorrel::cli {

/// Free bytes for this user on the volume of `path`; none when it cannot be told.
std::optional<double> FreeBytes(const std::string& path);

/// "812 bytes", "37 MiB".
std::string SizeText(std::uint64_t bytes);

/// The volume of `path`; none when it cannot be told.
std::optional<dev_t> VolumeOf(const std::string& path);

/// The largest file that can be made in a directory, in bytes: a limit of the process, or of a FAT
/// volume. Very large where there is none.
double LargestFile(const std::string& directory);

/// What keeps the file of a wish from being longer: "the 4 GiB that a WAV file can hold", or what
/// is allowed in its directory.
std::string LimitText(const WantedFile& wish, const TakeFormat& format);

/// Why a file cannot be written at `path`, in the system's words, found by trying. Leaves nothing
/// behind. "" = it could be written now.
/// @param fileBytes     Its size as a whole, for limits of size.
/// @param missingBytes  What of it still needs room.
std::string WhyNotWritten(const std::string& path, double fileBytes, double missingBytes);

/// Those of the directories that take a file, in order, each volume once, and of those that have
/// their room in common only one that has more of it; numbered as in the list,
/// from `firstNumber`. Empty names are passed over.
std::vector<RescuePlace> FindRescuePlaces(const std::vector<std::string>& directories,
                                          std::size_t firstNumber);

}  // namespace vorrel::cli
