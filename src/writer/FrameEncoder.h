#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "convert/SampleTypeInfo.h"
#include "platform/AlignedBytes.h"

namespace vorrel {

/// Turns blocks of recorded samples, one buffer per channel, into the frames of a PCM file: gain,
/// conversion to 16, 24 or 32 bits, interleaving. All memory is taken once, for the largest block.
class FrameEncoder {
public:
    /// True when samples of that type can become integers of `bits` bits.
    static bool Supports(const SampleTypeInfo& source, std::uint32_t bits);

    /// `Supports(source, bits)` holds.
    /// @param maxFrames  Frames of the largest block.
    FrameEncoder(const SampleTypeInfo& source, std::size_t channels, std::uint32_t bits,
                 std::size_t maxFrames, float gain);

    /// The bytes of `frames` frames (at most `maxFrames`), valid until the next call.
    /// @param channels  `frames` recorded samples each, as the stores give them.
    std::span<const std::uint8_t> Encode(std::span<const AlignedBytes> channels,
                                         std::size_t frames);

private:
    void EncodeStepwise(std::span<const AlignedBytes> channels, std::size_t frames);

    const SampleTypeInfo& source;
    const std::size_t width;  // bytes per sample of the file
    const float gain;
    const bool inOnePass;  // the recording holds the floats that all else would be made from
    AlignedBytes encoded;
    std::vector<const float*> inputs;     // one pass: the channels' samples
    AlignedBytes floats;                  // stepwise: one channel's samples as floats
    std::vector<AlignedBytes> converted;  // stepwise: each channel at the file's width
};

}  // namespace vorrel
