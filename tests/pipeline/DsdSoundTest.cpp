// What gained 1-bit streams sound like, measured on their spectra.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

#include "convert/PlainGain.h"
#include "pipeline/DSDStreamProcessing.h"

namespace vorrel {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr double kRateHz = 2'822'400;
constexpr std::size_t kPoints = std::size_t{1} << 20;
// What the filter needs to fill and the modulator to come to rest, before the measured part.
constexpr std::size_t kLeadBytes = 4096;
constexpr std::size_t kBytes = kLeadBytes + kPoints / 8;
// A whole number of periods in the measured part: 999.9 Hz or so.
const double kToneBin = std::round(1000 * static_cast<double>(kPoints) / kRateHz);
const double kToneHz = kToneBin * kRateHz / static_cast<double>(kPoints);

void Transform(std::vector<std::complex<double>>& values) {
    const std::size_t count = values.size();
    for (std::size_t i = 1, j = 0; i < count; ++i) {
        std::size_t bit = count >> 1;
        for (; (j & bit) != 0; bit >>= 1) {
            j ^= bit;
        }
        j ^= bit;
        if (i < j) {
            std::swap(values[i], values[j]);
        }
    }
    std::vector<std::complex<double>> roots(count / 2);
    for (std::size_t i = 0; i < roots.size(); ++i) {
        roots[i] = std::polar(
            1.0, -2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(count));
    }
    for (std::size_t length = 2; length <= count; length *= 2) {
        for (std::size_t start = 0; start < count; start += length) {
            for (std::size_t i = 0; i < length / 2; ++i) {
                const std::complex<double> turned =
                    values[start + i + length / 2] * roots[i * (count / length)];
                values[start + i + length / 2] = values[start + i] - turned;
                values[start + i] += turned;
            }
        }
    }
}

struct Sound {
    double toneDecibels;
    double signalToNoiseDecibels;  // 20 Hz to 20 kHz
};

Sound Measure(const Bytes& bytes) {
    std::vector<std::complex<double>> values(kPoints);
    for (std::size_t i = 0; i < kPoints; ++i) {
        const unsigned byte = bytes[kLeadBytes + i / 8];
        const unsigned bit = (byte >> (7 - i % 8)) & 1U;
        // A Blackman-Harris window: what leaks from beyond 20 kHz, where the noise of one bit is,
        // stays more than 90 dB down.
        const double turn =
            2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(kPoints);
        const double window = 0.35875 - 0.48829 * std::cos(turn) + 0.14128 * std::cos(2 * turn) -
                              0.01168 * std::cos(3 * turn);
        values[i] = window * (bit != 0 ? 1.0 : -1.0);
    }
    Transform(values);
    double tone = 0;
    double noise = 0;
    for (std::size_t bin = 8; bin < kPoints / 2; ++bin) {
        const double hz = static_cast<double>(bin) * kRateHz / static_cast<double>(kPoints);
        if (hz < 20 || hz > 20'000) {
            continue;
        }
        const double distance = std::fabs(static_cast<double>(bin) - kToneBin);
        (distance < 5 ? tone : noise) += std::norm(values[bin]);
    }
    return {10 * std::log10(tone), 10 * std::log10(tone / noise)};
}

Bytes Gained(Bytes bytes, float decibels) {
    DSDStreamProcessing processing;
    EXPECT_EQ(processing.Init(static_cast<std::int32_t>(kRateHz), 0), 0);
    EXPECT_EQ(processing.SetGain(decibels), 0);
    EXPECT_EQ(processing.Process(bytes.data(), bytes.size()), 0);
    return bytes;
}

TEST(DsdSoundTest, AToneFallsByTheGainAndNoiseStaysThatOfTheExactModel) {
    const Bytes source = test::ToneBits(kBytes, 0.5, kToneHz, kRateHz);
    constexpr float kGainDecibels = -6.02F;

    const Sound before = Measure(source);
    const Sound after = Measure(Gained(source, kGainDecibels));
    const Sound exact =
        Measure(test::DoublePrecisionGain(std::pow(10.0, static_cast<double>(kGainDecibels) / 20))
                    .Processed(source));

    EXPECT_NEAR(after.toneDecibels - before.toneDecibels, -6.02, 0.01);
    EXPECT_NEAR(after.signalToNoiseDecibels, exact.signalToNoiseDecibels, 1.0);
    RecordProperty("tone", std::to_string(after.toneDecibels - before.toneDecibels));
    RecordProperty("signal_to_noise", std::to_string(after.signalToNoiseDecibels));
    RecordProperty("exact", std::to_string(exact.signalToNoiseDecibels));
}

TEST(DsdSoundTest, AQuietToneRisesByTheGain) {
    const Bytes source = test::ToneBits(kBytes, 0.1, kToneHz, kRateHz);

    const Sound before = Measure(source);
    const Sound after = Measure(Gained(source, 12.0F));

    EXPECT_NEAR(after.toneDecibels - before.toneDecibels, 12.0, 0.01);
}

}  // namespace
}  // namespace vorrel
