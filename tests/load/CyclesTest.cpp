#include <gtest/gtest.h>

#include <cstdio>

#include "LoadTools.h"

namespace vorrel::test {
namespace {

SimulatedRecorderConfig Fast() {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::Counter;
    config.speed = 100.0;  // no faster than a busy machine stores
    return config;
}

TEST(CyclesTest, StartsAndStopsLeaveNothingBehind) {
    const auto cycles = static_cast<int>(LoadLength("VORREL_LOAD_CYCLES", 200));
    LoadRig rig(Fast());
    ASSERT_TRUE(rig.Select(0, 48'000));
    const auto cycle = [&rig](int number) {
        ASSERT_TRUE(rig.Start()) << number;
        // Now and then long enough for spill files.
        if (number % 50 == 0) {
            ASSERT_TRUE(DispatchUntil([&] { return rig.Record().GetLength(true) > 6U * 48'000; }));
        }
        ASSERT_EQ(rig.manager.Stop(number % 2 == 0), VrSuccess) << number;
        ASSERT_TRUE(DispatchUntil([&] { return rig.delegate->Has(VrRecOperationStopped); }));
        rig.delegate->streamPositions.clear();
        rig.delegate->convertPositions.clear();
        rig.delegate->log.clear();
    };
    // What is made once, and what an allocator keeps, is there after some.
    for (int number = 0; number < 51; ++number) {
        cycle(number);
    }
    const Holdings before = Holdings::Now();

    for (int number = 0; number < cycles; ++number) {
        cycle(number);
    }

    ASSERT_EQ(rig.manager.New(), VrSuccess);
    const Holdings after = Holdings::BackTo(before);
    std::printf(
        "%d cycles: threads %llu -> %llu, descriptors %llu -> %llu, memory %llu -> %llu KiB\n",
        cycles, static_cast<unsigned long long>(before.threads),
        static_cast<unsigned long long>(after.threads),
        static_cast<unsigned long long>(before.descriptors),
        static_cast<unsigned long long>(after.descriptors),
        static_cast<unsigned long long>(before.residentBytes >> 10),
        static_cast<unsigned long long>(after.residentBytes >> 10));
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.descriptors, before.descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(after.residentBytes, before.residentBytes + (24U << 20));
#endif
    EXPECT_EQ(rig.SpillFiles(), 0U);
    EXPECT_TRUE(rig.delegate->messages.empty());
}

}  // namespace
}  // namespace vorrel::test
