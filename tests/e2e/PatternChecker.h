#pragma once

#include <cstdint>
#include <optional>

#include "Pattern.h"

namespace vorrel::e2e {

/// Compares frames, one by one, with what the recorder played.
class PatternChecker {
public:
    struct Report {
        std::uint64_t frames = 0;       ///< compared
        std::uint64_t firstNumber = 0;  ///< of the first frame; the recorder's count
        std::uint64_t gaps = 0;         ///< places where frames are missing
        std::uint64_t missing = 0;      ///< frames that are missing there
        std::uint64_t repeats = 0;      ///< places where the stream goes back
        std::uint64_t repeated = 0;     ///< frames it goes back there
        std::uint64_t wrong = 0;        ///< frames that belong nowhere near
        std::uint64_t swapped = 0;      ///< of the wrong: the channels have changed places

        bool IsClean() const { return gaps == 0 && repeats == 0 && wrong == 0; }
    };

    explicit PatternChecker(const Pattern& played) : pattern(played) {}

    void Add(const Frame& frame);

    const Report& Result() const { return report; }

private:
    Pattern pattern;
    Report report;
    std::uint64_t next = 0;  // number that the next frame should have
    /// Number that the next frame has if the one before it began a jump and was not just wrong.
    std::optional<std::uint64_t> afterJump;
};

}  // namespace vorrel::e2e
