// Any sequence of record events and queries, against a log that keeps a flag for every frame.
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "Input.h"
#include "Require.h"
#include "store/RecordRangeManager.h"

namespace {

using vorrel::PositionRange;
using vorrel::fuzz::Input;
using vorrel::fuzz::Require;

constexpr std::uint64_t kFrames = 4'096;

/// What counts as recorded, frame by frame, for events in order of position.
class PlainLog {
public:
    void Event(std::uint64_t position, int event) {
        if (event == 0) {
            Reset();
            openSince = position;
        } else if ((event == 1 || event == 3) && openSince.has_value()) {
            if (*openSince == position && !endless.has_value()) {
                endless = position;  // reads as open from now on, and so for good
            }
            for (std::uint64_t frame = *openSince; frame < position; ++frame) {
                recorded[frame] = true;
            }
            openSince.reset();
        } else if (event == 2 && !openSince.has_value()) {
            openSince = position;
        }
    }
    void Reset() {
        recorded.assign(kFrames, false);
        openSince.reset();
        endless.reset();
    }
    bool Holds(std::uint64_t frame) const {
        return (openSince.has_value() && frame >= *openSince) ||
               (endless.has_value() && frame >= *endless) || recorded[frame];
    }

private:
    std::vector<bool> recorded = std::vector<bool>(kFrames, false);
    std::optional<std::uint64_t> openSince;
    std::optional<std::uint64_t> endless;
};

void Compare(const PlainLog& plain, const std::vector<PositionRange>& ranges, std::uint64_t start,
             std::uint64_t end, std::uint64_t unit) {
    std::vector<bool> told(kFrames, false);
    std::uint64_t before = start;
    for (std::size_t n = 0; n < ranges.size(); ++n) {
        const auto [first, second] = ranges[n];
        Require(first % unit == 0 && second % unit == 0);
        Require(first != second || n + 1 == ranges.size());  // an open range is the last
        const std::uint64_t from = first / unit;
        const std::uint64_t to = first == second ? end : second / unit;
        Require(before <= from && from < to && to <= end);
        before = to;
        for (std::uint64_t frame = from; frame < to; ++frame) {
            told[frame] = true;
        }
    }
    for (std::uint64_t frame = start; frame < end; ++frame) {
        Require(told[frame] == plain.Holds(frame));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    vorrel::RecordRangeManager log;
    PlainLog plain;
    std::uint64_t position = 0;
    while (!input.Ended()) {
        const std::uint64_t choice = input.Below(8);
        if (choice < 5) {
            position += input.Below(16);
            if (position >= kFrames) {
                break;
            }
            const int event = choice < 4 ? static_cast<int>(choice) : int{input.Byte()} - 128;
            log.AddRecordEvent(position, event);
            plain.Event(position, event);
        } else if (choice < 7) {
            const std::uint64_t start = input.Below(256) * 16 % kFrames + input.Below(16);
            const std::uint64_t end = start + input.Below(256);
            if (end > kFrames) {
                continue;
            }
            if (choice == 5) {
                Compare(plain, log.GetAvailableRange_Frames(start, end), start, end, 1);
            } else {
                const auto unit = static_cast<std::uint32_t>(1 + input.Below(8));
                const std::uint64_t odd = input.Below(unit);
                Compare(plain,
                        log.GetAvailableRange_Bytes(start * unit + odd, end * unit + odd, unit),
                        start, end, unit);
            }
        } else {
            Require(log.Reset());
            plain.Reset();
        }
    }
    Require(log.GetAvailableRange_Bytes(0, kFrames, 0).empty());
    return 0;
}
