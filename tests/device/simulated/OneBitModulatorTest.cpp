#include "device/simulated/OneBitModulator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace vorrel {
namespace {

constexpr double kRateHz = 2'822'400.0;

TEST(OneBitModulatorTest, TheMeanOfTheBitsIsTheInput) {
    for (const double level : {-0.5, -0.25, 0.0, 0.1, 0.5}) {
        OneBitModulator modulator;
        constexpr int kBits = 1'000'000;
        int sum = 0;
        for (int bit = 0; bit < kBits; ++bit) {
            sum += modulator.Next(level) ? 1 : -1;
        }

        EXPECT_NEAR(static_cast<double>(sum) / kBits, level, 1e-4);
    }
}

TEST(OneBitModulatorTest, ASineComesBackNinetyDecibelsAboveTheNoiseOfTheBand) {
    // A whole number of periods in a power-of-two window; the window itself needs no tapering for
    // the tone, and a Hann window keeps the noise above the band from leaking into it.
    constexpr int kBits = 1 << 20;
    constexpr int kToneBin = 372;     // 1001.3 Hz
    constexpr int kBandBins = 7'430;  // 20 kHz
    OneBitModulator modulator;
    std::vector<double> bits(kBits);
    for (int n = 0; n < kBits; ++n) {
        const double angle = 2.0 * std::numbers::pi * kToneBin * n / kBits;
        const double hann = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * n / kBits);
        bits[static_cast<std::size_t>(n)] =
            (modulator.Next(0.5 * std::sin(angle)) ? 1.0 : -1.0) * hann;
    }
    // Power at one bin by Goertzel's recursion.
    const auto power = [&bits](int bin) {
        const double factor = 2.0 * std::cos(2.0 * std::numbers::pi * bin / kBits);
        double s1 = 0.0;
        double s2 = 0.0;
        for (const double bit : bits) {
            const double s0 = bit + factor * s1 - s2;
            s2 = s1;
            s1 = s0;
        }
        return s1 * s1 + s2 * s2 - factor * s1 * s2;
    };

    const double tone = power(kToneBin);
    // A sample of the band's bins stands for all of them.
    double noise = 0.0;
    int looked = 0;
    for (int bin = 20; bin < kBandBins; bin += 149) {
        if (std::abs(bin - kToneBin) > 3) {
            noise += power(bin);
            ++looked;
        }
    }
    noise *= static_cast<double>(kBandBins) / looked;

    // Under this window the sum over the tone's bins is 1.5 times its middle one.
    EXPECT_GT(10.0 * std::log10(1.5 * tone / noise), 90.0);
    // Amplitude 0.5, halved by the window's mean, over half the bits.
    EXPECT_NEAR(std::sqrt(tone) / kBits, 0.5 * 0.5 * 0.5, 1e-3);
}

TEST(OneBitModulatorTest, StaysStableOverALongSweepAtItsHighestInput) {
    OneBitModulator modulator;
    double phase = 0.0;
    double leaking = 0.0;  // a low-pass over the bits: runs off when the modulator locks up
    double largest = 0.0;
    for (int n = 0; n < 5'000'000; ++n) {
        const double frequencyHz = 20.0 * std::pow(1000.0, n / 5e6);
        phase += 2.0 * std::numbers::pi * frequencyHz / kRateHz;
        const double bit =
            modulator.Next(OneBitModulator::kMaximumInput * std::sin(phase)) ? 1 : -1;
        leaking += (bit - leaking) / 32.0;
        largest = std::max(largest, std::abs(leaking));
    }

    EXPECT_LT(largest, 0.8);
}

TEST(OneBitModulatorTest, RecoversFromAnInputBeyondItsRange) {
    OneBitModulator modulator;
    for (int n = 0; n < 10'000; ++n) {
        modulator.Next(2.0);
    }
    for (int n = 0; n < 10'000; ++n) {
        modulator.Next(0.0);
    }
    int sum = 0;
    for (int n = 0; n < 100'000; ++n) {
        sum += modulator.Next(0.25) ? 1 : -1;
    }

    EXPECT_NEAR(sum / 1e5, 0.25, 1e-3);
}

}  // namespace
}  // namespace vorrel
