#include "store/PreviewData.h"

#include <gtest/gtest.h>

#include <limits>

#include "store/StoreTestSupport.h"
#include "support/FakeManager.h"
#include "support/TempDirectory.h"

namespace vorrel::test {
namespace {

using Samples = std::vector<std::int16_t>;

constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
constexpr bool kRaw = false;
constexpr bool kAvailable = true;

class PreviewDataTest : public ::testing::Test {
protected:
    PreviewDataTest() { log.AddRecordEvent(0, kRecordEventRecord); }

    /// `count` samples that count up from `first`.
    static Samples Count(std::int16_t first, std::size_t count) {
        Samples samples(count);
        for (std::size_t index = 0; index < count; ++index) {
            samples[index] = static_cast<std::int16_t>(first + static_cast<int>(index));
        }
        return samples;
    }

    TempDirectory directory;
    FakeManager manager{directory.Path()};
    RecordRangeManager log;
    PreviewData data{manager};

    std::vector<std::uint64_t> SpillSizes() const { return FileSizes(directory.Path()); }
};

TEST_F(PreviewDataTest, HasFiveSecondsOfMemory) {
    ASSERT_EQ(data.Init(2, 44'100, &log), VrSuccess);
    ASSERT_EQ(data.Add(Samples(440'998)), VrSuccess);
    ASSERT_TRUE(SpillSizes().empty());

    ASSERT_EQ(data.Add(Samples(2)), VrSuccess);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{882'000});  // 2 x 44,100 x 2 x 5
}

TEST_F(PreviewDataTest, CountsInterleavedFrames) {
    ASSERT_EQ(data.Init(2, 44'100, &log), VrSuccess);

    ASSERT_EQ(data.Add(Samples(200)), VrSuccess);  // 400 bytes

    EXPECT_EQ(data.GetLength(kRaw), 100U);
    EXPECT_EQ(data.GetLength(kAvailable), 100U);
}

TEST_F(PreviewDataTest, CountsWholeFramesOnly) {
    ASSERT_EQ(data.Init(2, 44'100, &log), VrSuccess);

    ASSERT_EQ(data.Add(Samples(5)), VrSuccess);

    EXPECT_EQ(data.GetLength(kRaw), 2U);
}

TEST_F(PreviewDataTest, ReadsFramesAsSamples) {
    ASSERT_EQ(data.Init(3, 44'100, &log), VrSuccess);
    ASSERT_EQ(data.Add(Count(-10, 30)), VrSuccess);
    Samples out;

    EXPECT_EQ(data.GetData(2, 4, out, kAvailable), VrSuccess);

    EXPECT_EQ(out, (Samples{-4, -3, -2, -1, 0, 1}));
}

TEST_F(PreviewDataTest, CutsPausesOut) {
    ASSERT_EQ(data.Init(2, 44'100, &log), VrSuccess);
    ASSERT_EQ(data.Add(Count(0, 20)), VrSuccess);
    log.AddRecordEvent(10, kRecordEventPause);
    ASSERT_EQ(data.Add(Count(20, 20)), VrSuccess);
    log.AddRecordEvent(20, kRecordEventResume);
    ASSERT_EQ(data.Add(Count(40, 20)), VrSuccess);
    Samples out;

    EXPECT_EQ(data.GetLength(kRaw), 30U);
    EXPECT_EQ(data.GetLength(kAvailable), 20U);
    EXPECT_EQ(data.GetData(9, 11, out, kAvailable), VrSuccess);
    EXPECT_EQ(out, (Samples{18, 19, 40, 41}));
}

TEST_F(PreviewDataTest, RefusesAnEmptyRangeAndOnePastTheEnd) {
    ASSERT_EQ(data.Init(2, 44'100, &log), VrSuccess);
    ASSERT_EQ(data.Add(Samples(20)), VrSuccess);
    Samples out;

    EXPECT_EQ(data.GetData(3, 3, out, kRaw), VrErrorInvalidParameter);
    EXPECT_EQ(data.GetData(0, 11, out, kRaw), VrErrorInvalidParameter);
}

TEST_F(PreviewDataTest, RefusesPositionsWhoseProductPassesTheLargestNumber) {
    ASSERT_EQ(data.Init(2, 44'100, &log), VrSuccess);
    ASSERT_EQ(data.Add(Samples(20)), VrSuccess);
    Samples out;
    constexpr std::uint64_t kWraps = std::uint64_t{1} << 62;  // x 4 = 2^64

    EXPECT_EQ(data.GetData(kWraps, kWraps + 5, out, kRaw), VrErrorInvalidParameter);
    EXPECT_EQ(data.GetData(0, kWraps + 5, out, kRaw), VrErrorInvalidParameter);
}

TEST_F(PreviewDataTest, RefusesToAddBeforeInitOrWithoutARangeLog) {
    EXPECT_EQ(data.Add(Samples(2)), VrErrorFailed);

    ASSERT_EQ(data.Init(2, 44'100, nullptr), VrSuccess);
    EXPECT_EQ(data.Add(Samples(2)), VrErrorFailed);
    EXPECT_EQ(data.GetLength(kRaw), 0U);
}

TEST_F(PreviewDataTest, BeginsWithoutChannels) {
    Samples out;

    EXPECT_EQ(data.GetLength(kRaw), 0U);
    EXPECT_EQ(data.GetLength(kAvailable), 0U);
    EXPECT_EQ(data.GetChannels(), 0U);
    EXPECT_EQ(data.GetSampleRate(), 0U);
    EXPECT_EQ(data.GetData(0, 1, out, kRaw), VrErrorInvalidParameter);
}

TEST_F(PreviewDataTest, TellsWhatItWasInitialisedWith) {
    ASSERT_EQ(data.Init(6, 96'000, &log), VrSuccess);

    EXPECT_EQ(data.GetChannels(), 6U);
    EXPECT_EQ(data.GetSampleRate(), 96'000U);
}

TEST_F(PreviewDataTest, AnInvalidInitChangesNothing) {
    ASSERT_EQ(data.Init(2, 44'100, &log), VrSuccess);
    ASSERT_EQ(data.Add(Samples(20)), VrSuccess);

    EXPECT_EQ(data.Init(0, 48'000, &log), VrErrorInvalidParameter);
    EXPECT_EQ(data.Init(1, 0, &log), VrErrorInvalidParameter);
    EXPECT_EQ(data.Init(1, kLargest, &log), VrErrorInvalidParameter);
    EXPECT_EQ(data.Init(1, 429'496'730, &log), VrErrorInvalidParameter);  // 4,294,967,300 bytes

    EXPECT_EQ(data.GetChannels(), 2U);
    EXPECT_EQ(data.GetSampleRate(), 44'100U);
    EXPECT_EQ(data.GetLength(kRaw), 10U);
}

TEST_F(PreviewDataTest, PassesAStorageFailureOn) {
    ASSERT_EQ(data.Init(1, 100, &log), VrSuccess);  // 1,000 bytes a buffer
    manager.tempDirectoryExists = false;

    EXPECT_EQ(data.Add(Samples(500)), VrErrorFailed);
}

TEST_F(PreviewDataTest, TemporaryClearEmptiesTheStoreAndKeepsTheChannels) {
    ASSERT_EQ(data.Init(2, 100, &log), VrSuccess);
    ASSERT_EQ(data.Add(Samples(1000)), VrSuccess);
    ASSERT_EQ(SpillSizes(), std::vector<std::uint64_t>{2000});

    EXPECT_EQ(data.TemporaryClear(), VrSuccess);

    EXPECT_TRUE(SpillSizes().empty());
    EXPECT_EQ(data.GetLength(kRaw), 0U);
    EXPECT_EQ(data.GetChannels(), 2U);
}

TEST_F(PreviewDataTest, TemporaryClearGivesTheStoreAFixedMemorySize) {
    ASSERT_EQ(data.Init(1, 100, &log), VrSuccess);
    ASSERT_EQ(data.TemporaryClear(), VrSuccess);
    ASSERT_EQ(data.Add(Samples(440'999)), VrSuccess);
    ASSERT_TRUE(SpillSizes().empty());

    ASSERT_EQ(data.Add(Samples(1)), VrSuccess);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{882'000});
}

}  // namespace
}  // namespace vorrel::test
