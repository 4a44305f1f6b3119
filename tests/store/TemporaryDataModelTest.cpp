#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>

#include "store/StoreTestSupport.h"
#include "store/TemporaryData.h"
#include "support/FakeManager.h"
#include "support/TempDirectory.h"
#include "support/models/TemporaryDataModel.h"

namespace vorrel::test {
namespace {

/// Drives a store and the model with the same random calls and compares every answer.
class ModelRun {
public:
    ModelRun(std::uint32_t seed, bool withFailures)
        : random(seed),
          failures(withFailures),
          memorySize(static_cast<std::uint32_t>(Between(1, 40))),
          segmentBytes(Between(1, 200)),
          model(memorySize, segmentBytes),
          store(manager, segmentBytes) {}

    void Run() {
        ASSERT_EQ(store.Init(memorySize), VrSuccess);
        for (int step = 0; step < 300; ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            switch (Between(0, 9)) {
                case 0:
                case 1:
                case 2:
                case 3:
                    Add();
                    break;
                case 4:
                case 5:
                    ReadRaw();
                    break;
                case 6:
                case 7:
                case 8:
                    ReadAvailable();
                    break;
                default:
                    Move();
                    break;
            }
            ASSERT_FALSE(::testing::Test::HasFailure());
        }
        Compare(0, model.AvailableLength());
    }

private:
    std::uint64_t Between(std::uint64_t least, std::uint64_t most) {
        return std::uniform_int_distribution<std::uint64_t>(least, most)(random);
    }

    Ranges RandomRanges(std::uint64_t start, std::uint64_t end) {
        switch (Between(0, 6)) {
            case 0:
                return {};
            case 1:
            case 2:
                return {{start, start}};
            case 3:
                return {{start, end}};
            case 4: {
                const std::uint64_t open = Between(start, end);
                return {{open, open}};
            }
            case 5: {
                const std::uint64_t first = Between(start, end);
                return {{start, first}, {first + 1, Between(first + 2, end + 4)}};
            }
            default:
                return {{start, Between(start, end)}, {end + 1, end}};
        }
    }

    void Add() {
        const bool exists = !failures || Between(0, 2) != 0;
        manager.tempDirectoryExists = exists;
        Bytes block(Between(0, Between(0, 3) == 0 ? 150 : 20));
        for (std::uint8_t& byte : block) {
            byte = static_cast<std::uint8_t>(Between(0, 255));
        }
        const Ranges ranges = RandomRanges(model.RawLength(), model.RawLength() + block.size());

        const bool expected = block.empty() || model.Add(block, ranges, exists);

        ASSERT_EQ(store.Add(block, ranges), expected ? VrSuccess : VrErrorFailed);
        ASSERT_EQ(store.GetLength(false), model.RawLength());
        ASSERT_EQ(store.GetLength(true), model.AvailableLength());
        std::vector<std::uint64_t> segments = model.Segments();
        std::sort(segments.begin(), segments.end());
        ASSERT_EQ(FileSizes(directory.Path()), segments);
    }

    std::pair<std::uint64_t, std::uint64_t> RandomRange(std::uint64_t length) {
        // Mostly near the end, where the buffers are; sometimes inverted or past it.
        const std::uint64_t least =
            Between(0, 1) == 0 && length > 2 * memorySize ? length - 2 * memorySize : 0;
        return {Between(least, length), Between(least, length + 2)};
    }

    void ReadRaw() {
        const auto [from, to] = RandomRange(model.RawLength());
        Bytes out;

        const VrError result = store.GetData(from, to, out, false);

        if (const auto expected = model.Raw(from, to)) {
            ASSERT_EQ(result, VrSuccess) << from << " to " << to;
            ASSERT_EQ(out, *expected) << from << " to " << to;
        } else {
            ASSERT_EQ(result, VrErrorInvalidParameter) << from << " to " << to;
        }
    }

    void ReadAvailable() {
        const auto [from, to] = RandomRange(model.AvailableLength());
        Compare(from, to);
    }

    void Compare(std::uint64_t from, std::uint64_t to) {
        Bytes out;

        const VrError result = store.GetData(from, to, out, true);

        if (const auto expected = model.Available(from, to)) {
            ASSERT_EQ(result, VrSuccess) << from << " to " << to;
            ASSERT_EQ(out, *expected) << from << " to " << to;
        } else {
            ASSERT_EQ(result, VrErrorInvalidParameter) << from << " to " << to;
        }
    }

    void Move() {
        TemporaryData elsewhere(std::move(store));
        store = std::move(elsewhere);
    }

    std::mt19937 random;
    bool failures;
    std::uint32_t memorySize;
    std::uint64_t segmentBytes;
    TemporaryDataModel model;
    TempDirectory directory;
    FakeManager manager{directory.Path()};
    TemporaryData store;
};

TEST(TemporaryDataModelTest, AnswersAsTheModelDoes) {
    for (std::uint32_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        ModelRun(seed, false).Run();
        ASSERT_FALSE(HasFailure());
    }
}

TEST(TemporaryDataModelTest, AnswersAsTheModelDoesWhileSpillsFail) {
    for (std::uint32_t seed = 1001; seed <= 1060; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        ModelRun(seed, true).Run();
        ASSERT_FALSE(HasFailure());
    }
}

TEST(TemporaryDataModelTest, AnswersAsTheModelDoesForAFreshSeed) {
    const std::uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));

    ModelRun(seed, seed % 2 == 0).Run();
}

}  // namespace
}  // namespace vorrel::test
