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

/// Opens the file and reads what it is.
/// @param problem  Receives, on failure, the path and the reason.
bool InspectAudioFile(const std::string& path, AudioFileFacts& facts, std::string& problem);

/// The samples of an audio file, bit for bit: floats as they stand in the file, integers over
/// their full scale. After its end silence, or the file again. Null (and a trace line) when the
/// file cannot be opened or has not that many channels.
std::unique_ptr<SampleSource> OpenAudioFileSource(const std::string& path, std::uint32_t channels,
                                                  bool loop);

}  // namespace vorrel
