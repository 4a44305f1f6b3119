#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Pattern.h"

namespace vorrel::e2e {

/// A saved take, as the frames that the recorder's pattern is made of.
struct TakeFile {
    StreamMode mode = StreamMode::Pcm;
    std::uint32_t rateHz = 0;  ///< of the file; of one-bit samples in DSD
    unsigned bits = 0;         ///< of a sample in the file: 16, 24 or 32; 1 in DSD
    unsigned patternBits = 0;  ///< of a sample in `frames`: 16 or 24
    /// Of a 32-bit file the upper 24 bits of each sample; where the lower ones are not 0, no
    /// sample of any pattern. Of a DSF file whole words, the bits of each in their order in time
    /// from bit 7 of the low byte to bit 0 of the high one.
    std::vector<Frame> frames;
};

/// Reads a WAV or a DSF file of two channels; nothing where it is no such file.
std::optional<TakeFile> ReadTake(const std::string& path);

}  // namespace vorrel::e2e
