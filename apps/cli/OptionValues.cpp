#include "OptionValues.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string_view>

#include "ExitCode.h"
#include "TimeRange.h"

namespace vorrel::cli {
namespace {

constexpr double kMostGain = 200.0;  // decibels; beyond any use and far inside the number range

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// A number of exactly so many digits in front of `text`, which loses it.
std::optional<int> TakeDigits(std::string_view& text, std::size_t count) {
    if (text.size() < count) {
        return std::nullopt;
    }
    int value = 0;
    for (const char c : text.substr(0, count)) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
    }
    text.remove_prefix(count);
    return value;
}

bool TakeMark(std::string_view& text, std::string_view marks) {
    if (text.empty() || marks.find(text.front()) == std::string_view::npos) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

/// "YYYY-MM-DD" in front of `text`, which loses it with the blank or "T" behind it.
bool TakeDate(std::string_view& text, std::tm& moment) {
    const std::optional<int> year = TakeDigits(text, 4);
    if (!year || !TakeMark(text, "-")) {
        return false;
    }
    const std::optional<int> month = TakeDigits(text, 2);
    if (!month || *month < 1 || *month > 12 || !TakeMark(text, "-")) {
        return false;
    }
    const std::optional<int> day = TakeDigits(text, 2);
    if (!day || *day < 1 || *day > 31 || !TakeMark(text, " T")) {
        return false;
    }
    moment.tm_year = *year - 1900;
    moment.tm_mon = *month - 1;
    moment.tm_mday = *day;
    return true;
}

/// "HH:MM" or "HH:MM:SS", all of `text`.
bool TakeClock(std::string_view text, std::tm& moment) {
    const std::size_t colon = text.find(':');
    if (colon != 1 && colon != 2) {
        return false;
    }
    const std::optional<int> hour = TakeDigits(text, colon);
    text.remove_prefix(1);
    const std::optional<int> minute = TakeDigits(text, 2);
    std::optional<int> second = 0;
    if (TakeMark(text, ":")) {
        second = TakeDigits(text, 2);
    }
    if (!hour || !minute || !second || !text.empty() || *hour > 23 || *minute > 59 ||
        *second > 59) {
        return false;
    }
    moment.tm_hour = *hour;
    moment.tm_min = *minute;
    moment.tm_sec = *second;
    return true;
}

}  // namespace

double RequireLength(const std::string& option, const std::string& text) {
    const std::optional<double> seconds = ParseTime(text);
    if (!seconds) {
        throw Failure(ExitCode::Usage, option + " \"" + text + "\" " + TimeRefusal(text));
    }
    if (*seconds <= 0.0) {
        throw Failure(ExitCode::Usage, option + " \"" + text + "\" is no length of time");
    }
    return *seconds;
}

std::uint64_t RequireRate(const std::string& text) {
    std::uint64_t rate = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), rate);
    if (result.ec == std::errc::result_out_of_range && result.ptr == text.data() + text.size()) {
        throw Failure(ExitCode::Usage, "--rate " + text + " is higher than any recorder's");
    }
    if (result.ec != std::errc{} || result.ptr != text.data() + text.size() || rate == 0) {
        throw Failure(ExitCode::Usage, "--rate \"" + text + "\" is no sampling rate in Hz");
    }
    return rate;
}

std::uint32_t RequireBits(const std::string& text) {
    for (const std::uint32_t bits : {16U, 24U, 32U}) {
        if (text == std::to_string(bits)) {
            return bits;
        }
    }
    throw Failure(ExitCode::Usage, "--bits \"" + text + "\" is no sample width: 16, 24 or 32");
}

double RequireGain(const std::string& text) {
    const char* const end = text.data() + text.size();
    const bool signedTwice = text.rfind("+-", 0) == 0;
    const char* const start = text.data() + (text.rfind('+', 0) == 0 ? 1 : 0);
    double gain = 0.0;
    const auto result = std::from_chars(start, end, gain);
    if (result.ec == std::errc::invalid_argument || result.ptr != end || std::isnan(gain) ||
        signedTwice) {
        throw Failure(ExitCode::Usage, "--gain \"" + text + "\" is no number of decibels");
    }
    if (result.ec != std::errc{}) {
        gain = std::strtod(start, nullptr);  // tells too large from too small
    }
    if (!(std::abs(gain) <= kMostGain)) {
        throw Failure(ExitCode::Usage, "--gain is to be between -200 and 200 decibels");
    }
    return gain;
}

bool IsUtf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = [&text](std::size_t index) {
            return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
        };
        const unsigned first = byte(i);
        const unsigned second = byte(i + 1);
        const std::size_t length = first < 0x80   ? 1
                                   : first < 0xC2 ? 0
                                   : first < 0xE0 ? 2
                                   : first < 0xF0 ? 3
                                   : first < 0xF5 ? 4
                                                  : 0;
        const bool badSecond = (first == 0xE0 && second < 0xA0) ||
                               (first == 0xED && second > 0x9F) ||
                               (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
        if (length == 0 || badSecond) {
            return false;
        }
        for (std::size_t next = 1; next < length; ++next) {
            if ((byte(i + next) & 0xC0U) != 0x80) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

std::vector<double> RequireSplits(const std::string& text) {
    std::vector<double> splits;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        splits.push_back(RequireLength("--split-at", text.substr(start, comma - start)));
        if (splits.size() > 1 && splits.back() <= splits[splits.size() - 2]) {
            throw Failure(ExitCode::Usage, "--split-at \"" + text +
                                               "\": every time is to be above the one before it");
        }
        start = comma + 1;
    }
    return splits;
}

std::pair<std::string, std::string> RequireTag(const std::string& text) {
    constexpr std::array<std::pair<const char*, const char*>, 4> kKeys = {{
        {"title", "Title"},
        {"artist", "Artist"},
        {"album", "Alubum"},  // the engine's spelling of the key
        {"album-artist", "AlbumArtist"},
    }};
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        throw Failure(ExitCode::Usage, "--tag \"" + text + "\": expected KEY=VALUE");
    }
    std::string key = Lower(text.substr(0, equals));
    key = key == "albumartist" ? "album-artist" : key;
    const auto found = std::find_if(kKeys.begin(), kKeys.end(),
                                    [&key](const auto& known) { return key == known.first; });
    if (found == kKeys.end()) {
        throw Failure(ExitCode::Usage, "--tag \"" + text +
                                           "\": the files have no such tag, but title, artist, "
                                           "album and album-artist");
    }
    return {found->second, text.substr(equals + 1)};
}

std::time_t RequireMoment(const std::string& text, std::time_t now) {
    const auto refuse = [&text](const std::string& why) {
        return Failure(ExitCode::Usage, "--start-at \"" + text + "\" " + why);
    };
    std::tm moment{};
    ::localtime_r(&now, &moment);
    const int today = moment.tm_mday;
    std::string_view rest = text;
    const bool dated = rest.size() > 4 && rest[4] == '-';
    if ((dated && !TakeDate(rest, moment)) || !TakeClock(rest, moment)) {
        throw refuse("is no time of day (20:15, 20:15:30, or 2026-11-21 20:15)");
    }
    moment.tm_isdst = -1;
    const int day = moment.tm_mday;
    std::tm normal = moment;
    std::time_t at = std::mktime(&normal);
    if (at == -1 || normal.tm_mday != day) {
        throw refuse("is no day of the calendar");
    }
    if (at <= now && !dated) {
        moment.tm_mday = today + 1;
        at = std::mktime(&moment);
    }
    if (at <= now) {
        throw refuse("is past");
    }
    return at;
}

std::string EndingOf(const std::string& file) {
    const std::size_t name = file.rfind('/') + 1;  // 0 without a "/"
    const std::size_t dot = file.find_last_of('.');
    return dot == std::string::npos || dot < name ? "" : Lower(file.substr(dot));
}

void CheckEnding(const std::string& file, bool dsd) {
    const std::string ending = EndingOf(file);
    for (const char* other : {".wav", ".wave", ".dsf", ".dff", ".wv", ".w64", ".rf64", ".flac",
                              ".aif", ".aiff", ".caf", ".mp3", ".ogg", ".opus", ".m4a", ".raw"}) {
        const bool fits = dsd ? ending == ".dsf" : ending == ".wav" || ending == ".wave";
        if (ending == other && !fits) {
            throw Failure(ExitCode::Usage,
                          file + (dsd ? ": a DSD recording becomes a DSF file; call it *.dsf, or "
                                        "record with --type pcm"
                                      : ": a PCM recording becomes a WAV file; call it *.wav, or "
                                        "record with --type dsd"));
        }
    }
}

}  // namespace vorrel::cli
