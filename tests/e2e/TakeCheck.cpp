// Compares a saved take, frame by frame, with what the recorder played.
//   take-check FILE RATE-HZ SECONDS
// One line of counts on stdout. Exit code 0: the file has that rate, at least that length, begins
// within the first quarter of a second of what the recorder played, and has no gap, repeat or wrong
// sample.
#include <cstdio>
#include <optional>
#include <string>

#include "PatternChecker.h"
#include "TakeFile.h"

namespace {

/// A take begins with a device buffer, of 50 ms; the recorder may play some before it does.
constexpr double kLatestBeginSeconds = 0.25;

}  // namespace

int main(int count, char** arguments) {
    using namespace vorrel::e2e;
    if (count != 4) {
        std::fputs("take-check FILE RATE-HZ SECONDS\n", stderr);
        return 2;
    }
    const auto rateHz = static_cast<std::uint32_t>(std::stoul(arguments[2]));
    const double seconds = std::stod(arguments[3]);
    const std::optional<TakeFile> take = ReadTake(arguments[1]);
    if (!take) {
        std::printf("%s: no take\n", arguments[1]);
        return 1;
    }

    PatternChecker checker(Pattern(take->mode, take->patternBits));
    for (const Frame& frame : take->frames) {
        checker.Add(frame);
    }

    const PatternChecker::Report& report = checker.Result();
    const double wordRateHz = take->mode == StreamMode::Dsd ? take->rateHz / 16.0 : take->rateHz;
    const double length = static_cast<double>(report.frames) / wordRateHz;
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    std::printf(
        "rate=%u bits=%u seconds=%.3f frames=%llu first=%llu gaps=%llu missing=%llu "
        "repeats=%llu repeated=%llu wrong=%llu swapped=%llu\n",
        take->rateHz, take->bits, length, number(report.frames), number(report.firstNumber),
        number(report.gaps), number(report.missing), number(report.repeats),
        number(report.repeated), number(report.wrong), number(report.swapped));
    const bool fromTheBeginning =
        static_cast<double>(report.firstNumber) <= kLatestBeginSeconds * wordRateHz;
    return report.IsClean() && fromTheBeginning && take->rateHz == rateHz && length >= seconds ? 0
                                                                                               : 1;
}
