#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "TakeRig.h"
#include "support/Holdings.h"

namespace vorrel::test {
namespace {

TEST(LongTakeTest, MemoryStaysBoundedInATakeOfTwoHours) {
    Take take(Counting(2), 48'000);
    take.Select();
    take.Start();
    constexpr std::uint64_t kBuffersPerMinute = 20 * 60;
    take.Deliver(kBuffersPerMinute);
    const std::uint64_t afterAMinute = Holdings::Now().residentBytes;
    ASSERT_GT(afterAMinute, 0U);

    take.Deliver(119 * kBuffersPerMinute);

    // The buffers of five seconds are full after the first minute; from then on only the queue's
    // pool may still be touched for the first time.
    EXPECT_LT(Holdings::Now().residentBytes, afterAMinute + (16U << 20));
    EXPECT_EQ(take.Length(true), 2U * 3'600U * 48'000U);
    EXPECT_TRUE(take.delegate->messages.empty());
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);
    // The very end is whole.
    std::vector<std::int16_t> last(2);
    ASSERT_EQ(take.manager.GetPreviewData(345'599'999, 345'600'000, last.data(), true), VrSuccess);
    const double sample = static_cast<double>(CounterSample(345'599'999, 1, 2));
    EXPECT_EQ(last[1], static_cast<std::int16_t>(std::nearbyint(sample * 32768.0)));
}

TEST(LongTakeTest, MemoryStaysBoundedInADsdTakeOfAnHour) {
    Take take(Counting(2), 2'822'400, Take::Dsd);
    take.Select();
    take.Start();
    constexpr std::uint64_t kBuffersPerMinute = 323;  // of 32,768 words: 185.8 ms
    ASSERT_EQ(take.BufferFrames(), 32'768U);
    take.Deliver(kBuffersPerMinute);
    const std::uint64_t afterAMinute = Holdings::Now().residentBytes;
    ASSERT_GT(afterAMinute, 0U);

    take.Deliver(59 * kBuffersPerMinute);

    EXPECT_LT(Holdings::Now().residentBytes, afterAMinute + (16U << 20));
    constexpr std::uint64_t kWords = 60 * kBuffersPerMinute * 32'768;
    EXPECT_EQ(take.Record().GetLength(true), kWords * 16);
    EXPECT_EQ(take.Length(true), kWords / 4);
    EXPECT_TRUE(take.delegate->messages.empty());
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);
    // Out of the middle, long spilled, and the very end.
    for (const std::uint64_t word : {kWords / 2, kWords - 1}) {
        Bytes bytes;
        ASSERT_EQ(take.Record().GetData(1, word * 16, word * 16 + 16, bytes, true), VrSuccess);
        const std::uint16_t expected = CounterWord(word, 1, 2);
        EXPECT_EQ(bytes, (Bytes{static_cast<std::uint8_t>(expected & 0xFF),
                                static_cast<std::uint8_t>(expected >> 8)}));
    }
}

}  // namespace
}  // namespace vorrel::test
