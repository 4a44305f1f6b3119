#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

#include "store/StoreTestSupport.h"
#include "store/TemporaryData.h"
#include "support/FakeManager.h"
#include "support/FileBytes.h"
#include "support/FileSizeLimit.h"
#include "support/Property.h"
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
                return failures ? ReadCutOff(step) : Read(step, true);
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
        // A disk that is full at any byte, in the middle of an append and of a new file.
        const std::uint64_t fileLimit =
            failures && step.number[3] / 12 % 4 == 0 ? step.Between(2, 0, 240) : kNoLimit;
        const bool expected = block.empty() || model.Add(block, ranges, exists, fileLimit);

        std::optional<FileSizeLimit> full;
        if (fileLimit != kNoLimit) {
            full.emplace(fileLimit);
        }
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
        full.reset();
        if (result != (expected ? VrSuccess : VrErrorFailed)) {
            return "an add of " + std::to_string(bytes) + " bytes gives " + std::to_string(result);
        }
        std::vector<std::uint64_t> segments = model.Segments();
        std::sort(segments.begin(), segments.end());
        // Of a failed append a part may stand behind the segment's end, until the next writes over
        // it.
        partial = !block.empty() ? !expected : partial;
        if (!partial && FileSizes(directoryPath) != segments) {
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

    /// Reads while the files are cut off: what is not in memory may fail, and is there again later.
    std::optional<std::string> ReadCutOff(const Step& step) {
        std::vector<std::pair<std::string, Bytes>> files;
        for (const std::string& path : Files(directoryPath)) {
            files.emplace_back(path, ReadBytes(path));
            std::filesystem::resize_file(path, step.Between(2, 0, files.back().second.size()));
        }
        const std::uint64_t length = model.AvailableLength();
        const std::uint64_t from = step.Between(0, 0, length);
        const std::uint64_t to = step.Between(1, from, length);
        Bytes out;
        const VrError result = store.GetData(from, to, out, true);
        for (const auto& [path, bytes] : files) {
            // The same file, not a new one of its name.
            std::fstream(path, std::ios::in | std::ios::out | std::ios::binary)
                .write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
        }
        const auto expected = model.Available(from, to);
        if (!expected ? result != VrErrorInvalidParameter
                      : result != VrErrorFailed && (result != VrSuccess || out != *expected)) {
            return "a read of files that are cut off gives " + std::to_string(result);
        }
        return Compare(from, to, true, false);
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
        partial = false;
        if (store.Init(memorySize) != VrSuccess || !Files(directoryPath).empty()) {
            return "a new beginning keeps something";
        }
        return Lengths();
    }

    static constexpr std::uint64_t kNoLimit = ~std::uint64_t{0};

    const bool failures;
    bool partial = false;
    const std::string directoryPath;
    std::uint32_t memorySize;
    const std::uint64_t segmentBytes;
    std::uint64_t added = 0;
    FakeManager manager;
    TemporaryDataModel model;
    TemporaryData store;
};

TEST(ChannelStorePropertyTest, AnswersAsTheModelDoes) {
    CheckProperty(60, 300, 10, ReplayOf<StoreRun>(false));
}

TEST(ChannelStorePropertyTest, AnswersAsTheModelDoesWhileSpillsFailAndHeal) {
    CheckProperty(60, 300, 10, ReplayOf<StoreRun>(true));
}

}  // namespace
}  // namespace vorrel::test
