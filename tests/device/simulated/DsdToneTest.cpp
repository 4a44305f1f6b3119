// The tone of the DSD mode, decoded by a long low-pass filter: its level and the noise beside it.

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <vector>

#include "device/simulated/SampleSource.h"

namespace vorrel {
namespace {

constexpr double kPi = std::numbers::pi;
constexpr double kDecodedRateHz = 88'200.0;

/// A Kaiser-windowed low-pass for `factor` x 88.2 kHz: flat to 20 kHz, 140 dB down from 25 kHz on.
std::vector<double> LowPass(std::size_t factor) {
    const auto bessel = [](double x) {
        double sum = 1.0;
        double term = 1.0;
        for (int k = 1; k < 60; ++k) {
            term *= x / (2 * k) * (x / (2 * k));
            sum += term;
        }
        return sum;
    };
    constexpr double kBeta = 14.4;
    constexpr double kCutoffHz = 22'500.0;
    const std::size_t count = factor * 160 + 1;
    const double middle = static_cast<double>(count - 1) / 2;
    const double cycles = kCutoffHz / (kDecodedRateHz * static_cast<double>(factor));
    std::vector<double> taps(count);
    double sum = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        const double distance = static_cast<double>(i) - middle;
        const double angle = 2 * kPi * cycles * distance;
        const double sinc = distance == 0.0 ? 1.0 : std::sin(angle) / angle;
        const double edge = distance / middle;
        taps[i] = sinc * bessel(kBeta * std::sqrt(1 - edge * edge)) / bessel(kBeta);
        sum += taps[i];
    }
    for (double& tap : taps) {
        tap /= sum;
    }
    return taps;
}

/// The first channel's bits, earliest first, as +1 and -1.
std::vector<double> Bits(const SimulatedRecorderConfig& config, double bitRateHz,
                         std::size_t words) {
    std::vector<float> samples(words * config.channels);
    MakeSampleSource(config, {bitRateHz / 16, 16, config.channels, true})
        ->Read(samples.data(), words);
    std::vector<double> bits;
    bits.reserve(words * 16);
    for (std::size_t i = 0; i < samples.size(); i += config.channels) {
        const auto word =
            static_cast<std::uint16_t>(static_cast<std::int16_t>(samples[i] * 32'768.0F));
        for (const unsigned byte : {word & 0xFFU, unsigned{word} >> 8}) {
            for (int bit = 7; bit >= 0; --bit) {
                bits.push_back((byte >> bit & 1U) != 0 ? 1.0 : -1.0);
            }
        }
    }
    return bits;
}

struct Measured {
    double levelDb;       // peak of the tone against full scale
    double noiseFloorDb;  // power of all else up to 20 kHz against a sine of full scale
};

Measured Measure(double bitRateHz, double frequencyHz, double levelDb) {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::Tone;
    config.channels = 2;
    config.frequencyHz = frequencyHz;
    config.levelDb = levelDb;
    const auto factor = static_cast<std::size_t>(bitRateHz / kDecodedRateHz);
    const std::vector<double> taps = LowPass(factor);
    // 100 ms: whole periods of every multiple of 10 Hz. The first 10 ms are left out.
    constexpr std::size_t kCount = 8'820;
    const std::size_t first = 882 * factor;
    const std::size_t needed = first + kCount * factor + taps.size();
    const std::vector<double> bits = Bits(config, bitRateHz, needed / 16 + 1);

    std::vector<double> decoded(kCount);
    for (std::size_t n = 0; n < kCount; ++n) {
        const double* const from = bits.data() + first + n * factor;
        double sums[4] = {};
        for (std::size_t k = 0; k + 3 < taps.size(); k += 4) {
            for (std::size_t lane = 0; lane < 4; ++lane) {
                sums[lane] += taps[k + lane] * from[k + lane];
            }
        }
        decoded[n] = sums[0] + sums[1] + sums[2] + sums[3];  // the last tap is as good as 0
    }
    const auto angle = [&](std::size_t n) {
        return 2 * kPi * frequencyHz / kDecodedRateHz * static_cast<double>(n);
    };
    double cosine = 0.0;
    double sine = 0.0;
    double mean = 0.0;
    for (std::size_t n = 0; n < kCount; ++n) {
        cosine += decoded[n] * std::cos(angle(n)) * 2 / kCount;
        sine += decoded[n] * std::sin(angle(n)) * 2 / kCount;
        mean += decoded[n] / kCount;
    }
    double residue = 0.0;
    for (std::size_t n = 0; n < kCount; ++n) {
        const double rest =
            decoded[n] - cosine * std::cos(angle(n)) - sine * std::sin(angle(n)) - mean;
        residue += rest * rest / kCount;
    }
    return {20 * std::log10(std::hypot(cosine, sine)), 10 * std::log10(residue / 0.5)};
}

TEST(DsdToneTest, AtDsd64TheToneHasItsLevelAndStandsMoreThanAHundredDecibelsAboveTheNoise) {
    const Measured tone = Measure(2'822'400, 1'000, -6.1);

    EXPECT_NEAR(tone.levelDb, -6.1, 0.001);
    EXPECT_LT(tone.noiseFloorDb, tone.levelDb - 105.0);
    RecordProperty("snrDb", std::to_string(tone.levelDb - tone.noiseFloorDb));
}

TEST(DsdToneTest, TheToneHasItsLevelFromLowToHigh) {
    for (const double frequencyHz : {50.0, 10'000.0, 19'000.0}) {
        const Measured tone = Measure(2'822'400, frequencyHz, -10.0);

        EXPECT_NEAR(tone.levelDb, -10.0, 0.05) << frequencyHz;
        EXPECT_LT(tone.noiseFloorDb, -110.0) << frequencyHz;
    }
}

TEST(DsdToneTest, AQuietToneLiesUnderNoSpuriousOnes) {
    for (const double levelDb : {-20.0, -60.0}) {
        const Measured tone = Measure(2'822'400, 1'000, levelDb);

        EXPECT_NEAR(tone.levelDb, levelDb, 0.01);
        EXPECT_LT(tone.noiseFloorDb, -110.0);
    }
}

TEST(DsdToneTest, AtTheHigherRatesThereIsEvenLessNoise) {
    for (const double bitRateHz : {5'644'800.0, 11'289'600.0}) {
        const Measured tone = Measure(bitRateHz, 1'000, -6.1);

        EXPECT_NEAR(tone.levelDb, -6.1, 0.001) << bitRateHz;
        EXPECT_LT(tone.noiseFloorDb, -120.0) << bitRateHz;
    }
}

}  // namespace
}  // namespace vorrel
