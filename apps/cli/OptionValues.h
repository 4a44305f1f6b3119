#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vorrel::cli {

/// Readers of what stands behind an option. Each throws a Failure (usage) that names the option,
/// quotes the text and says what is wrong with it.

/// A length of time above zero, as `ParseTime` has it. Seconds.
double RequireLength(const std::string& option, const std::string& text);
/// Digits that make a number above zero.
std::uint64_t RequireRate(const std::string& text);
std::uint32_t RequireBits(const std::string& text);
/// Decibels, -200 to 200.
double RequireGain(const std::string& text);
/// Times with commas between them, each above zero and above the one before it. Seconds.
std::vector<double> RequireSplits(const std::string& text);
/// "KEY=VALUE" as the engine's key and the value. The keys are those of the files' tags.
std::pair<std::string, std::string> RequireTag(const std::string& text);
/// A moment to come on this machine's clock: "20:15", "20:15:30" (today, else tomorrow), or with
/// the date before it, "2026-11-21 20:15" ("T" does for the blank).
/// @param now  The present.
std::time_t RequireMoment(const std::string& text, std::time_t now);

/// Whether a text is UTF-8 throughout: nothing overlong, no half of a surrogate pair.
bool IsUtf8(const std::string& text);

/// What a file's name ends in, in lower case, with its dot; "" without one.
std::string EndingOf(const std::string& file);
/// Refuses a file whose name says another format than the one it will have.
void CheckEnding(const std::string& file, bool dsd);

}  // namespace vorrel::cli
