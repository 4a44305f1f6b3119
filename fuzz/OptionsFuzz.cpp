// Command lines of any words, one a line: understood within the limits that the help states, or
// refused in one line.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ExitCode.h"
#include "Input.h"
#include "Options.h"
#include "Require.h"

namespace {

using vorrel::cli::Command;
using vorrel::cli::Options;
using vorrel::cli::Range;
using vorrel::fuzz::Require;

constexpr double kLongest = 10'000'000.0;  // seconds

/// Whether a text is UTF-8, decoded character by character.
bool DecodesAsUtf8(const std::string& text) {
    constexpr std::uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
    for (std::size_t at = 0; at < text.size();) {
        const auto first = static_cast<unsigned char>(text[at]);
        if ((first >= 0x80 && first < 0xC0) || first >= 0xF8) {
            return false;
        }
        const std::size_t more = first < 0x80 ? 0 : first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
        if (text.size() - at <= more) {
            return false;
        }
        std::uint32_t character = more == 0 ? first : first & (0x3FU >> more);
        for (std::size_t n = 1; n <= more; ++n) {
            const auto byte = static_cast<unsigned char>(text[at + n]);
            if (byte >> 6U != 2) {
                return false;
            }
            character = character << 6U | (byte & 0x3FU);
        }
        if (character < kLeast[more] || character > 0x10FFFF ||
            (character >= 0xD800 && character < 0xE000)) {
            return false;
        }
        at += more + 1;
    }
    return true;
}

bool Given(const std::vector<std::string>& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

void RequireSound(const Options& options, const std::vector<std::string>& words) {
    if (options.command == Command::None) {
        Require(!options.text.empty());
        return;
    }
    if (options.command != Command::Record) {
        return;
    }
    Require(Given(words, "record"));
    const auto& record = options.record;
    Require(!record.out.empty() || !record.ranges.empty());
    Require(record.bits == 16 || record.bits == 24 || record.bits == 32);
    Require(!record.rateHz || *record.rateHz > 0);
    Require(!record.duration || (*record.duration > 0 && *record.duration <= kLongest));
    Require(std::abs(record.gain) <= 200.0);
    Require(!record.force || Given(words, "--force"));
    for (const auto& [key, value] : record.tags) {
        Require(key == "Title" || key == "Artist" || key == "Alubum" || key == "AlbumArtist");
        Require(!value.empty() && DecodesAsUtf8(value));
    }
    for (const Range& range : record.ranges) {
        Require(range.start >= 0 && range.start <= kLongest && !range.file.empty());
        Require(!range.end || (*range.end > range.start && *range.end <= kLongest));
        Require(!record.duration || range.start < *record.duration);
        Require(!record.duration || !range.end || *range.end <= *record.duration);
    }
}

/// A time put together of its parts is read as the number that it stands for.
void RequireTimesAreRead(vorrel::fuzz::Input& input) {
    constexpr const char* kFractions[] = {"", ".25", ".5", ".75"};
    const std::uint64_t hours = input.Below(100);
    const std::uint64_t minutes = input.Below(60);
    const std::uint64_t seconds = input.Below(60);
    const std::uint64_t quarters = input.Below(4);
    const auto two = [](std::uint64_t value) {
        return (value < 10 ? "0" : "") + std::to_string(value);
    };
    const std::string text =
        std::to_string(hours) + ":" + two(minutes) + ":" + two(seconds) + kFractions[quarters];
    const double expected =
        static_cast<double>(((hours * 60 + minutes) * 60 + seconds) * 4 + quarters) / 4;
    Require(vorrel::cli::ParseTime(text) == expected);
    const Range range = vorrel::cli::ParseRange(text + "-=a-b=c");
    Require(range.start == expected && !range.end && range.file == "a-b=c");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vorrel::fuzz::Input times(data, size);
    RequireTimesAreRead(times);
    vorrel::fuzz::Input input(data, size);
    std::vector<std::string> words;
    while (!input.Ended()) {
        std::string word = input.Until('\n');
        // No command line holds a zero byte.
        word.erase(std::remove(word.begin(), word.end(), '\0'), word.end());
        words.push_back(std::move(word));
    }
    try {
        RequireSound(vorrel::cli::ParseOptions(words), words);
    } catch (const vorrel::cli::Failure& failure) {
        Require(failure.exit == vorrel::cli::ExitCode::Usage && *failure.what() != '\0');
    }
    return 0;
}
