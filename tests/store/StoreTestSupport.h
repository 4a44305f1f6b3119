#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "store/RecordRangeManager.h"

namespace vorrel::test {

using Bytes = std::vector<std::uint8_t>;
using Ranges = std::vector<PositionRange>;

/// The byte at `position` of a long test stream; no period of a power of two, so that a block in
/// the wrong place is seen.
constexpr std::uint8_t PatternByte(std::uint64_t position) {
    return static_cast<std::uint8_t>(position % 251);
}

/// Bytes [from, to) of the test stream.
inline Bytes Pattern(std::uint64_t from, std::uint64_t to) {
    Bytes bytes;
    bytes.reserve(to - from);
    for (std::uint64_t position = from; position < to; ++position) {
        bytes.push_back(PatternByte(position));
    }
    return bytes;
}

/// Recorded from stream position 0 on.
inline const Ranges kAll = {{0, 0}};

/// Names of the files in `directory`.
inline std::vector<std::string> Files(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// Sizes of the files in `directory`, ascending.
inline std::vector<std::uint64_t> FileSizes(const std::string& directory) {
    std::vector<std::uint64_t> sizes;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        sizes.push_back(entry.file_size());
    }
    std::sort(sizes.begin(), sizes.end());
    return sizes;
}

}  // namespace vorrel::test
