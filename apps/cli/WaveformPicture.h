#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "PeakSummary.h"

namespace vorrel::cli {

/// What stands around the waveform.
struct PictureTexts {
    std::string title;
    double seconds = 0.0;       ///< Length of the recording.
    std::vector<double> marks;  ///< Seconds, drawn as lines through all channels.
};

/// The width of a picture's waveform in columns.
inline constexpr std::size_t kPictureColumns = 1600;

enum class PictureKind { Png, Svg };

/// Draws a waveform, a strip a channel with a time scale below.
/// @param texts  UTF-8.
/// @throws Failure (storage) that says why, and not what: the file cannot be written; a part of it
///         may be there.
void DrawWaveform(const PeakSummary& peaks, const PictureTexts& texts, const std::string& path,
                  PictureKind kind);

/// Seconds between two figures of a time scale, so that at most `most` of them come to stand: 1, 2
/// or 5 of a power of ten, or what clocks have (15, 30 s, ...).
double TimeStep(double seconds, std::size_t most);

}  // namespace vorrel::cli
