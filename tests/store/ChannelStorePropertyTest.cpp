#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "store/StoreTestSupport.h"
#include "store/TemporaryData.h"
#include "support/FakeManager.h"
#include "support/Property.h"
#include "support/TempDirectory.h"
#include "support/models/TemporaryDataModel.h"

namespace vorrel::test {
namespace {

/// A store beside its model, driven by the same steps.
class StoreRun {
public:
    StoreRun(const Step& sizes, bool withFailures, const std::string& directory)
        : failures(withFailures),
          directoryPath(directory),
          memorySize(static_cast<std::uint32_t>(sizes.Between(0, 1, 40))),
          segmentBytes(sizes.Between(1, 1, 200)),
          manager(directory),
          model(memorySize, segmentBytes),
          store(manager, segmentBytes) {
        std::ignore = store.Init(memorySize);
    }

    std::optional<std::string> Do(const Step& step) {
        switch (step.kind) {
            case 0:
            case 1:
            case 2:
            case 3:
                return Add(step);
            case 4:
            case 5:
                return Read(step, false);
            case 6:
            case 7:
                return Read(step, true);
            case 8:
                Move(step);
                return Lengths();
            default:
                return step.Between(0, 0, 15) == 0 ? Begin(step) : Read(step, true);
        }
    }

    /// All that was recorded, in one piece.
    std::optional<std::string> All() { return Compare(0, model.AvailableLength(), true, false); }

private:
    static Ranges RangesOf(const Step& step, std::uint64_t start, std::uint64_t end) {
        const std::uint64_t inside = step.Between(2, start, end);
        switch (step.Between(1, 0, 7)) {
            case 0:
                return {};
            case 1:
            case 2:
                return {{start, start}};
            case 3:
                return {{start, end}};
            case 4:
                return {{inside, inside}};
            case 5:
                return {{start, inside}, {inside + 1, inside + 2 + (end - inside) / 2}};
            case 6:
                return {{start, inside}, {end + 1, end}};
            default:
                return {{inside + 1, inside}, {start, start}};  // malformed: nothing counts
        }
    }

    std::optional<std::string> Add(const Step& step) {
        const bool exists = !failures || step.Between(3, 0, 2) != 0;
        manager.tempDirectoryExists = exists;
        std::uint64_t bytes = step.Between(0, 0, step.number[3] % 4 == 0 ? 150 : 20);
        const bool asSamples = step.number[3] / 4 % 3 == 0;
        bytes -= asSamples ? bytes % 2 : 0;
        // No two bytes in a row are alike, nor those a buffer apart.
        Bytes block(bytes);
        for (std::uint8_t& byte : block) {
            byte = PatternByte(added += 7);
        }
        const std::uint64_t start = model.RawLength();
        const Ranges ranges = RangesOf(step, start, start + bytes);
        const bool expected = block.empty() || model.Add(block, ranges, exists);

        VrError result = VrSuccess;
        if (asSamples) {
            std::vector<std::int16_t> samples(bytes / 2);
            if (bytes > 0) {
                std::memcpy(samples.data(), block.data(), bytes);
            }
            result = store.Add(samples, ranges);
        } else {
            result = store.Add(block, ranges);
        }
        if (result != (expected ? VrSuccess : VrErrorFailed)) {
            return "an add of " + std::to_string(bytes) + " bytes gives " + std::to_string(result);
        }
        std::vector<std::uint64_t> segments = model.Segments();
        std::sort(segments.begin(), segments.end());
        if (FileSizes(directoryPath) != segments) {
            return "segments " + ::testing::PrintToString(FileSizes(directoryPath)) +
                   " instead of " + ::testing::PrintToString(segments);
        }
        return Lengths();
    }

    std::optional<std::string> Lengths() {
        if (store.GetLength(false) != model.RawLength() ||
            store.GetLength(true) != model.AvailableLength()) {
            return "lengths " + std::to_string(store.GetLength(false)) + " and " +
                   std::to_string(store.GetLength(true));
        }
        return std::nullopt;
    }

    std::optional<std::string> Read(const Step& step, bool available) {
        const std::uint64_t length = available ? model.AvailableLength() : model.RawLength();
        // Mostly near the end, where the buffers are; sometimes inverted or past it.
        const std::uint64_t least =
            step.number[2] % 2 == 0 && length > 2 * memorySize ? length - 2 * memorySize : 0;
        return Compare(step.Between(0, least, length), step.Between(1, least, length + 2),
                       available, step.number[3] % 3 == 0);
    }

    std::optional<std::string> Compare(std::uint64_t from, std::uint64_t to, bool available,
                                       bool asSamples) {
        const auto expected = available ? model.Available(from, to) : model.Raw(from, to);
        VrError result = VrSuccess;
        Bytes out;
        if (asSamples) {
            std::vector<std::int16_t> samples;
            result = store.GetData(from, to, samples, available);
            out.resize(samples.size() * 2);
            if (!out.empty()) {
                std::memcpy(out.data(), samples.data(), out.size());
            }
        } else {
            result = store.GetData(from, to, out, available);
        }
        const std::string what = std::string(available ? "available" : "raw") + " bytes " +
                                 std::to_string(from) + " to " + std::to_string(to);
        if (result != (expected ? VrSuccess : VrErrorInvalidParameter)) {
            return what + " give " + std::to_string(result);
        }
        if (expected) {
            Bytes whole = *expected;
            whole.resize(asSamples ? whole.size() / 2 * 2 : whole.size());
            if (out != whole) {
                return what + " are not those that were added";
            }
        }
        return std::nullopt;
    }

    void Move(const Step& step) {
        if (step.number[0] % 2 == 0) {
            TemporaryData elsewhere(std::move(store));
            store = std::move(elsewhere);
            return;
        }
        // Into one that holds something, which goes, with its files.
        TemporaryData other(manager, segmentBytes);
        manager.tempDirectoryExists = true;
        std::ignore = other.Init(3);
        std::ignore = other.Add(Bytes(10, 1), kAll);
        other = std::move(store);
        store = std::move(other);
    }

    std::optional<std::string> Begin(const Step& step) {
        memorySize = static_cast<std::uint32_t>(step.Between(1, 1, 40));
        model = TemporaryDataModel(memorySize, segmentBytes);
        if (store.Init(memorySize) != VrSuccess || !Files(directoryPath).empty()) {
            return "a new beginning keeps something";
        }
        return Lengths();
    }

    const bool failures;
    const std::string directoryPath;
    std::uint32_t memorySize;
    const std::uint64_t segmentBytes;
    std::uint64_t added = 0;
    FakeManager manager;
    TemporaryDataModel model;
    TemporaryData store;
};

Replay ReplayStore(bool withFailures) {
    return [withFailures](const Steps& steps) -> std::optional<std::string> {
        const TempDirectory directory;
        if (steps.empty()) {
            return std::nullopt;
        }
        StoreRun run(steps.front(), withFailures, directory.Path());
        for (std::size_t index = 1; index < steps.size(); ++index) {
            if (const auto wrong = run.Do(steps[index])) {
                return "step " + std::to_string(index) + ": " + *wrong;
            }
        }
        return run.All();
    };
}

TEST(ChannelStorePropertyTest, AnswersAsTheModelDoes) {
    CheckProperty(60, 300, 10, ReplayStore(false));
}

TEST(ChannelStorePropertyTest, AnswersAsTheModelDoesWhileSpillsFailAndHeal) {
    CheckProperty(60, 300, 10, ReplayStore(true));
}

}  // namespace
}  // namespace vorrel::test
