#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/Realtime.h"

namespace vorrel {

/// Copies one channel of an interleaved buffer of 32-bit words.
/// @param out       `frames` words (4 bytes each), 64-byte aligned.
/// @param in        `frames` x `channels` words, frame by frame.
/// @param channel   0 <= channel < `channels`.
VORREL_REALTIME void CopyLane(std::uint8_t* out, const float* in, std::size_t frames,
                              std::size_t channels, std::size_t channel);

/// Splits an interleaved buffer of 32-bit words into its channels in one pass, bit for bit;
/// the same bytes as `CopyLane` for each channel.
/// @param out  One pointer per channel, `frames` words each, 64-byte aligned.
VORREL_REALTIME void SplitLanes(std::span<std::uint8_t* const> out, const float* in,
                                std::size_t frames);

/// Multiplies the samples by `gain`, converts them to `width` bytes (2, 3 or 4) and interleaves
/// them in one pass: bit-identical to `gain` times the sample in single precision, then
/// `Float32_To_Int16LSB`, `Float32_To_Int24LSB` or `Float32_To_Int32LSB`, then interleaving.
/// @param out       `frames` x channels x `width` bytes, frame by frame, channel 0 first.
/// @param channels  One pointer to `frames` floats per channel.
void GainConvertInterleave(std::uint8_t* out, std::span<const float* const> channels,
                           std::size_t frames, float gain, std::size_t width);

}  // namespace vorrel
