#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <vector>

namespace vorrel::cli {

/// One channel's level over the frames looked at.
struct Level {
    double peakDbfs = 0.0;  ///< 0 is full scale; minus infinity is digital silence.
    bool clipped = false;   ///< A sample stood at one end of the 16-bit scale.
    /// Root of the mean square; 0 is that of a full-scale square wave, a full-scale sine has -3.
    double rmsDbfs = -std::numeric_limits<double>::infinity();
};

/// Peaks of interleaved 16-bit preview frames, one per channel. No frames: silence everywhere.
std::vector<Level> MeasureLevels(std::span<const std::int16_t> samples, std::size_t channels);

/// Keeps a channel's clipping in sight for three seconds, because a clipped sample is over before
/// anybody has looked.
class ClipHold {
public:
    using Clock = std::chrono::steady_clock;

    /// @return `levels`, with `clipped` also where it was set within the three seconds before
    /// `now`.
    std::vector<Level> Hold(std::vector<Level> levels, Clock::time_point now);

private:
    std::vector<Clock::time_point> until;
};

/// "-12.3", "-inf".
std::string DecibelText(double dbfs);

/// A bar of `width` cells over the top 60 dB, "#" up to the level; the last cell is "!" after a
/// clipped sample.
std::string MeterBar(const Level& level, std::size_t width);

/// All channels side by side: "L [####------] -12.3  R [###-------] -14.0"; numbers in place of L
/// and R where there are not two.
std::string MeterText(const std::vector<Level>& levels, std::size_t barWidth);

/// One character a channel, "[.:-=+*#!]": from below -60 dB, in steps of 10 dB, to the top 10 dB;
/// "!" after a clipped sample.
std::string CompactMeterText(const std::vector<Level>& levels);

}  // namespace vorrel::cli
