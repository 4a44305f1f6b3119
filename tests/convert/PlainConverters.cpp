#include "convert/PlainConverters.h"

#include <cmath>
#include <limits>

namespace vorrel::test {
namespace {

/// Nearest, ties to even, from the definition: no rounding mode has a say. `value` is exact.
double RoundToEven(double value) {
    const double below = std::floor(value);
    const double rest = value - below;
    if (rest != 0.5) {
        return rest < 0.5 ? below : below + 1.0;
    }
    return std::fmod(below, 2.0) == 0.0 ? below : below + 1.0;
}

template <class Integer>
Integer Saturate(double value, double smallest, double largest) {
    if (std::isnan(value)) {
        return 0;
    }
    return static_cast<Integer>(value < smallest ? smallest : value > largest ? largest : value);
}

void Append(std::vector<std::uint8_t>& out, float sample, std::size_t width) {
    const std::int32_t value = width == 2   ? PlainToInt16(sample)
                               : width == 3 ? PlainToInt24(sample)
                                            : PlainToInt32(sample);
    const auto bits = static_cast<std::uint32_t>(value);
    for (std::size_t byte = 0; byte < width; ++byte) {
        out.push_back(static_cast<std::uint8_t>(bits >> (8 * byte)));
    }
}

}  // namespace

// The products are taken in double precision, where they are exact: a power of two only moves the
// exponent.
std::int16_t PlainToInt16(float sample) {
    return Saturate<std::int16_t>(RoundToEven(static_cast<double>(sample) * 32768.0), -32768.0,
                                  32767.0);
}

std::int32_t PlainToInt24(float sample) {
    return Saturate<std::int32_t>(std::trunc(static_cast<double>(sample) * 8388608.0), -8388608.0,
                                  8388607.0);
}

std::int32_t PlainToInt32(float sample) {
    return Saturate<std::int32_t>(RoundToEven(static_cast<double>(sample) * 2147483648.0),
                                  -2147483648.0, 2147483647.0);
}

std::vector<std::uint8_t> PlainConvert(std::span<const float> samples, std::size_t width) {
    std::vector<std::uint8_t> out;
    out.reserve(samples.size() * width);
    for (const float sample : samples) {
        Append(out, sample, width);
    }
    return out;
}

std::vector<std::uint8_t> PlainGainConvertInterleave(
    const std::vector<std::vector<float>>& channels, std::size_t frames, float gain,
    std::size_t width) {
    std::vector<std::uint8_t> out;
    out.reserve(channels.size() * frames * width);
    for (std::size_t frame = 0; frame < frames; ++frame) {
        for (const std::vector<float>& channel : channels) {
            const float gained = channel[frame] * gain;
            Append(out, gained, width);
        }
    }
    return out;
}

std::vector<std::uint32_t> PlainLane(std::span<const std::uint32_t> interleaved,
                                     std::size_t channels, std::size_t channel) {
    std::vector<std::uint32_t> lane;
    for (std::size_t i = channel; i < interleaved.size(); i += channels) {
        lane.push_back(interleaved[i]);
    }
    return lane;
}

}  // namespace vorrel::test
