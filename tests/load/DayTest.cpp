#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "../integration/TakeRig.h"
#include "LoadTools.h"

namespace vorrel::test {
namespace {

TEST(DayTest, ALongTakeIsRightToItsEndAndItsFilesGo) {
    constexpr std::uint64_t kRateHz = 96'000;
    const double hours = LoadLength("VORREL_LOAD_HOURS", 0.25);
    Take take(Counting(2), kRateHz);
    const std::filesystem::space_info room = std::filesystem::space(take.spillDirectory.Path());
    // Floats, and the preview's 16 bits, of two channels.
    const double needed = hours * 3'600 * static_cast<double>(kRateHz) * 2 * (4 + 2) * 1.05;
    if (static_cast<double>(room.available) < needed) {
        GTEST_SKIP() << hours << " hours need " << needed / 1e9 << " GB of disk";
    }
    take.Select();
    take.Start();
    const auto buffers = static_cast<std::uint64_t>(hours * 3'600 * 20);  // of 50 ms
    const std::uint64_t aMinute = std::min<std::uint64_t>(60 * 20, buffers / 2);
    take.Deliver(aMinute);
    const std::uint64_t before = Holdings::Now().residentBytes;

    for (std::uint64_t left = buffers - aMinute; left > 0;) {
        const std::uint64_t count = std::min(left, aMinute);
        take.Deliver(count);
        left -= count;
        // What the host was told, twenty positions a second, is not the engine's memory.
        take.delegate->streamPositions.clear();
        take.delegate->convertPositions.clear();
    }

    const std::uint64_t after = Holdings::Now().residentBytes;
    EXPECT_LT(after, before + (4U << 20));
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);
    EXPECT_TRUE(take.delegate->messages.empty());
    const std::uint64_t frames = take.Record().GetLength(true);
    EXPECT_EQ(frames, buffers * take.BufferFrames());
    const std::uint64_t wrong = WrongSamples(take.Record(), 2, false);
    EXPECT_EQ(wrong, 0U);
    const std::uint64_t lost = LostBuffers(take.Recorder(), take.Record(), false);
    EXPECT_EQ(lost, 0U);
    const std::uint64_t read = Holdings::Now().residentBytes;
    const auto files = [&take] {
        return std::distance(std::filesystem::directory_iterator(take.spillDirectory.Path()), {});
    };
    std::printf(
        "%.2f h, %llu buffers delivered, %llu lost, %llu frames, %llu wrong samples, %lld spill "
        "files, "
        "memory %llu -> %llu KiB, when all was read %llu KiB\n",
        hours, static_cast<unsigned long long>(take.Recorder().DeliveredBuffers()),
        static_cast<unsigned long long>(lost), static_cast<unsigned long long>(frames),
        static_cast<unsigned long long>(wrong), static_cast<long long>(files()),
        static_cast<unsigned long long>(before >> 10), static_cast<unsigned long long>(after >> 10),
        static_cast<unsigned long long>(read >> 10));
    EXPECT_GT(files(), 0);

    take.delegate->operations.clear();
    take.Start();

    EXPECT_EQ(files(), 0);
    ASSERT_EQ(take.manager.Stop(true), VrSuccess);
}

}  // namespace
}  // namespace vorrel::test
