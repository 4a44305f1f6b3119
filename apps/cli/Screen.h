#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "LevelMeter.h"
#include "Output.h"

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

/// The line, made to fit `columns`: what matters stands in front, the meters shrink, at last to one
/// character a channel; only then is it cut.
std::string StatusText(const StatusLine& status, std::size_t columns);

/// The people's side: messages and, on a terminal, one line below them that is redrawn in place.
class Screen {
public:
    /// @param descriptor  Where `output` goes: asked whether and how wide a terminal it is.
    Screen(int descriptor, Output& output);
    ~Screen() { Clear(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    bool IsTerminal() const { return terminal; }
    /// Redraws the line; nothing where it is no terminal, or one that still has text to take.
    void Draw(const StatusLine& status);
    /// Takes the line away until the next `Draw`.
    void Clear();
    /// A message of its own line, above the moving one.
    void Print(const std::string& text);

private:
    Output& output;
    int descriptor;
    bool terminal;
    bool drawn = false;
};

}  // namespace vorrel::cli
