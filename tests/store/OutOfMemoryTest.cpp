#include <gtest/gtest.h>

#include "store/PreviewData.h"
#include "store/RecordData.h"
#include "store/StoreTestSupport.h"
#include "support/AllocationLimit.h"
#include "support/FakeManager.h"
#include "support/TempDirectory.h"

namespace vorrel::test {
namespace {

constexpr bool kRaw = false;
constexpr bool kAvailable = true;

class OutOfMemoryTest : public ::testing::Test {
protected:
    OutOfMemoryTest() { log.AddRecordEvent(0, kRecordEventRecord); }

    TempDirectory directory;
    FakeManager manager{directory.Path()};
    RecordRangeManager log;
    TemporaryData store{manager};
};

TEST_F(OutOfMemoryTest, ASegmentWithoutMemoryForItsStreamBufferStaysClosedAndLeavesNoFile) {
    TemporaryFile file(manager);
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(1'048'576);
        result = file.Init(0);
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_EQ(file.Add(Pattern(0, 1)), VrErrorFailed);
    EXPECT_TRUE(Files(directory.Path()).empty());
}

TEST_F(OutOfMemoryTest, ASegmentReadWithoutMemoryFails) {
    TemporaryFile file(manager);
    ASSERT_EQ(file.Init(0), VrSuccess);
    ASSERT_EQ(file.Add(Pattern(0, 10'000)), VrSuccess);
    AlignedBytes out;
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(10'000);
        result = file.GetData(0, 10'000, out);
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_EQ(file.GetData(0, 10'000, out), VrSuccess);
}

TEST_F(OutOfMemoryTest, AnInitWithoutMemoryLeavesAnEmptyStoreThatTakesNothing) {
    ASSERT_EQ(store.Init(1000), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 1500), kAll), VrSuccess);
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(2000);
        result = store.Init(2000);
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_EQ(store.GetLength(kRaw), 0U);
    EXPECT_EQ(store.Add(Pattern(0, 1), kAll), VrErrorFailed);
    EXPECT_TRUE(Files(directory.Path()).empty());
    ASSERT_EQ(store.Init(1000), VrSuccess);
    EXPECT_EQ(store.Add(Pattern(0, 1), kAll), VrSuccess);
}

TEST_F(OutOfMemoryTest, ABlockWithoutMemoryChangesNothing) {
    ASSERT_EQ(store.Init(1000), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 900), kAll), VrSuccess);
    const Bytes block = Pattern(900, 2900);
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(2000);
        result = store.Add(block, kAll);
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_EQ(store.GetLength(kRaw), 900U);
    EXPECT_EQ(store.GetLength(kAvailable), 900U);
    ASSERT_EQ(store.Add(block, kAll), VrSuccess);
    Bytes out;
    ASSERT_EQ(store.GetData(0, 2900, out, kAvailable), VrSuccess);
    EXPECT_EQ(out, Pattern(0, 2900));
}

TEST_F(OutOfMemoryTest, ASpillWithoutMemoryForTheExcessIsTriedAgain) {
    ASSERT_EQ(store.Init(1000), VrSuccess);
    manager.tempDirectoryExists = false;
    ASSERT_EQ(store.Add(Pattern(0, 5000), kAll), VrErrorFailed);
    ASSERT_EQ(store.Add(Pattern(5000, 5010), kAll), VrErrorFailed);  // leaves room for the next
    manager.tempDirectoryExists = true;
    // The buffer has room for 6,250 bytes, the other one for 5,000, and the excess is 5,200.
    const Bytes next = Pattern(5010, 6200);
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(5001);
        result = store.Add(next, kAll);
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_TRUE(Files(directory.Path()).empty());
    Bytes out;
    ASSERT_EQ(store.GetData(0, 6200, out, kAvailable), VrSuccess);
    EXPECT_EQ(out, Pattern(0, 6200));
    EXPECT_EQ(store.Add(Pattern(6200, 6210), kAll), VrSuccess);
    EXPECT_EQ(FileSizes(directory.Path()), std::vector<std::uint64_t>{1000});
    ASSERT_EQ(store.GetData(0, 6210, out, kAvailable), VrSuccess);
    EXPECT_EQ(out, Pattern(0, 6210));
}

TEST_F(OutOfMemoryTest, AReadWithoutMemoryFailsAndEmptiesTheOutput) {
    ASSERT_EQ(store.Init(1000), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 5000), kAll), VrSuccess);
    Bytes out = {42};
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(3000);
        result = store.GetData(0, 5000, out, kAvailable);
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(store.GetData(0, 5000, out, kAvailable), VrSuccess);
}

TEST_F(OutOfMemoryTest, TheRawStreamAsksForNoMoreThanItHolds) {
    ASSERT_EQ(store.Init(100), VrSuccess);
    ASSERT_EQ(store.Add(Bytes(50'000), Ranges{}), VrSuccess);
    Bytes out;
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(10'000);
        result = store.GetData(0, 50'000, out, kRaw);
    }

    EXPECT_EQ(result, VrErrorInvalidParameter);
}

TEST_F(OutOfMemoryTest, ARecordingWithoutMemoryIsAsBeforeTheFirst) {
    RecordData data(manager);
    ASSERT_EQ(data.Init(2, 1000, GetSampleTypeInfo(kSampleTypePcm), &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Bytes(20'000)), VrSuccess);
    ASSERT_EQ(Files(directory.Path()).size(), 1U);
    const std::uint64_t generation = data.GetLayout().generation;
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(960'000);
        result = data.Init(2, 48'000, GetSampleTypeInfo(kSampleTypePcm), &log);
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_TRUE(Files(directory.Path()).empty());
    const RecordLayout layout = data.GetLayout();
    EXPECT_EQ(layout.channels, 0U);
    EXPECT_EQ(layout.sampleRate, 0U);
    EXPECT_EQ(layout.sampleType, nullptr);
    EXPECT_EQ(layout.generation, generation + 1);
    EXPECT_EQ(data.GetLength(kRaw), 0U);
    EXPECT_EQ(data.Add(0, Bytes(4)), VrErrorInvalidParameter);
    ASSERT_EQ(data.Init(1, 1000, GetSampleTypeInfo(kSampleTypeDsd), &log), VrSuccess);
    EXPECT_EQ(data.Add(0, Bytes(4)), VrSuccess);
    EXPECT_EQ(data.GetLength(kAvailable), 32U);
}

TEST_F(OutOfMemoryTest, AClearWithoutMemoryFailsAndStillDeletesTheFiles) {
    RecordData data(manager);
    ASSERT_EQ(data.Init(2, 1000, GetSampleTypeInfo(kSampleTypePcm), &log), VrSuccess);
    ASSERT_EQ(data.Add(0, Bytes(20'000)), VrSuccess);
    ASSERT_EQ(data.Add(1, Bytes(20'000)), VrSuccess);
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(441'000);
        result = data.TemporaryClear();
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_TRUE(Files(directory.Path()).empty());
    EXPECT_EQ(data.GetLength(kRaw), 0U);
}

TEST_F(OutOfMemoryTest, APreviewWithoutMemoryIsEmptyAndTheNextOneWorks) {
    PreviewData data(manager);
    ASSERT_EQ(data.Init(1, 1000, &log), VrSuccess);
    ASSERT_EQ(data.Add(std::vector<std::int16_t>(5'000)), VrSuccess);
    ASSERT_EQ(Files(directory.Path()).size(), 1U);
    VrError result = VrSuccess;
    {
        const AllocationLimit limit(882'000);
        result = data.Init(2, 44'100, &log);
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_TRUE(Files(directory.Path()).empty());
    EXPECT_EQ(data.GetLength(kRaw), 0U);
    EXPECT_EQ(data.Add(std::vector<std::int16_t>(2)), VrErrorFailed);
    ASSERT_EQ(data.Init(2, 44'100, &log), VrSuccess);
    ASSERT_EQ(data.Add({1, 2, 3, 4}), VrSuccess);
    std::vector<std::int16_t> out;
    ASSERT_EQ(data.GetData(0, 2, out, kAvailable), VrSuccess);
    EXPECT_EQ(out, (std::vector<std::int16_t>{1, 2, 3, 4}));
}

TEST_F(OutOfMemoryTest, ABlockWithoutMemoryForItsRangesChangesNothing) {
    RecordData data(manager);
    ASSERT_EQ(data.Init(1, 1000, GetSampleTypeInfo(kSampleTypePcm), &log), VrSuccess);
    PreviewData preview(manager);
    ASSERT_EQ(preview.Init(1, 1000, &log), VrSuccess);
    const Bytes block(8);
    const std::vector<std::int16_t> frames(4);
    VrError recordResult = VrSuccess;
    VrError previewResult = VrSuccess;
    {
        const AllocationLimit limit(1);
        recordResult = data.Add(0, block);
        previewResult = preview.Add(frames);
    }

    EXPECT_EQ(recordResult, VrErrorFailed);
    EXPECT_EQ(previewResult, VrErrorFailed);
    EXPECT_EQ(data.GetLength(kRaw), 0U);
    EXPECT_EQ(preview.GetLength(kRaw), 0U);
}

TEST_F(OutOfMemoryTest, ASpillWithoutMemoryForOneMoreFileWritesNone) {
    TemporaryData small(manager, 1000);
    ASSERT_EQ(small.Init(1000), VrSuccess);
    ASSERT_EQ(small.Add(Pattern(0, 3000), kAll), VrSuccess);  // the list has room for three
    const Bytes next = Pattern(3000, 4000);
    VrError result = VrSuccess;
    {
        // What a file itself takes is less, or its stream's buffer.
        const AllocationLimit limit(4 * sizeof(TemporaryFile), 1'000'000);
        result = small.Add(next, kAll);
    }

    EXPECT_EQ(result, VrErrorFailed);
    EXPECT_EQ(Files(directory.Path()).size(), 3U);
    EXPECT_EQ(small.Add(Pattern(4000, 4001), kAll), VrSuccess);
    Bytes out;
    ASSERT_EQ(small.GetData(0, 4001, out, kAvailable), VrSuccess);
    EXPECT_EQ(out, Pattern(0, 4001));
    EXPECT_EQ(Files(directory.Path()).size(), 4U);
}

}  // namespace
}  // namespace vorrel::test
