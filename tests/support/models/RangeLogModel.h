#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace vorrel::test {

/// A range log that is asked frame by frame. Positions of events never go back.
class RangeLogModel {
public:
    void Event(std::uint64_t position, int event) {
        const bool recording = isOpen;
        if (event == 0) {
            ranges = {{position, position}};
            isOpen = true;
        } else if ((event == 1 || event == 3) && recording) {
            ranges.back().second = position;
            isOpen = false;
        } else if (event == 2 && !recording) {
            ranges.emplace_back(position, position);
            isOpen = true;
        }
    }
    void Reset() {
        ranges.clear();
        isOpen = false;
    }
    /// Whether the frame counts as recorded. A range of no frames goes on without an end.
    bool Holds(std::uint64_t frame) const {
        for (const auto& [first, second] : ranges) {
            if (first == second ? frame >= first : frame >= first && frame < second) {
                return true;
            }
        }
        return false;
    }
    /// How many of the frames [from, to) count as recorded.
    std::uint64_t Count(std::uint64_t from, std::uint64_t to) const {
        std::uint64_t count = 0;
        for (std::uint64_t frame = from; frame < to; ++frame) {
            count += Holds(frame) ? 1U : 0U;
        }
        return count;
    }
    /// Whether the last of them goes on behind the end of the span [from, to).
    bool IsOpenWithin(std::uint64_t from, std::uint64_t to) const {
        for (const auto& [first, second] : ranges) {
            if (first == second && first < to && from < to) {
                return true;
            }
        }
        return false;
    }

private:
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
    bool isOpen = false;
};

}  // namespace vorrel::test
