#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "LevelMeter.h"

namespace vorrel::cli {

/// What the moving lines show.
struct StatusLine {
    std::string state;      ///< "recording", "paused", "saving", ...
    double position = 0.0;  ///< Seconds recorded.
    std::vector<Level> levels;
    std::optional<double> diskSecondsLeft;  ///< Until a volume is full, whichever it is.
    std::optional<double> takeSecondsLeft;  ///< ... the one that takes the recording,
    std::optional<double> saveSecondsLeft;  ///< ... one that takes a file.
    bool lostBuffers = false;
    std::optional<double> savePercent;
    std::size_t marks = 0;
    std::deque<double> wave;  ///< Peaks, 0 to 1, a fifth of a second each, the newest last.
    std::string keys;         ///< What can be pressed.
};

/// A terminal as far as the drawing needs to know it.
struct Terminal {
    std::size_t columns = 80;
    std::size_t rows = 24;
    bool colour = false;
    bool utf8 = false;
};

/// The moving line alone, made to fit `columns`: what matters stands in front, the meters shrink,
/// at last to one character a channel; only then is it cut.
std::string StatusText(const StatusLine& status, std::size_t columns);

/// The lines from the top one down: state and position in large digits, the scrolling waveform, a
/// meter a channel with peak, RMS and clipping, disks, keys. A terminal that is too small for them
/// gets `StatusText` alone. No line is wider than `columns`; with `colour` there are SGR sequences
/// in them, each ended in its line.
std::vector<std::string> DisplayLines(const StatusLine& status, const Terminal& terminal);

/// Words for a length of disk time: "59 s", "12 min", "7 h 05 min", "over 99 h".
std::string DiskTimeText(double seconds);

}  // namespace vorrel::cli
