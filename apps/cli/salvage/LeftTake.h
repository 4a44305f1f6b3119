#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "PrivateDirectory.h"
#include "salvage/TakeJournal.h"

namespace vorrel::cli {

/// A take whose program has died, as far as it reached the disk.
struct LeftTake {
    std::string name;                  ///< What the user calls it by: its directory's name.
    std::string directory;             ///< Absolute.
    std::optional<TakeRecord> record;  ///< None = no journal that can be read.
    std::uint64_t bytes = 0;           ///< Of everything in it.
    std::uint64_t frames = 0;          ///< That can be saved.

    /// Name of the machine where its program may still live, "" = this one, or unknown.
    std::string elsewhere;

    /// Paths of files that were being written when it died.
    std::vector<std::string> halfWritten;

    double Seconds() const;
};

/// What is left behind in a place for takes, by name.
std::vector<LeftTake> FindLeftTakes(const std::string& base);

/// What the directory of one holds.
LeftTake ReadLeftTake(const Leftover& leftover);

}  // namespace vorrel::cli
