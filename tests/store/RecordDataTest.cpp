#include "store/RecordData.h"

#include <gtest/gtest.h>

#include <limits>

#include "store/StoreTestSupport.h"
#include "support/FakeManager.h"
#include "support/TempDirectory.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
constexpr bool kRaw = false;
constexpr bool kAvailable = true;

class RecordDataTest : public ::testing::Test {
protected:
    RecordDataTest() { log.AddRecordEvent(0, kRecordEventRecord); }

    TempDirectory directory;
    FakeManager manager{directory.Path()};
    RecordRangeManager log;
    RecordData data{manager};
    const SampleTypeInfo* const pcm = GetSampleTypeInfo(kSampleTypePcm);
    const SampleTypeInfo* const dsd = GetSampleTypeInfo(kSampleTypeDsd);

    std::vector<std::uint64_t> SpillSizes() const { return FileSizes(directory.Path()); }
};

TEST_F(RecordDataTest, GivesEachPcmChannelFiveSecondsOfMemory) {
    ASSERT_EQ(data.Init(2, 48'000, pcm, &log), VrSuccess);
    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        ASSERT_EQ(data.Add(channel, Bytes(959'999)), VrSuccess);
    }
    ASSERT_TRUE(SpillSizes().empty());

    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        ASSERT_EQ(data.Add(channel, Bytes(1)), VrSuccess);
    }

    EXPECT_EQ(SpillSizes(), (std::vector<std::uint64_t>{960'000, 960'000}));  // 32 x 48,000 x 5 / 8
}

TEST_F(RecordDataTest, GivesADsdChannelFiveSecondsOfMemory) {
    ASSERT_EQ(data.Init(1, 2'822'400, dsd, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Bytes(1'763'998)), VrSuccess);
    ASSERT_TRUE(SpillSizes().empty());

    ASSERT_EQ(data.Add(0, Bytes(2)), VrSuccess);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{1'764'000});  // 2,822,400 x 5 / 8
}

TEST_F(RecordDataTest, TheLengthIsThatOfTheShortestChannel) {
    ASSERT_EQ(data.Init(2, 48'000, pcm, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Bytes(4000)), VrSuccess);
    ASSERT_EQ(data.Add(1, Bytes(3996)), VrSuccess);

    EXPECT_EQ(data.GetLength(kRaw), 999U);
    EXPECT_EQ(data.GetLength(kAvailable), 999U);
}

TEST_F(RecordDataTest, CountsSingleBitsForDsd) {
    ASSERT_EQ(data.Init(1, 2'822'400, dsd, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Bytes(100)), VrSuccess);

    EXPECT_EQ(data.GetLength(kRaw), 800U);
    EXPECT_EQ(data.GetLength(kAvailable), 800U);
}

TEST_F(RecordDataTest, RefusesToReadAChannelPastTheLast) {
    ASSERT_EQ(data.Init(2, 48'000, pcm, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Bytes(40)), VrSuccess);
    ASSERT_EQ(data.Add(1, Bytes(40)), VrSuccess);
    Bytes out = {42};
    AlignedBytes aligned = {42};

    EXPECT_EQ(data.GetData(2, 0, 10, out, kRaw), VrErrorInvalidParameter);
    EXPECT_EQ(data.GetData(2, 0, 10, aligned, kRaw), VrErrorInvalidParameter);

    EXPECT_EQ(out, Bytes{42});
    EXPECT_EQ(data.GetData(1, 0, 10, out, kRaw), VrSuccess);
}

TEST_F(RecordDataTest, RefusesToAddToAChannelPastTheLast) {
    ASSERT_EQ(data.Init(2, 48'000, pcm, &log), VrSuccess);

    EXPECT_EQ(data.Add(2, Bytes(40)), VrErrorInvalidParameter);
    EXPECT_EQ(data.Add(2, AlignedBytes(40)), VrErrorInvalidParameter);
}

TEST_F(RecordDataTest, RefusesToAddWithoutARangeLog) {
    ASSERT_EQ(data.Init(2, 48'000, pcm, nullptr), VrSuccess);

    EXPECT_EQ(data.Add(0, Bytes(40)), VrErrorInvalidParameter);

    EXPECT_EQ(data.GetLength(kRaw), 0U);
}

TEST_F(RecordDataTest, BeginsWithoutChannels) {
    Bytes out;

    EXPECT_EQ(data.GetLength(kRaw), 0U);
    EXPECT_EQ(data.GetLength(kAvailable), 0U);
    EXPECT_EQ(data.GetChannels(), 0U);
    EXPECT_EQ(data.GetSampleRate(), 0U);
    EXPECT_EQ(data.GetSampleTypeInfo(), nullptr);
    EXPECT_EQ(data.Add(0, Bytes(4)), VrErrorInvalidParameter);
    EXPECT_EQ(data.GetData(0, 0, 1, out, kRaw), VrErrorInvalidParameter);
    EXPECT_EQ(data.TemporaryClear(), VrSuccess);
}

TEST_F(RecordDataTest, TellsWhatItWasInitialisedWith) {
    ASSERT_EQ(data.Init(6, 96'000, pcm, &log), VrSuccess);

    EXPECT_EQ(data.GetChannels(), 6U);
    EXPECT_EQ(data.GetSampleRate(), 96'000U);
    EXPECT_EQ(data.GetSampleTypeInfo(), pcm);
}

TEST_F(RecordDataTest, AnInvalidInitChangesNothing) {
    ASSERT_EQ(data.Init(2, 48'000, pcm, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Bytes(40)), VrSuccess);
    ASSERT_EQ(data.Add(1, Bytes(40)), VrSuccess);

    EXPECT_EQ(data.Init(0, 44'100, dsd, nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(data.Init(1, 0, dsd, nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(data.Init(1, 44'100, nullptr, nullptr), VrErrorInvalidParameter);

    EXPECT_EQ(data.GetChannels(), 2U);
    EXPECT_EQ(data.GetSampleRate(), 48'000U);
    EXPECT_EQ(data.GetSampleTypeInfo(), pcm);
    EXPECT_EQ(data.GetLength(kRaw), 10U);
}

TEST_F(RecordDataTest, RefusesARateWhoseMemorySizeIsNoPositive32BitNumber) {
    EXPECT_EQ(data.Init(1, 1, dsd, &log), VrErrorInvalidParameter);            // 5 bits: 0 bytes
    EXPECT_EQ(data.Init(1, 214'748'365, pcm, &log), VrErrorInvalidParameter);  // 4,294,967,300
    EXPECT_EQ(data.Init(1, kLargest, pcm, &log), VrErrorInvalidParameter);
    EXPECT_EQ(data.Init(1, kLargest, dsd, &log), VrErrorInvalidParameter);

    EXPECT_EQ(data.GetChannels(), 0U);
}

TEST_F(RecordDataTest, ANewInitReplacesChannelsAndDeletesTheFiles) {
    ASSERT_EQ(data.Init(2, 1000, pcm, &log), VrSuccess);  // 20,000 bytes a buffer
    ASSERT_EQ(data.Add(0, Bytes(20'000)), VrSuccess);
    ASSERT_EQ(data.Add(1, Bytes(20'000)), VrSuccess);
    ASSERT_EQ(SpillSizes().size(), 2U);

    ASSERT_EQ(data.Init(1, 2'822'400, dsd, &log), VrSuccess);

    EXPECT_TRUE(SpillSizes().empty());
    EXPECT_EQ(data.GetChannels(), 1U);
    EXPECT_EQ(data.GetLength(kRaw), 0U);
    EXPECT_EQ(data.GetSampleTypeInfo(), dsd);
}

TEST_F(RecordDataTest, TheGenerationRisesWhenDataGoAndNotOtherwise) {
    const std::uint64_t first = data.GetLayout().generation;

    ASSERT_EQ(data.Init(2, 48'000, pcm, &log), VrSuccess);
    EXPECT_EQ(data.GetLayout().generation, first + 1);
    ASSERT_EQ(data.TemporaryClear(), VrSuccess);
    EXPECT_EQ(data.GetLayout().generation, first + 2);
    ASSERT_EQ(data.Init(0, 48'000, pcm, &log), VrErrorInvalidParameter);
    ASSERT_EQ(data.Init(1, 1, dsd, &log), VrErrorInvalidParameter);
    ASSERT_EQ(data.Add(0, Bytes(40)), VrSuccess);
    EXPECT_EQ(data.GetLayout().generation, first + 2);
}

TEST_F(RecordDataTest, ReadsPcmSamplesOfFourBytes) {
    ASSERT_EQ(data.Init(2, 48'000, pcm, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Pattern(0, 40)), VrSuccess);
    ASSERT_EQ(data.Add(1, Pattern(100, 140)), VrSuccess);
    Bytes out;
    AlignedBytes aligned;

    EXPECT_EQ(data.GetData(1, 2, 5, out, kAvailable), VrSuccess);
    EXPECT_EQ(data.GetData(0, 9, 10, aligned, kRaw), VrSuccess);

    EXPECT_EQ(out, Pattern(108, 120));
    EXPECT_EQ(aligned, (AlignedBytes{36, 37, 38, 39}));
}

TEST_F(RecordDataTest, ReadsTheWholeBytesOfDsdPositionsRoundedDown) {
    ASSERT_EQ(data.Init(1, 2'822'400, dsd, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Pattern(0, 40)), VrSuccess);
    Bytes out;

    EXPECT_EQ(data.GetData(0, 16, 48, out, kRaw), VrSuccess);
    EXPECT_EQ(out, Pattern(2, 6));
    EXPECT_EQ(data.GetData(0, 9, 31, out, kRaw), VrSuccess);
    EXPECT_EQ(out, Pattern(1, 3));
    EXPECT_EQ(data.GetData(0, 8, 15, out, kRaw), VrErrorInvalidParameter);  // no whole byte
}

TEST_F(RecordDataTest, MultipliesPositionsBeforeItDividesThem) {
    SampleTypeInfo twelveBits = *pcm;
    twelveBits.bits = 10;
    twelveBits.padBits = 2;
    ASSERT_EQ(data.Init(1, 48'000, &twelveBits, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Pattern(0, 30)), VrSuccess);
    Bytes out;

    EXPECT_EQ(data.GetLength(kRaw), 20U);  // 30 x 8 / 12
    EXPECT_EQ(data.GetData(0, 3, 7, out, kRaw), VrSuccess);
    EXPECT_EQ(out, Pattern(4, 10));  // 36 / 8 and 84 / 8, rounded down
}

TEST_F(RecordDataTest, RefusesPositionsWhoseProductPassesTheLargestNumber) {
    ASSERT_EQ(data.Init(1, 48'000, pcm, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Pattern(0, 40)), VrSuccess);
    Bytes out;
    constexpr std::uint64_t kWraps = std::uint64_t{1} << 59;  // x 32 = 2^64

    EXPECT_EQ(data.GetData(0, kWraps, kWraps + 5, out, kRaw), VrErrorInvalidParameter);
    EXPECT_EQ(data.GetData(0, 0, kWraps + 5, out, kRaw), VrErrorInvalidParameter);
    EXPECT_EQ(data.GetData(0, 0, kLargest, out, kAvailable), VrErrorInvalidParameter);
}

TEST_F(RecordDataTest, CutsPausesOutOfPcm) {
    ASSERT_EQ(data.Init(1, 48'000, pcm, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Pattern(0, 40)), VrSuccess);
    log.AddRecordEvent(10, kRecordEventPause);
    ASSERT_EQ(data.Add(0, Pattern(40, 80)), VrSuccess);
    log.AddRecordEvent(20, kRecordEventResume);
    ASSERT_EQ(data.Add(0, Pattern(80, 120)), VrSuccess);
    Bytes out;

    EXPECT_EQ(data.GetLength(kRaw), 30U);
    EXPECT_EQ(data.GetLength(kAvailable), 20U);
    EXPECT_EQ(data.GetData(0, 9, 11, out, kAvailable), VrSuccess);
    EXPECT_EQ(out, (Bytes{36, 37, 38, 39, 80, 81, 82, 83}));
}

TEST_F(RecordDataTest, TakesLoggedPositionsAsTwoByteFramesForDsd) {
    ASSERT_EQ(data.Init(1, 2'822'400, dsd, &log), VrSuccess);
    log.AddRecordEvent(10, kRecordEventPause);

    ASSERT_EQ(data.Add(0, Pattern(0, 40)), VrSuccess);

    // Frame 10 is logged for 640 one-bit samples (80 bytes) and cuts at 20 bytes.
    EXPECT_EQ(data.GetLength(kAvailable), 160U);
}

TEST_F(RecordDataTest, TakesLoggedPositionsAsFourByteFramesForPcm) {
    ASSERT_EQ(data.Init(1, 48'000, pcm, &log), VrSuccess);
    log.AddRecordEvent(10, kRecordEventPause);

    ASSERT_EQ(data.Add(0, Pattern(0, 400)), VrSuccess);

    EXPECT_EQ(data.GetLength(kAvailable), 10U);  // 40 bytes
    EXPECT_EQ(data.GetLength(kRaw), 100U);
}

TEST_F(RecordDataTest, TakesTheSmallestRates) {
    EXPECT_EQ(data.Init(1, 1, pcm, &log), VrSuccess);
    EXPECT_EQ(data.Init(1, 2, dsd, &log), VrSuccess);  // 10 bits: a memory of one byte

    EXPECT_EQ(data.GetChannels(), 1U);
}

TEST_F(RecordDataTest, ReadsTheAvailableStreamBackFromItsFiles) {
    ASSERT_EQ(data.Init(1, 1000, pcm, &log), VrSuccess);  // 20,000 bytes a buffer
    for (std::uint64_t block = 0; block < 11; ++block) {
        ASSERT_EQ(data.Add(0, Pattern(block * 8000, (block + 1) * 8000)), VrSuccess);
    }
    Bytes out;

    EXPECT_EQ(data.GetData(0, 0, 22'000, out, kAvailable), VrSuccess);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{80'000});
    EXPECT_EQ(out, Pattern(0, 88'000));
    EXPECT_EQ(data.GetData(0, 0, 22'000, out, kRaw), VrErrorInvalidParameter);
}

TEST_F(RecordDataTest, PassesAStorageFailureOn) {
    ASSERT_EQ(data.Init(1, 1000, pcm, &log), VrSuccess);
    manager.tempDirectoryExists = false;

    EXPECT_EQ(data.Add(0, Bytes(20'000)), VrErrorFailed);
}

TEST_F(RecordDataTest, TemporaryClearEmptiesTheStoresAndKeepsTheChannels) {
    ASSERT_EQ(data.Init(2, 1000, pcm, &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Bytes(20'000)), VrSuccess);
    ASSERT_EQ(data.Add(1, Bytes(20'000)), VrSuccess);

    EXPECT_EQ(data.TemporaryClear(), VrSuccess);

    EXPECT_TRUE(SpillSizes().empty());
    EXPECT_EQ(data.GetLength(kRaw), 0U);
    EXPECT_EQ(data.GetLength(kAvailable), 0U);
    EXPECT_EQ(data.GetChannels(), 2U);
    EXPECT_EQ(data.GetSampleRate(), 1000U);
}

TEST_F(RecordDataTest, TemporaryClearGivesEachStoreAFixedMemorySize) {
    ASSERT_EQ(data.Init(1, 1000, pcm, &log), VrSuccess);
    ASSERT_EQ(data.TemporaryClear(), VrSuccess);
    ASSERT_EQ(data.Add(0, Bytes(440'996)), VrSuccess);
    ASSERT_TRUE(SpillSizes().empty());

    ASSERT_EQ(data.Add(0, Bytes(4)), VrSuccess);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{441'000});
}

TEST_F(RecordDataTest, DestructionDeletesTheFiles) {
    {
        RecordData scoped(manager);
        ASSERT_EQ(scoped.Init(2, 1000, pcm, &log), VrSuccess);
        ASSERT_EQ(scoped.Add(0, Bytes(20'000)), VrSuccess);
        ASSERT_EQ(scoped.Add(1, Bytes(20'000)), VrSuccess);
    }

    EXPECT_TRUE(SpillSizes().empty());
}

TEST_F(RecordDataTest, TheTurnLockCoversCallsToTheStore) {
    ASSERT_EQ(data.Init(1, 48'000, pcm, &log), VrSuccess);

    const ExclusiveLock turn(data.TurnLock());

    EXPECT_EQ(data.Add(0, Bytes(40)), VrSuccess);  // does not take it again
    EXPECT_EQ(data.GetLength(kRaw), 10U);
}

}  // namespace
}  // namespace vorrel::test
