#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "device/simulated/SampleSource.h"

namespace vorrel {

struct AudioFileFacts {
    double rateHz = 0.0;
    std::uint32_t channels = 0;
};

/// Opens the file and reads what it is. Only a file whose samples a 32-bit float carries exactly is
/// a source: uncompressed or losslessly compressed integers of 8, 16 and 24 bits, and 32-bit
/// floats. 32-bit integers, 64-bit floats and lossy codings are refused.
/// @param problem  Receives, on failure, the path and the reason.
/// @return false for a file that cannot be opened or is refused.
bool InspectAudioFile(const std::string& path, AudioFileFacts& facts, std::string& problem);

/// The samples of an audio file, bit for bit: floats as they stand in the file, integers as exact
/// fractions of their full scale. After its end silence, or the file again. Null (and a trace line)
/// when `InspectAudioFile` refuses the file or it has not that many channels. May wait for the
/// file.
std::unique_ptr<SampleSource> OpenAudioFileSource(const std::string& path, std::uint32_t channels,
                                                  bool loop);

}  // namespace vorrel
