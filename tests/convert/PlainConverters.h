#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vorrel::test {

// The kernels written one sample at a time, as their contract reads: what every vector version is
// held against.

std::int16_t PlainToInt16(float sample);
std::int32_t PlainToInt24(float sample);
std::int32_t PlainToInt32(float sample);

/// `samples` as packed little-endian integers of `width` bytes.
std::vector<std::uint8_t> PlainConvert(std::span<const float> samples, std::size_t width);

/// `channels` with gain, converted and interleaved.
std::vector<std::uint8_t> PlainGainConvertInterleave(
    const std::vector<std::vector<float>>& channels, std::size_t frames, float gain,
    std::size_t width);

/// One channel of an interleaved buffer.
std::vector<std::uint32_t> PlainLane(std::span<const std::uint32_t> interleaved,
                                     std::size_t channels, std::size_t channel);

}  // namespace vorrel::test
