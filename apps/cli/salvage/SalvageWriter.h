#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "salvage/SpillFiles.h"

namespace vorrel::cli {

/// Makes a file of stored samples without the engine, with the same bytes in it: WAV (integers of
/// 16, 24 or 32 bits, by the same rounding) or DSF (blocks of 4096 bytes a channel, the earliest
/// bit in the lowest). Neither gain nor tags: what was recorded, as it was recorded.
/// @param startFrame  First frame; at DSD a multiple of 8.
/// @param endFrame    One past the last, at most `SpillFiles::Frames`.
/// @param path        Made anew; what stands there is lost.
/// @param advance     Told after each block how many frames are written; false from it gives up.
/// @throws Failure (storage): a file cannot be read or written; or it was given up.
void WriteSalvaged(const SpillFiles& files, const TakeFormat& format, std::uint64_t startFrame,
                   std::uint64_t endFrame, const std::string& path,
                   const std::function<bool(std::uint64_t)>& advance);

}  // namespace vorrel::cli
