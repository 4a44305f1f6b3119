#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "LevelMeter.h"

namespace vorrel::cli {

/// What the moving line shows.
struct StatusLine {
    std::string state;      ///< "recording", "paused", "saving", ...
    double position = 0.0;  ///< Seconds recorded.
    std::vector<Level> levels;
    std::optional<double> diskSecondsLeft;
    bool lostBuffers = false;
    std::optional<double> savePercent;
};

/// Words for a length of disk time: "59 s", "12 min", "7 h 05 min", "over 99 h".
std::string DiskTimeText(double seconds);

/// The line, cut to fit `columns`; meters shrink before anything is cut.
std::string StatusText(const StatusLine& status, std::size_t columns);

/// The people's side: messages and, on a terminal, one line below them that is redrawn in place.
class Screen {
public:
    /// @param descriptor  Where to write; not owned.
    explicit Screen(int descriptor);
    ~Screen() { Clear(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    bool IsTerminal() const { return terminal; }
    /// Redraws the line; not a terminal: nothing.
    void Draw(const StatusLine& status);
    /// Takes the line away until the next `Draw`.
    void Clear();
    /// A message of its own line, above the moving one.
    void Print(const std::string& text);

private:
    void Write(const std::string& text) const;

    int descriptor;
    bool terminal;
    bool drawn = false;
};

}  // namespace vorrel::cli
