#include "Display.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string_view>

#include "TimeRange.h"

namespace vorrel::cli {
namespace {

constexpr std::size_t kWidestBar = 24;
constexpr std::size_t kNarrowestBar = 4;
// What the large form takes beside its meters: digits, waveform, disks, keys.
constexpr std::size_t kLinesBesideMeters = 6;
constexpr std::size_t kLeastColumns = 48;
constexpr std::size_t kWidestMeter = 60;

constexpr std::string_view kPlain = "\x1b[0m";
constexpr std::string_view kBold = "\x1b[1m";
constexpr std::string_view kDim = "\x1b[2m";
constexpr std::string_view kRed = "\x1b[1;31m";
constexpr std::string_view kGreen = "\x1b[32m";
constexpr std::string_view kYellow = "\x1b[33m";
constexpr std::string_view kBlue = "\x1b[1;34m";

/// All but the meters, the most important first.
std::string Head(const StatusLine& status) {
    std::string text = ClockText(status.position) + " " + status.state;
    if (status.savePercent) {
        char percent[32];
        std::snprintf(percent, sizeof percent, " %3.0f %%", std::floor(*status.savePercent));
        text += percent;
    }
    if (status.lostBuffers) {
        text += "  BUFFERS LOST";
    }
    if (status.diskSecondsLeft) {
        text += "  disk " + DiskTimeText(*status.diskSecondsLeft);
    }
    return text;
}

/// Text of a known width, with or without colour.
class Line {
public:
    explicit Line(const Terminal& target) : terminal(target) {}

    /// Appends what still fits; a character of several bytes counts as one column.
    void Add(std::string_view text, std::string_view style = {}) {
        const bool styled = terminal.colour && !style.empty();
        if (styled) {
            line += style;
        }
        for (std::size_t at = 0; at < text.size() && width < terminal.columns; ++width) {
            std::size_t next = at + 1;
            while (next < text.size() && (static_cast<unsigned char>(text[next]) & 0xC0U) == 0x80) {
                ++next;
            }
            line += text.substr(at, next - at);
            at = next;
        }
        if (styled) {
            line += kPlain;
        }
    }
    void PadTo(std::size_t column) {
        while (width < std::min(column, terminal.columns)) {
            line += ' ';
            ++width;
        }
    }
    std::size_t Width() const { return width; }
    std::string Take() { return std::move(line); }

private:
    const Terminal& terminal;
    std::string line;
    std::size_t width = 0;
};

std::string_view StateStyle(const std::string& state) {
    if (state == "recording") {
        return kRed;
    }
    if (state == "paused") {
        return kYellow;
    }
    if (state == "saving") {
        return kBlue;
    }
    return kBold;
}

/// A clock in digits of three rows, as on a tape counter.
std::array<std::string, 3> LargeDigits(const std::string& clock) {
    struct Digit {
        char character = '\0';
        std::array<std::string_view, 3> rows;
    };
    static constexpr std::array<Digit, 12> kDigits = {{
        {'0', {" _ ", "| |", "|_|"}},
        {'1', {"   ", "  |", "  |"}},
        {'2', {" _ ", " _|", "|_ "}},
        {'3', {" _ ", " _|", " _|"}},
        {'4', {"   ", "|_|", "  |"}},
        {'5', {" _ ", "|_ ", " _|"}},
        {'6', {" _ ", "|_ ", "|_|"}},
        {'7', {" _ ", "  |", "  |"}},
        {'8', {" _ ", "|_|", "|_|"}},
        {'9', {" _ ", "|_|", " _|"}},
        {':', {" ", ".", "."}},
        {'.', {" ", " ", "."}},
    }};
    std::array<std::string, 3> rows;
    for (const char character : clock) {
        const auto digit = std::find_if(kDigits.begin(), kDigits.end(), [&](const Digit& known) {
            return known.character == character;
        });
        for (std::size_t row = 0; digit != kDigits.end() && row < rows.size(); ++row) {
            rows[row] += std::string(digit->rows[row]) + " ";
        }
    }
    return rows;
}

std::string WaveText(const std::deque<double>& wave, std::size_t columns, bool utf8) {
    static constexpr std::array<std::string_view, 9> kBlocks = {" ", "▁", "▂", "▃", "▄",
                                                                "▅", "▆", "▇", "█"};
    static constexpr std::array<std::string_view, 9> kPlainBlocks = {" ", ".", ".", ":", "-",
                                                                     "=", "+", "*", "#"};
    const std::size_t shown = std::min(wave.size(), columns);
    std::string text(columns - shown, ' ');
    for (std::size_t index = wave.size() - shown; index < wave.size(); ++index) {
        // By decibels, as the meters: an eighth for each six of the top 48.
        const double decibels = wave[index] > 0.0 ? 20.0 * std::log10(wave[index]) : -100.0;
        const auto step =
            static_cast<std::size_t>(std::clamp(std::ceil((decibels + 48.0) / 6.0), 0.0, 8.0));
        text += utf8 ? kBlocks[step] : kPlainBlocks[step];
    }
    return text;
}

void AddMeter(Line& line, const Level& level, const std::string& name, std::size_t width) {
    line.Add(name + " ", kBold);
    const std::string bar = MeterBar({level.peakDbfs, false, level.rmsDbfs}, width);
    const std::size_t lit = std::count(bar.begin(), bar.end(), '#') > 0
                                ? static_cast<std::size_t>(std::count(bar.begin(), bar.end(), '#'))
                                : 0;
    // The mark of the RMS stands in the bar.
    std::string drawn = bar;
    const std::string rms = MeterBar({level.rmsDbfs, false, level.rmsDbfs}, width);
    const auto average = static_cast<std::size_t>(std::count(rms.begin(), rms.end(), '#'));
    if (average > 0) {
        drawn[average - 1] = '|';
    }
    const std::size_t warm = width * 5 / 6;  // the top 10 dB of 60
    line.Add("[");
    line.Add(std::string_view(drawn).substr(0, std::min(lit, warm)), kGreen);
    if (lit > warm) {
        line.Add(std::string_view(drawn).substr(warm, lit - warm), kYellow);
    }
    line.Add(std::string_view(drawn).substr(lit), kDim);
    line.Add("] ");
    const auto number = [](double dbfs) {
        const std::string text = DecibelText(dbfs);
        return std::string(text.size() < 5 ? 5 - text.size() : 0, ' ') + text;
    };
    line.Add("peak " + number(level.peakDbfs) + "  rms " + number(level.rmsDbfs));
    line.Add(level.clipped ? "  CLIP" : "      ", kRed);
}

}  // namespace

std::string DiskTimeText(double seconds) {
    if (!(seconds < 99.0 * 3600.0)) {
        return "over 99 h";
    }
    const auto whole = static_cast<unsigned>(seconds);
    char text[48];
    if (whole < 60) {
        std::snprintf(text, sizeof text, "%u s", whole);
    } else if (whole < 3600) {
        std::snprintf(text, sizeof text, "%u min", whole / 60);
    } else {
        std::snprintf(text, sizeof text, "%u h %02u min", whole / 3600, whole / 60 % 60);
    }
    return text;
}

std::string StatusText(const StatusLine& status, std::size_t columns) {
    const std::string head = Head(status);
    std::string text = head;
    if (!status.levels.empty()) {
        for (std::size_t bar = kWidestBar; bar >= kNarrowestBar; --bar) {
            text = head + "  " + MeterText(status.levels, bar);
            if (text.size() <= columns) {
                return text;
            }
        }
        text = head + "  " + CompactMeterText(status.levels);
    }
    text.resize(std::min(text.size(), columns));
    return text;
}

std::vector<std::string> DisplayLines(const StatusLine& status, const Terminal& terminal) {
    if (terminal.columns < kLeastColumns ||
        terminal.rows < kLinesBesideMeters + status.levels.size() + 1) {
        return {StatusText(status, terminal.columns)};
    }
    std::vector<std::string> lines;
    const std::array<std::string, 3> digits = LargeDigits(ClockText(status.position));
    for (std::size_t row = 0; row < digits.size(); ++row) {
        Line line(terminal);
        line.Add(digits[row], kBold);
        line.PadTo(digits[row].size() + 2);
        if (row == 0) {
            std::string state = status.state;
            std::transform(state.begin(), state.end(), state.begin(), [](char c) {
                return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
            });
            line.Add(state, StateStyle(status.state));
            if (status.savePercent) {
                char percent[32];
                std::snprintf(percent, sizeof percent, " %3.0f %%",
                              std::floor(*status.savePercent));
                line.Add(percent);
            }
        } else if (row == 1) {
            line.Add(status.lostBuffers ? "BUFFERS LOST" : "nothing lost",
                     status.lostBuffers ? kRed : kDim);
            if (status.marks > 0) {
                line.Add("  marks " + std::to_string(status.marks));
            }
        } else if (status.diskSecondsLeft) {
            const double take = status.takeSecondsLeft.value_or(*status.diskSecondsLeft);
            const double save = status.saveSecondsLeft.value_or(*status.diskSecondsLeft);
            line.Add("room to record " + DiskTimeText(take) + ", to save " + DiskTimeText(save));
        }
        lines.push_back(line.Take());
    }
    if (!status.wave.empty()) {
        Line wave(terminal);
        wave.Add(WaveText(status.wave, terminal.columns, terminal.utf8), kGreen);
        lines.push_back(wave.Take());
    }
    // "12 [", "] peak -12.3  rms -12.3  CLIP" around the bar.
    constexpr std::size_t kAroundBar = 34;
    const std::size_t width =
        std::clamp(terminal.columns - kAroundBar, kNarrowestBar, kWidestMeter);
    for (std::size_t channel = 0; channel < status.levels.size(); ++channel) {
        Line line(terminal);
        const bool stereo = status.levels.size() == 2;
        std::string name = stereo ? (channel == 0 ? "L" : "R") : std::to_string(channel + 1);
        name.insert(0, status.levels.size() > 9 && name.size() < 2 ? 1 : 0, ' ');
        AddMeter(line, status.levels[channel], name, width);
        lines.push_back(line.Take());
    }
    if (!status.keys.empty()) {
        Line line(terminal);
        line.Add(status.keys, kDim);
        lines.push_back(line.Take());
    }
    return lines;
}

}  // namespace vorrel::cli
