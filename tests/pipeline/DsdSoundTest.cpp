// What gained 1-bit streams sound like, measured on their spectra.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "convert/PlainGain.h"
#include "pipeline/DSDStreamProcessing.h"
#include "support/Spectrum.h"

namespace vorrel {
namespace {

using test::Sound;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kPoints = std::size_t{1} << 20;
// What the filter needs to fill and the modulator to come to rest, before the measured part.
constexpr std::size_t kLeadBytes = 4096;
constexpr std::size_t kBytes = kLeadBytes + kPoints / 8;

struct Rate {
    double rateHz;
    double leastSignalToNoise;  // of the gained tone, in decibels
};

class DsdSoundTest : public testing::TestWithParam<Rate> {
protected:
    Bytes Tone(double amplitude) const { return test::ToneBits(kBytes, amplitude, toneHz, rateHz); }
    Sound Measure(const Bytes& bytes) const {
        std::vector<double> samples(kPoints);
        for (std::size_t i = 0; i < kPoints; ++i) {
            const unsigned byte = bytes[kLeadBytes + i / 8];
            samples[i] = ((byte >> (7 - i % 8)) & 1U) != 0 ? 1.0 : -1.0;
        }
        return test::MeasureSound(samples, toneHz, rateHz);
    }
    Bytes Gained(Bytes bytes, float decibels) const {
        DSDStreamProcessing processing;
        EXPECT_EQ(processing.Init(static_cast<std::int32_t>(rateHz), 0), 0);
        EXPECT_EQ(processing.SetGain(decibels), 0);
        EXPECT_EQ(processing.Process(bytes.data(), bytes.size()), 0);
        return bytes;
    }

    const double rateHz = GetParam().rateHz;
    const double toneHz = test::WholePeriods(1'000, kPoints, rateHz);
};

TEST_P(DsdSoundTest, AToneFallsByTheGainAndNoiseStaysThatOfTheExactModel) {
    const Bytes source = Tone(0.5);
    constexpr float kGainDecibels = -6.02F;

    const Sound before = Measure(source);
    const Sound after = Measure(Gained(source, kGainDecibels));
    const Sound exact =
        Measure(test::DoublePrecisionGain(std::pow(10.0, static_cast<double>(kGainDecibels) / 20))
                    .Processed(source));

    EXPECT_NEAR(after.toneDecibels - before.toneDecibels, -6.02, 0.01);
    EXPECT_NEAR(after.signalToNoiseDecibels, exact.signalToNoiseDecibels, 1.0);
    EXPECT_GT(after.signalToNoiseDecibels, GetParam().leastSignalToNoise);
    RecordProperty("tone", std::to_string(after.toneDecibels - before.toneDecibels));
    RecordProperty("signal_to_noise", std::to_string(after.signalToNoiseDecibels));
    RecordProperty("exact", std::to_string(exact.signalToNoiseDecibels));
}

TEST_P(DsdSoundTest, AQuietToneRisesByTheGain) {
    const Bytes source = Tone(0.1);

    const Sound before = Measure(source);
    const Sound after = Measure(Gained(source, 12.0F));

    EXPECT_NEAR(after.toneDecibels - before.toneDecibels, 12.0, 0.01);
}

INSTANTIATE_TEST_SUITE_P(Rates, DsdSoundTest,
                         testing::Values(Rate{2'822'400, 112}, Rate{5'644'800, 118},
                                         Rate{11'289'600, 122}),
                         [](const testing::TestParamInfo<Rate>& rate) {
                             return "At" + std::to_string(std::lround(rate.param.rateHz));
                         });

}  // namespace
}  // namespace vorrel
