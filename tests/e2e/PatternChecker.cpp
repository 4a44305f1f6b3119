#include "PatternChecker.h"

#include <utility>

namespace vorrel::e2e {

void PatternChecker::Add(const Frame& frame) {
    const std::uint64_t number = pattern.NumberOf(frame);
    const bool isPattern = pattern.At(number) == frame;
    if (report.frames == 0) {
        report.firstNumber = number;
        next = number;
    }
    ++report.frames;

    const std::optional<std::uint64_t> jump = std::exchange(afterJump, std::nullopt);
    if (isPattern && number == next) {
        ++next;
        return;
    }
    if (isPattern && jump && number == *jump) {
        // Two frames in a row from another place: the first of them was no wrong one.
        --report.wrong;
        const std::uint64_t due = next - 1;
        const std::uint64_t came = number - 1;
        if (came > due) {
            ++report.gaps;
            report.missing += came - due;
        } else {
            ++report.repeats;
            report.repeated += due - came;
        }
        next = number + 1;
        return;
    }
    ++report.wrong;
    if (pattern.At(next) == Frame{frame[1], frame[0]}) {
        ++report.swapped;
    }
    if (isPattern) {
        afterJump = number + 1;
    }
    ++next;
}

}  // namespace vorrel::e2e
