#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "device/simulated/SampleSource.h"

namespace vorrel {

struct DsfFacts {
    double rateHz = 0.0;  ///< Of the single bits.
    std::uint32_t channels = 0;
    std::uint64_t samples = 0;  ///< Single bits of one channel.
};

/// Whether a path ends in ".dsf", in whatever case: what tells a source of bits from one of PCM.
bool IsDsfPath(const std::string& path);

/// Opens the file and reads what it is. A source is a DSF file, version 1, of raw 1-bit samples,
/// least significant bit first, in 1 to 8 channels and blocks of 4096 bytes, that is as long as its
/// chunks say.
/// @param problem  Receives, on failure, the path and the reason.
/// @return false for a file that cannot be opened or is refused.
bool InspectDsfFile(const std::string& path, DsfFacts& facts, std::string& problem);

/// The bits of a DSF file as the words of a device, bit for bit: a word takes the next 16 samples
/// of its channel. After the last sample come silence, whose pattern keeps its place in the word,
/// or, looped, the first samples again without a gap. Null (and a trace line) when `InspectDsfFile`
/// refuses the file or it has not that many channels or that rate. A file that shrinks or fails
/// while it is read is traced once and falls silent. May wait for the file.
/// @param rateHz  Of the single bits.
std::unique_ptr<SampleSource> OpenDsfFileSource(const std::string& path, std::uint32_t channels,
                                                double rateHz, bool loop);

}  // namespace vorrel
