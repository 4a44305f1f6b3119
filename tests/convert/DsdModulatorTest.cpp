#include "convert/DsdModulator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "convert/PlainGain.h"

namespace vorrel {
namespace {

TEST(DsdModulatorTest, FromRestTheFirstBitIsPlusOne) {
    _dsm<double> state;

    EXPECT_EQ(dsm(state, 0.25), 1.0);  // y is 0, which counts as positive

    EXPECT_EQ(state.s0, -0.75);
    EXPECT_EQ(state.s1, 0.0);
    EXPECT_EQ(state.s4, 0.0);
}

TEST(DsdModulatorTest, OneStepUsesTheOldValuesThroughout) {
    _dsm<double> state{1.0, 2.0, 4.0, 8.0, 16.0};

    const double q = dsm(state, 0.5);

    EXPECT_EQ(q, 1.0);
    EXPECT_EQ(state.s0, 0.5);                     // 1 + 0.5 - 1
    EXPECT_EQ(state.s2, 6.0);                     // 2 + 4
    EXPECT_EQ(state.s1, 3.0 - 0.000496 * 6.0);    // 1 + 2, less the first resonator's share
    EXPECT_EQ(state.s4, 24.0);                    // 8 + 16
    EXPECT_EQ(state.s3, 12.0 - 0.001789 * 24.0);  // 4 + 8, less the second resonator's share
}

TEST(DsdModulatorTest, ANegativeSumGivesMinusOne) {
    _dsm<double> state{-0.001, 0.0, 0.0, 0.0, 0.0};

    EXPECT_EQ(dsm(state, 0.0), -1.0);
    EXPECT_EQ(state.s0, 0.999);
}

TEST(DsdModulatorTest, EveryIntegratorHasItsWeight) {
    // Each pair nearly cancels; the sign of what remains shows the weights.
    const auto bit = [](_dsm<double> state) { return dsm(state, 0.0); };
    EXPECT_EQ(bit({0.304545, -0.791882 + 1e-9, 0, 0, 0}), 1.0);
    EXPECT_EQ(bit({0.304545, -0.791882 - 1e-9, 0, 0, 0}), -1.0);
    EXPECT_EQ(bit({0, 0.06993, -0.304545 + 1e-9, 0, 0}), 1.0);
    EXPECT_EQ(bit({0, 0.06993, -0.304545 - 1e-9, 0, 0}), -1.0);
    EXPECT_EQ(bit({0, 0, 0.009496, -0.06993 + 1e-9, 0}), 1.0);
    EXPECT_EQ(bit({0, 0, 0.009496, -0.06993 - 1e-9, 0}), -1.0);
    EXPECT_EQ(bit({0, 0, 0, 0.000607, -0.009496 + 1e-9}), 1.0);
    EXPECT_EQ(bit({0, 0, 0, 0.000607, -0.009496 - 1e-9}), -1.0);
}

TEST(DsdModulatorTest, EveryIntegratorIsClampedToItsLimitWithItsSign) {
    for (const double sign : {1.0, -1.0}) {
        _dsm<double> state{sign * 4.0, sign * 9.0, sign * 25.0, sign * 92.0, sign * 700.0};

        EXPECT_EQ(dsm(state, sign * 100.0), sign);

        EXPECT_EQ(state.s0, sign * 4.0);
        EXPECT_EQ(state.s1, sign * 9.0);
        EXPECT_EQ(state.s2, sign * 25.0);
        EXPECT_EQ(state.s3, sign * 92.0);
        EXPECT_EQ(state.s4, sign * 700.0);
    }
}

TEST(DsdModulatorTest, AValueAtItsLimitIsKept) {
    _dsm<double> state{4.0, 0.0, 0.0, 0.0, 0.0};

    EXPECT_EQ(dsm(state, 1.0), 1.0);

    EXPECT_EQ(state.s0, 4.0);  // 4 + 1 - 1
}

TEST(DsdModulatorTest, ThePrimedValuesAreUsedBeforeTheyAreClamped) {
    _dsm<double> state{0.0, 9.0, 25.0, 92.0, 700.0};

    EXPECT_EQ(dsm(state, 0.0), 1.0);

    EXPECT_EQ(state.s2, 25.0);
    EXPECT_EQ(state.s1, 9.0 - 0.000496 * 34.0);
    EXPECT_EQ(state.s4, 700.0);
    EXPECT_EQ(state.s3, 92.0);  // 25 + 92 - 0.001789 x 792, above its limit all the same
}

TEST(DsdModulatorTest, NotANumberGivesMinusOne) {
    _dsm<double> state{std::numeric_limits<double>::quiet_NaN(), 0.0, 0.0, 0.0, 0.0};

    EXPECT_EQ(dsm(state, 0.0), -1.0);
    EXPECT_TRUE(std::isnan(state.s0));
}

TEST(DsdModulatorTest, TheStepByStepModulatorIsTheSame) {
    _dsm<double> state;
    test::PlainGain plain(1.0F);
    for (int call = 0; call < 20'000; ++call) {
        // Now and then beyond what the modulator can follow, so that the limits are met.
        const double x = 1.5 * std::sin(call * 0.001) * std::sin(call * 0.00013);
        ASSERT_EQ(dsm(state, x) > 0, plain.Modulate(x)) << call;
        ASSERT_EQ(state.s0, plain.States()[0]) << call;
        ASSERT_EQ(state.s1, plain.States()[1]) << call;
        ASSERT_EQ(state.s2, plain.States()[2]) << call;
        ASSERT_EQ(state.s3, plain.States()[3]) << call;
        ASSERT_EQ(state.s4, plain.States()[4]) << call;
    }
}

}  // namespace
}  // namespace vorrel
