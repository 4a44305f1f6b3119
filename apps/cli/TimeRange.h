#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorrel::cli {

/// A stretch of the recording that becomes a file of its own.
struct Range {
    double start = 0.0;         ///< Seconds of the recording, pauses cut out.
    std::optional<double> end;  ///< Same scale, above `start`; none = to the end of the recording.
    std::string file;           ///< As given.
};

/// Reads a time as people write it: "90", "90.25", "1:30", "1:30.5", "1:02:03".
/// @return Seconds; none for anything else, negative times and times above 10,000,000 s included.
std::optional<double> ParseTime(std::string_view text);

/// Why `ParseTime` refuses a text: "is no time (seconds, or 1:30.5)", "is too long".
std::string TimeRefusal(std::string_view text);

/// Reads START-END=FILE; an empty END means the end of the recording. The file's name may contain
/// further "=" and "-".
/// @throws Failure (usage) that quotes the text and says what is wrong with it.
Range ParseRange(std::string_view text);

/// Seconds that the engine, which multiplies by the rate and cuts off, turns into exactly `frame`:
/// the middle of the frame, so that no rounding can reach a neighbour.
double SecondsOfFrame(std::uint64_t frame, std::uint64_t rateHz);

/// "02:03.4", with hours in front from one hour on.
std::string ClockText(double seconds);

}  // namespace vorrel::cli
