#include "convert/ChannelKernels.h"

#include <cstring>

#include "convert/InstructionSet.h"
#include "convert/NearestRounding.h"

namespace vorrel {

void CopyLane(std::uint8_t* out, const float* in, std::size_t frames, std::size_t channels,
              std::size_t channel) {
    if (frames == 0) {
        return;
    }
    if (channels == 1) {
        std::memcpy(out, in, frames * sizeof(float));
        return;
    }
    const float* from = in + channel;
    for (std::size_t frame = 0; frame < frames; ++frame) {
        std::memcpy(out + frame * sizeof(float), from + frame * channels, sizeof(float));
    }
}

void SplitLanes(std::span<std::uint8_t* const> out, const float* in, std::size_t frames) {
    ActiveKernels().splitLanes(out.data(), out.size(), reinterpret_cast<const std::uint8_t*>(in),
                               frames);
}

void GainConvertInterleave(std::uint8_t* out, std::span<const float* const> channels,
                           std::size_t frames, float gain, std::size_t width) {
    const NearestRounding nearest;
    ActiveKernels().gainConvertInterleave(out, channels.data(), channels.size(), frames, gain,
                                          width);
}

}  // namespace vorrel
