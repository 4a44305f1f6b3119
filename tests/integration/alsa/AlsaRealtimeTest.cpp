#include <gtest/gtest.h>

#include <cstdint>

#include "AlsaRig.h"
#include "support/AllocationGuard.h"
#include "support/FileCallGuard.h"

namespace vorrel::test {
namespace {

TEST(AlsaRealtimeTest, TheIoThreadAllocatesNothingAndTouchesNoFileOverrunsIncluded) {
    for (const std::uint32_t mapped : {1U, 0U}) {
        TestCard card;
        card.State().speed = VORREL_TEST_SPEED;
        card.State().mapped = mapped;
        AlsaTake take(card);
        take.Select();
        take.SetUp(AlsaTake::Pcm, 192'000);
        const AllocationGuard allocations;
        const FileCallGuard fileCalls;

        take.Start();
        take.RecordFrames(96'000);
        card.State().overruns = 2;
        take.RecordFrames(take.StoredFrames() + 96'000);
        ASSERT_EQ(take.manager.Stop(true), VrSuccess);

        EXPECT_EQ(take.audio->Find(2)->Capture().Overruns(), 2U);
        EXPECT_EQ(allocations.Count(), 0U);
        EXPECT_EQ(allocations.Frees(), 0U);
        EXPECT_EQ(fileCalls.Count(), 0U) << FileCallGuard::Last();
    }
}

}  // namespace
}  // namespace vorrel::test
