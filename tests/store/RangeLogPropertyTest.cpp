#include <gtest/gtest.h>

#include "store/RecordRangeManager.h"
#include "support/Property.h"
#include "support/models/RangeLogModel.h"

namespace vorrel::test {
namespace {

/// Compares one answer, frame by frame.
std::optional<std::string> CompareSpan(RecordRangeManager& log, const RangeLogModel& model,
                                       std::uint64_t from, std::uint64_t to) {
    const std::vector<PositionRange> found = log.GetAvailableRange_Frames(from, to);
    const std::string span = "frames " + std::to_string(from) + " to " + std::to_string(to) + ": ";
    std::uint64_t behind = from;
    std::vector<bool> held(to > from ? to - from : 0);
    for (std::size_t index = 0; index < found.size(); ++index) {
        const auto& [first, second] = found[index];
        const bool isOpen = first == second;
        if (first < behind || second < first || first >= to || second > to ||
            (isOpen && index + 1 != found.size())) {
            return span + "a part outside the span or out of order";
        }
        behind = isOpen ? to : second;
        for (std::uint64_t frame = first; frame < behind; ++frame) {
            held[frame - from] = true;
        }
    }
    for (std::uint64_t frame = from; frame < to; ++frame) {
        if (held[frame - from] != model.Holds(frame)) {
            return span + "frame " + std::to_string(frame) + " is " +
                   (held[frame - from] ? "held" : "not held");
        }
    }
    if (model.IsOpenWithin(from, to) !=
        (!found.empty() && found.back().first == found.back().second)) {
        return span + "the end is not as open as it should be";
    }
    return std::nullopt;
}

std::optional<std::string> ReplayLog(const Steps& steps) {
    RecordRangeManager log;
    RangeLogModel model;
    std::uint64_t now = 0;
    for (const Step& step : steps) {
        if (step.kind < 6) {
            // Often at the very frame of the event before.
            now += step.Between(1, 0, 3) == 0 ? 0 : step.Between(2, 0, 30);
            const int event = static_cast<int>(step.Between(0, 0, 5)) - 1;  // two are no events
            log.AddRecordEvent(now, event);
            model.Event(now, event);
        } else if (step.kind == 6 && step.Between(0, 0, 9) == 0) {
            if (!log.Reset()) {
                return "a reset that fails";
            }
            model.Reset();
        } else {
            const std::uint64_t from = step.Between(0, 0, now + 20);
            const std::uint64_t to = step.Between(1, 0, now + 40);
            if (auto wrong = CompareSpan(log, model, from, to)) {
                return wrong;
            }
            const auto size = static_cast<std::uint32_t>(step.Between(2, 0, 4));
            const std::vector<PositionRange> bytes = log.GetAvailableRange_Bytes(from, to, size);
            std::vector<PositionRange> scaled;
            if (size != 0) {
                scaled = log.GetAvailableRange_Frames(from / size, to / size);
            }
            for (auto& [first, second] : scaled) {
                first *= size;
                second *= size;
            }
            if (bytes != scaled) {
                return "bytes of frames of " + std::to_string(size);
            }
        }
    }
    return std::nullopt;
}

TEST(RangeLogPropertyTest, HoldsTheFramesThatTheModelHolds) {
    CheckProperty(400, 200, 10, &ReplayLog);
}

TEST(PropertyTest, AFailingSequenceIsShrunkToTheStepsThatItFailsBy) {
    const Replay needsTwo = [](const Steps& steps) -> std::optional<std::string> {
        std::size_t seven = 0;
        while (seven < steps.size() && steps[seven].kind != 7) {
            ++seven;
        }
        for (std::size_t later = seven + 1; later < steps.size(); ++later) {
            if (steps[later].kind == 3) {
                return "a 3 behind a 7";
            }
        }
        return std::nullopt;
    };

    const Steps shortest = Shrunk(RandomSteps(1, 500, 10), needsTwo);

    ASSERT_EQ(shortest.size(), 2U);
    EXPECT_EQ(shortest[0].kind, 7U);
    EXPECT_EQ(shortest[1].kind, 3U);
}

}  // namespace
}  // namespace vorrel::test
