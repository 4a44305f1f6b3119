#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

#include "pipeline/ConvertThread.h"
#include "support/AllocationLimit.h"
#include "support/FakeManager.h"
#include "support/NoNewThreads.h"
#include "support/TempDirectory.h"

namespace vorrel::test {
namespace {

constexpr std::uint16_t kChannels = 16;
/// Of the largest chunk of floats of all channels: the least that a run wants.
constexpr std::size_t kRunBytes = ConvertThread::kChunkFrames * kChannels * sizeof(float);
/// What else may have come or gone meanwhile.
constexpr std::size_t kElse = kRunBytes / 8;

class ConvertThreadMemoryTest : public testing::Test {
protected:
    void SetUp() override {
        constexpr std::uint64_t kRateHz = 48'000;
        ASSERT_EQ(record.Init(kChannels, kRateHz, GetSampleTypeInfo(kSampleTypePcm), &ranges),
                  VrSuccess);
        ASSERT_EQ(preview.Init(kChannels, kRateHz, &ranges), VrSuccess);
    }
    /// What has come to be held since `before`.
    static std::size_t HeldSince(std::size_t before) {
        const std::size_t now = HeldBytes();
        return now > before ? now - before : 0;
    }

    TempDirectory directory;
    FakeManager manager{directory.Path()};
    RecordRangeManager ranges;
    RecordData record{manager};
    PreviewData preview{manager};
    ConvertThread worker{manager};
};

TEST_F(ConvertThreadMemoryTest, AStopGivesTheMemoryOfTheRunBack) {
    const std::size_t before = HeldBytes();
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);
    EXPECT_GE(HeldSince(before), kRunBytes);

    worker.Stop();

    EXPECT_LT(HeldSince(before), kElse);
}

TEST_F(ConvertThreadMemoryTest, AStartWithoutAThreadGivesItsMemoryBack) {
    const std::size_t before = HeldBytes();
    {
        const NoNewThreads none;
        EXPECT_EQ(worker.Start(&record, &preview), VrErrorFailed);
    }

    EXPECT_LT(HeldSince(before), kElse);
    EXPECT_EQ(worker.Start(&record, &preview), VrSuccess);
}

TEST_F(ConvertThreadMemoryTest, AStartThatRunsOutOfMemoryKeepsNone) {
    const std::size_t before = HeldBytes();

    const std::size_t allocations = RefuseEachAllocation(
        [&] { EXPECT_NE(worker.Start(&record, &preview), VrErrorInvalidParameter); },
        [&] {
            EXPECT_FALSE(worker.Joinable());
            EXPECT_LT(HeldSince(before), kElse);
        });

    EXPECT_GE(allocations, 2U * kChannels);  // two buffers of each
    EXPECT_TRUE(worker.Joinable());
}

}  // namespace
}  // namespace vorrel::test
