#include "LevelMeter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string_view>

namespace vorrel::cli {
namespace {

constexpr double kFullScale = 32768.0;
constexpr std::chrono::seconds kClipHold(3);
constexpr double kBarDecibels = 60.0;  // below it nobody sets a level by eye

}  // namespace

std::vector<Level> MeasureLevels(std::span<const std::int16_t> samples, std::size_t channels) {
    std::vector<int> peaks(channels, 0);
    std::vector<double> squares(channels, 0.0);
    std::vector<Level> levels(channels);
    for (std::size_t index = 0; channels > 0 && index < samples.size(); ++index) {
        const int sample = samples[index];
        const std::size_t channel = index % channels;
        peaks[channel] = std::max(peaks[channel], std::abs(sample));
        squares[channel] += static_cast<double>(sample) * sample;
        levels[channel].clipped = levels[channel].clipped ||
                                  sample == std::numeric_limits<std::int16_t>::max() ||
                                  sample == std::numeric_limits<std::int16_t>::min();
    }
    for (std::size_t channel = 0; channel < channels; ++channel) {
        // log10(0) is the minus infinity that silence is.
        levels[channel].peakDbfs = 20.0 * std::log10(peaks[channel] / kFullScale);
        const double frames =
            static_cast<double>(std::max<std::size_t>(samples.size() / channels, 1));
        levels[channel].rmsDbfs =
            10.0 * std::log10(squares[channel] / frames / (kFullScale * kFullScale));
    }
    return levels;
}

std::vector<Level> ClipHold::Hold(std::vector<Level> levels, Clock::time_point now) {
    until.resize(levels.size(), Clock::time_point::min());
    for (std::size_t channel = 0; channel < levels.size(); ++channel) {
        if (levels[channel].clipped) {
            until[channel] = now + kClipHold;
        }
        levels[channel].clipped = now < until[channel];
    }
    return levels;
}

std::string DecibelText(double dbfs) {
    if (!std::isfinite(dbfs)) {
        return "-inf";
    }
    char text[32];
    // A level just below full scale must not read "-0.0".
    std::snprintf(text, sizeof text, "%.1f", std::abs(dbfs) < 0.05 ? 0.0 : dbfs);
    return text;
}

std::string MeterBar(const Level& level, std::size_t width) {
    std::string bar(width, '-');
    const double share = std::clamp((level.peakDbfs + kBarDecibels) / kBarDecibels, 0.0, 1.0);
    const auto filled = static_cast<std::size_t>(std::lround(share * static_cast<double>(width)));
    std::fill_n(bar.begin(), std::min(filled, width), '#');
    if (level.clipped && width > 0) {
        bar.back() = '!';
    }
    return bar;
}

std::string MeterText(const std::vector<Level>& levels, std::size_t barWidth) {
    std::string text;
    for (std::size_t channel = 0; channel < levels.size(); ++channel) {
        if (channel > 0) {
            text += "  ";
        }
        const bool stereo = levels.size() == 2;
        text += stereo ? (channel == 0 ? "L" : "R") : std::to_string(channel + 1);
        const std::string decibels = DecibelText(levels[channel].peakDbfs);
        text += " [" + MeterBar(levels[channel], barWidth) + "] ";
        text.append(decibels.size() < 5 ? 5 - decibels.size() : 0, ' ');  // the line stands still
        text += decibels;
    }
    return text;
}

std::string CompactMeterText(const std::vector<Level>& levels) {
    constexpr std::string_view kSteps = ".:-=+*#";
    constexpr double kStepDecibels = kBarDecibels / static_cast<double>(kSteps.size() - 1);
    std::string text = "[";
    for (const Level& level : levels) {
        const double above = std::clamp(level.peakDbfs + kBarDecibels, -1.0, kBarDecibels);
        const auto step = static_cast<std::size_t>(std::floor(above / kStepDecibels) + 1.0);
        text += level.clipped ? '!' : kSteps[std::min(step, kSteps.size() - 1)];
    }
    return text + "]";
}

}  // namespace vorrel::cli
