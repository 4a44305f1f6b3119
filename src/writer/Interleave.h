#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "platform/AlignedBytes.h"

namespace vorrel {

/// Writes `frames` frames to `out`: in each, one `Width`-byte sample per channel, in order.
/// @param out       frames x channels x `Width` bytes.
/// @param channels  At least `frames` samples each.
template <std::size_t Width>
void Interleave(std::uint8_t* out, std::span<const AlignedBytes> channels, std::size_t frames) {
    for (std::size_t frame = 0; frame < frames; ++frame) {
        for (const AlignedBytes& channel : channels) {
            std::memcpy(out, channel.data() + frame * Width, Width);
            out += Width;
        }
    }
}
inline constexpr auto Interleave16 = &Interleave<2>;
inline constexpr auto Interleave24 = &Interleave<3>;
inline constexpr auto Interleave32 = &Interleave<4>;
/// Indexed by bytes per sample - 2.
inline constexpr std::array kInterleaveByWidth = {Interleave16, Interleave24, Interleave32};

}  // namespace vorrel
