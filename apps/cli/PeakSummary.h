#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vorrel::cli {

/// What one channel's samples did over the width of one pixel. Full scale is 1.
struct PeakColumn {
    double lowest = 0.0;
    double highest = 0.0;
    double rms = 0.0;
};

/// Folds a recording of known length into a fixed number of columns, as its preview comes.
class PeakSummary {
public:
    /// @param totalFrames  Above 0; its product with `columnCount` is below 2^64.
    /// @param columnCount  Most columns; a shorter recording has one a frame.
    PeakSummary(std::uint64_t totalFrames, std::size_t columnCount, std::size_t channelCount);

    /// The next frames, interleaved; what passes the total is left out.
    void Add(std::span<const std::int16_t> samples);

    std::size_t Columns() const { return columns; }
    std::size_t Channels() const { return channels; }
    /// A column that no frame has reached is silent.
    PeakColumn At(std::size_t channel, std::size_t column) const;

private:
    struct Sum {
        std::int16_t lowest = 0;
        std::int16_t highest = 0;
        double squares = 0.0;
        std::uint64_t frames = 0;
    };
    std::uint64_t total;
    std::size_t columns;
    std::size_t channels;
    std::uint64_t position = 0;
    std::vector<Sum> sums;  // column by column, in each channel by channel
};

}  // namespace vorrel::cli
