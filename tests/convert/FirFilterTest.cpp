#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <vector>

#include "convert/GainTables.h"
#include "convert/PlainGain.h"
#include "convert/fir_filter.h"

namespace vorrel {

/// What tests see of a filter's inside.
struct FirFilterParts {
    static std::int32_t IndexOf(const fir_filter& filter) { return filter.index; }
    static std::vector<float>& DelayLine(fir_filter& filter) { return filter.delayLine; }
    static std::vector<float> Coefficients(const fir_filter& filter) {
        std::vector<float> values(filter.coefficientStore.size() / sizeof(float));
        std::memcpy(values.data(), filter.coefficientStore.data(), filter.coefficientStore.size());
        return values;
    }
};

namespace {

TEST(FirFilterTest, AConstantReachesTheSumOfTheTapsAfter400Calls) {
    fir_filter filter;
    filter.init();

    double last = 0;
    for (int call = 0; call < 400; ++call) {
        last = filter.sample(1.0);
    }

    EXPECT_NEAR(last, 0.9994447720708, 1e-6);  // single precision
    EXPECT_EQ(filter.sample(1.0), last);
}

TEST(FirFilterTest, BeforeTheWholeRunIsFilledAConstantHasNotSettled) {
    fir_filter filter;
    filter.init();

    double last = 0;
    for (int call = 0; call < 399; ++call) {
        last = filter.sample(1.0);
    }

    EXPECT_NEAR(last, 0.9994447720708 - 0.0003358709173, 1e-6);  // the oldest weighs tap 1
}

TEST(FirFilterTest, TheRunBeginsAtTheNewestInput) {
    // The answer to a single 1: at once and one later tap 0, then the taps upwards to the peak and
    // down again to tap 1. A plain symmetric filter would give taps 0, 1, 2 ...
    fir_filter filter;
    filter.init();

    std::vector<double> response{filter.sample(1.0)};
    for (int call = 1; call <= 400; ++call) {
        response.push_back(filter.sample(0.0));
    }

    EXPECT_EQ(response[0], static_cast<double>(0.0003241956011F));
    EXPECT_EQ(response[1], static_cast<double>(0.0003241956011F));
    EXPECT_EQ(response[2], static_cast<double>(0.0003358709173F));
    EXPECT_EQ(response[200], static_cast<double>(0.0327721430345F));
    EXPECT_EQ(response[201], static_cast<double>(0.0327721430345F));
    EXPECT_EQ(response[399], static_cast<double>(0.0003358709173F));
    EXPECT_EQ(response[400], 0.0);
    for (std::size_t age = 2; age < 400; ++age) {
        const std::size_t tap = age <= 200 ? age - 1 : 400 - age;
        EXPECT_EQ(response[age], static_cast<double>(static_cast<float>(cff[tap]))) << age;
    }
}

TEST(FirFilterTest, TheSumRunsInFourLanes) {
    // The order of a sum shows in its last bits, and these must be the same on every machine.
    fir_filter filter;
    filter.init();
    std::vector<float> newestFirst(400);
    double result = 0;
    for (int call = 0; call < 1000; ++call) {
        const double x = std::sin(call * 0.37) + 0.2 * std::sin(call * 1.9);
        newestFirst.insert(newestFirst.begin(), static_cast<float>(x));
        result = filter.sample(x);

        float lanes[4] = {};
        for (std::size_t k = 0; k < 200; ++k) {
            const std::size_t age = k == 0 ? 0 : 400 - k;
            const volatile float pair = newestFirst[age] + newestFirst[k + 1];
            const volatile float product = static_cast<float>(cff[k]) * pair;
            lanes[k % 4] = lanes[k % 4] + product;
        }
        const float expected = (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
        ASSERT_EQ(result, static_cast<double>(expected)) << call;
    }
}

TEST(FirFilterTest, InputsAreNarrowedToSinglePrecision) {
    fir_filter filter;
    filter.init();

    const double response = filter.sample(1.0 + 1e-12);

    EXPECT_EQ(response, static_cast<double>(0.0003241956011F));
}

TEST(FirFilterTest, StoreEntersTheHistoryAsSampleDoes) {
    fir_filter sampled;
    fir_filter stored;
    sampled.init();
    stored.init();
    for (int call = 0; call < 450; ++call) {
        const double x = std::cos(call * 0.21);
        std::ignore = sampled.sample(x);
        std::ignore = stored.Store(x);
    }

    EXPECT_EQ(stored.sample(0.25), sampled.sample(0.25));
}

TEST(FirFilterTest, InitForgetsTheHistory) {
    fir_filter filter;
    filter.init();
    for (int call = 0; call < 123; ++call) {
        std::ignore = filter.sample(0.5);
    }

    filter.init();

    EXPECT_EQ(FirFilterParts::IndexOf(filter), 0);
    EXPECT_EQ(FirFilterParts::DelayLine(filter), std::vector<float>(800));
    EXPECT_EQ(filter.sample(0.0), 0.0);
}

TEST(FirFilterTest, ANewFilterHasZerosInBothStores) {
    fir_filter filter;

    EXPECT_EQ(FirFilterParts::DelayLine(filter), std::vector<float>(800));
    EXPECT_EQ(FirFilterParts::Coefficients(filter), std::vector<float>(400));
}

TEST(FirFilterTest, EveryInputStandsInTheRingTwice) {
    fir_filter filter;
    filter.init();
    for (int call = 0; call < 401; ++call) {
        std::ignore = filter.sample(call + 1.0);
    }

    const std::vector<float>& line = FirFilterParts::DelayLine(filter);

    EXPECT_EQ(FirFilterParts::IndexOf(filter), 1);
    EXPECT_EQ(line[0], 401.0F);  // the ring has come round
    EXPECT_EQ(line[1], 2.0F);
    for (std::size_t slot = 0; slot < 400; ++slot) {
        EXPECT_EQ(line[slot], line[slot + 400]) << slot;
    }
}

/// A filter with a history in which no value is zero and none comes twice.
fir_filter& Fill(fir_filter& filter, double first) {
    filter.init();
    for (int call = 0; call < 405; ++call) {
        std::ignore = filter.Store(first + call);
    }
    return filter;
}

TEST(FirFilterTest, ACopyTakesTheFirstTwoValuesOnly) {
    fir_filter source;
    Fill(source, 1.0);

    fir_filter copy(source);

    std::vector<float> line(800);
    line[0] = 401.0F;
    line[1] = 402.0F;
    std::vector<float> taps(400);
    taps[0] = 0.0003241956011F;
    taps[1] = 0.0003358709173F;
    EXPECT_EQ(FirFilterParts::IndexOf(copy), 5);
    EXPECT_EQ(FirFilterParts::DelayLine(copy), line);
    EXPECT_EQ(FirFilterParts::Coefficients(copy), taps);
}

TEST(FirFilterTest, AssignmentLeavesTheRestOfTheTarget) {
    fir_filter source;
    Fill(source, 1.0);
    fir_filter target;
    Fill(target, 10'000.0);
    std::vector<float> line = FirFilterParts::DelayLine(target);
    ASSERT_EQ(line[2], 10'402.0F);

    target = source;

    line[0] = 401.0F;
    line[1] = 402.0F;
    EXPECT_EQ(FirFilterParts::IndexOf(target), 5);
    EXPECT_EQ(FirFilterParts::DelayLine(target), line);
    EXPECT_EQ(FirFilterParts::Coefficients(target), FirFilterParts::Coefficients(source));
}

TEST(FirFilterTest, ACopyThatIsInitialisedFiltersFaithfully) {
    fir_filter source;
    Fill(source, 1.0);
    fir_filter copy(source);
    fir_filter fresh;

    copy.init();
    fresh.init();

    for (int call = 0; call < 500; ++call) {
        ASSERT_EQ(copy.sample(std::sin(call * 0.1)), fresh.sample(std::sin(call * 0.1)));
    }
}

TEST(FirFilterTest, TheStepByStepFilterIsTheSame) {
    fir_filter filter;
    filter.init();
    test::PlainGain plain(1.0F);
    for (int call = 0; call < 1000; ++call) {
        const auto x = static_cast<float>(std::sin(call * 0.37));
        ASSERT_EQ(filter.sample(static_cast<double>(x)), static_cast<double>(plain.Filter(x)));
    }
}

/// Level of the filter at `share` of the bit rate, in decibels.
double ResponseDecibels(double share) {
    double sum = 0;
    for (std::size_t k = 0; k < 400; ++k) {
        const double place = static_cast<double>(k) - 199.5;
        sum += cff[k] * std::cos(2 * std::numbers::pi * share * place);
    }
    return 20 * std::log10(std::fabs(sum));
}

TEST(GainTablesTest, TheTapsAreThoseKnown) {
    EXPECT_EQ(cff[0], 0.0003241956011);
    EXPECT_EQ(cff[399], 0.0003241956011);
    EXPECT_EQ(cff[1], 0.0003358709173);
    EXPECT_EQ(cff[100], -0.0017095226569);
    EXPECT_EQ(cff[199], 0.0327721430345);
    EXPECT_EQ(cff[200], 0.0327721430345);
    double sum = 0;
    for (std::size_t k = 0; k < 400; ++k) {
        EXPECT_EQ(cff[k], cff[399 - k]) << k;
        EXPECT_LE(cff[k], cff[199]) << k;
        sum += cff[k];
    }
    EXPECT_NEAR(sum, 0.9994447720708, 5e-14);
}

TEST(GainTablesTest, TheTapsFollowTheirFormula) {
    const auto bessel = [](double x) {  // modified, first kind, order 0
        double term = 1;
        double sum = 1;
        for (int i = 1; i < 40; ++i) {
            term *= (x / 2 / i) * (x / 2 / i);
            sum += term;
        }
        return sum;
    };
    for (std::size_t k = 0; k < 400; ++k) {
        const double place = static_cast<double>(k) - 199.5;
        const double angle = std::numbers::pi * 2 / 61 * place;
        const double window = bessel(3 * std::sqrt(1 - (place / 199.5) * (place / 199.5)));
        EXPECT_NEAR(cff[k], 2.0 / 61 * std::sin(angle) / angle * window / bessel(3.0), 5.1e-14)
            << k;
    }
}

TEST(GainTablesTest, TheResponseIsThatKnown) {
    EXPECT_NEAR(ResponseDecibels(0.0), -0.005, 0.0005);
    EXPECT_NEAR(ResponseDecibels(0.01), -0.034, 0.0005);
    EXPECT_NEAR(ResponseDecibels(0.02), -37, 0.5);
    EXPECT_NEAR(ResponseDecibels(0.05), -68, 0.5);
    EXPECT_NEAR(ResponseDecibels(0.1), -82, 0.5);
}

}  // namespace
}  // namespace vorrel
