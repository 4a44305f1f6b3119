#include "TimeRange.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include "ExitCode.h"

namespace vorrel::cli {
namespace {

// Far above any recording, and small enough that seconds x rate is exact to the frame.
constexpr double kLongestSeconds = 10'000'000.0;
constexpr int kMostFields = 3;  // hours, minutes, seconds

/// Digits with at most one point among them: no sign, no exponent, no "nan".
std::optional<double> ParseDigits(std::string_view text, bool pointAllowed) {
    bool digit = false;
    bool point = false;
    for (const char c : text) {
        if (c >= '0' && c <= '9') {
            digit = true;
        } else if (c == '.' && pointAllowed && !point) {
            point = true;
        } else {
            return std::nullopt;
        }
    }
    if (!digit) {
        return std::nullopt;
    }
    double value = 0.0;
    // Digits alone are always a number, one past every limit perhaps.
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc::result_out_of_range ? std::numeric_limits<double>::max() : value;
}

/// Any time, however long.
std::optional<double> ParseAnyTime(std::string_view text) {
    double seconds = 0.0;
    for (int field = 0;; ++field) {
        const std::size_t colon = text.find(':');
        const bool last = colon == std::string_view::npos;
        const std::optional<double> value = ParseDigits(text.substr(0, colon), last);
        // "1:75" is more likely a slip than 2:15.
        if (!value || field == kMostFields || (field > 0 && *value >= 60.0)) {
            return std::nullopt;
        }
        seconds = seconds * 60.0 + *value;
        if (last) {
            break;
        }
        text.remove_prefix(colon + 1);
    }
    return seconds;
}

}  // namespace

std::optional<double> ParseTime(std::string_view text) {
    const std::optional<double> seconds = ParseAnyTime(text);
    return seconds && *seconds > kLongestSeconds ? std::nullopt : seconds;
}

std::string TimeRefusal(std::string_view text) {
    return ParseAnyTime(text) ? "is too long: no more than 2777 hours"
                              : "is no time (seconds, or 1:30.5)";
}

Range ParseRange(std::string_view text) {
    const auto refuse = [text](const std::string& why) {
        return Failure(ExitCode::Usage, "--range \"" + std::string(text) + "\": " + why);
    };
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
        throw refuse("expected START-END=FILE, for example 1:30-2:45.5=song.wav");
    }
    const std::string_view span = text.substr(0, equals);
    const std::size_t dash = span.find('-');
    if (dash == std::string_view::npos) {
        throw refuse("expected START-END=FILE, for example 1:30-2:45.5=song.wav");
    }
    const std::string_view startText = span.substr(0, dash);
    const std::string_view endText = span.substr(dash + 1);

    const std::optional<double> start = ParseTime(startText);
    if (!start) {
        throw refuse("\"" + std::string(startText) + "\" " + TimeRefusal(startText));
    }
    Range range;
    range.start = *start;
    if (!endText.empty()) {
        range.end = ParseTime(endText);
        if (!range.end) {
            throw refuse("\"" + std::string(endText) + "\" " + TimeRefusal(endText));
        }
        if (*range.end == range.start) {
            throw refuse("it is empty, it ends where it begins");
        }
        if (*range.end < range.start) {
            throw refuse("it ends before it has begun");
        }
    }
    range.file = text.substr(equals + 1);
    if (range.file.empty()) {
        throw refuse("the file's name is missing");
    }
    return range;
}

double SecondsOfFrame(std::uint64_t frame, std::uint64_t rateHz) {
    return frame == 0 ? 0.0 : (static_cast<double>(frame) + 0.5) / static_cast<double>(rateHz);
}

std::string ClockText(double seconds) {
    const auto tenths = static_cast<std::uint64_t>(std::floor(seconds * 10.0 + 1e-6));
    const std::uint64_t whole = tenths / 10;
    char text[48];
    if (whole >= 3600) {
        std::snprintf(text, sizeof text, "%llu:%02u:%02u.%u",
                      static_cast<unsigned long long>(whole / 3600),
                      static_cast<unsigned>(whole / 60 % 60), static_cast<unsigned>(whole % 60),
                      static_cast<unsigned>(tenths % 10));
    } else {
        std::snprintf(text, sizeof text, "%02u:%02u.%u", static_cast<unsigned>(whole / 60),
                      static_cast<unsigned>(whole % 60), static_cast<unsigned>(tenths % 10));
    }
    return text;
}

}  // namespace vorrel::cli
