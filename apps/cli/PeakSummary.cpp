#include "PeakSummary.h"

#include <algorithm>
#include <cmath>

namespace vorrel::cli {
namespace {

constexpr double kFullScale = 32768.0;

}  // namespace

PeakSummary::PeakSummary(std::uint64_t totalFrames, std::size_t columnCount,
                         std::size_t channelCount)
    : total(std::max<std::uint64_t>(totalFrames, 1)),
      columns(static_cast<std::size_t>(std::min<std::uint64_t>(columnCount, total))),
      channels(channelCount),
      sums(columns * channels) {}

void PeakSummary::Add(std::span<const std::int16_t> samples) {
    const std::uint64_t frames = channels == 0 ? 0 : samples.size() / channels;
    for (std::uint64_t frame = 0; frame < frames && position < total;) {
        // All frames up to the next column's first.
        const auto column = static_cast<std::size_t>(position * columns / total);
        const std::uint64_t next = ((column + 1) * total + columns - 1) / columns;
        const std::uint64_t count = std::min(frames - frame, next - position);
        for (std::uint64_t index = 0; index < count; ++index) {
            for (std::size_t channel = 0; channel < channels; ++channel) {
                const std::int16_t sample =
                    samples[static_cast<std::size_t>((frame + index) * channels + channel)];
                Sum& sum = sums[column * channels + channel];
                sum.lowest = std::min(sum.lowest, sample);
                sum.highest = std::max(sum.highest, sample);
                sum.squares += static_cast<double>(sample) * sample;
            }
        }
        for (std::size_t channel = 0; channel < channels; ++channel) {
            sums[column * channels + channel].frames += count;
        }
        frame += count;
        position += count;
    }
}

PeakColumn PeakSummary::At(std::size_t channel, std::size_t column) const {
    const Sum& sum = sums[column * channels + channel];
    PeakColumn peak;
    if (sum.frames > 0) {
        peak.lowest = sum.lowest / kFullScale;
        peak.highest = sum.highest / kFullScale;
        peak.rms = std::sqrt(sum.squares / static_cast<double>(sum.frames)) / kFullScale;
    }
    return peak;
}

}  // namespace vorrel::cli
