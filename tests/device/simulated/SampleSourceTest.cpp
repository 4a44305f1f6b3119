#include "device/simulated/SampleSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <numbers>
#include <set>
#include <vector>

namespace vorrel {
namespace {

using testing::Each;
using testing::ElementsAre;

SimulatedRecorderConfig Config(SimulatedSource source) {
    SimulatedRecorderConfig config;
    config.source = source;
    config.channels = 2;
    return config;
}

std::vector<float> Read(const SimulatedRecorderConfig& config, const SourceFormat& format,
                        const std::vector<std::size_t>& portions) {
    const std::unique_ptr<SampleSource> source = MakeSampleSource(config, format);
    std::vector<float> all;
    for (const std::size_t frames : portions) {
        std::vector<float> portion(frames * format.channels);
        source->Read(portion.data(), frames);
        all.insert(all.end(), portion.begin(), portion.end());
    }
    return all;
}

std::uint16_t WordOf(float value) {
    return static_cast<std::uint16_t>(static_cast<std::int16_t>(value * 32'768.0F));
}

constexpr SourceFormat kPcm48k{48'000, 24, 2, false};
constexpr SourceFormat kDsd64{176'400, 16, 2, true};

TEST(SampleSourceTest, EveryGeneratedSourceDeliversTheSameInWhateverPortions) {
    for (const SimulatedSource source :
         {SimulatedSource::Tone, SimulatedSource::Sweep, SimulatedSource::Noise,
          SimulatedSource::Counter, SimulatedSource::Silence}) {
        for (const SourceFormat& format : {kPcm48k, kDsd64}) {
            EXPECT_EQ(Read(Config(source), format, {1000}),
                      Read(Config(source), format, {1, 499, 14, 486}))
                << static_cast<int>(source) << " " << format.dsd;
        }
    }
}

TEST(SampleSourceTest, TheCounterCountsOverFramesAndChannels) {
    const std::vector<float> samples = Read(Config(SimulatedSource::Counter), kPcm48k, {3});

    constexpr float kUnit = 1.0F / 8'388'608.0F;
    EXPECT_THAT(samples, ElementsAre(0.0F, kUnit, 2 * kUnit, 3 * kUnit, 4 * kUnit, 5 * kUnit));
}

TEST(SampleSourceTest, TheCounterTurnsNegativeAtHalfItsRangeAndBeginsAgain) {
    EXPECT_EQ(CounterSample(4'194'303, 1, 2), 8'388'607.0F / 8'388'608.0F);
    EXPECT_EQ(CounterSample(4'194'304, 0, 2), -1.0F);
    EXPECT_EQ(CounterSample(8'388'607, 1, 2), -1.0F / 8'388'608.0F);
    EXPECT_EQ(CounterSample(8'388'608, 0, 2), 0.0F);
}

TEST(SampleSourceTest, TheCounterIsWhatTheFunctionsSay) {
    const std::vector<float> pcm = Read(Config(SimulatedSource::Counter), kPcm48k, {70'000});
    const std::vector<float> dsd = Read(Config(SimulatedSource::Counter), kDsd64, {70'000});

    for (const std::uint64_t frame : {0U, 1U, 32'768U, 69'999U}) {
        for (const std::uint32_t channel : {0U, 1U}) {
            EXPECT_EQ(pcm[frame * 2 + channel], CounterSample(frame, channel, 2));
            EXPECT_EQ(WordOf(dsd[frame * 2 + channel]), CounterWord(frame, channel, 2));
        }
    }
    EXPECT_EQ(CounterWord(69'999, 1, 2), 139'999 - 2 * 65'536);
}

TEST(SampleSourceTest, SilenceIsZeroInPcmAndTheIdlePatternInDsd) {
    EXPECT_THAT(Read(Config(SimulatedSource::Silence), kPcm48k, {100}), Each(0.0F));
    EXPECT_THAT(Read(Config(SimulatedSource::Silence), kDsd64, {100}), Each(0x6969 / 32'768.0F));
}

TEST(SampleSourceTest, TheToneIsTheSineRoundedToTheFormatsBits) {
    SimulatedRecorderConfig config = Config(SimulatedSource::Tone);
    config.frequencyHz = 12'000.0;  // a quarter of the rate
    config.levelDb = 0.0;

    // Full scale is one step short of +1.
    EXPECT_THAT(Read(config, {48'000, 16, 1, false}, {4}),
                ElementsAre(0.0F, 32'767.0F / 32'768.0F, 0.0F, -1.0F));
    EXPECT_THAT(Read(config, {48'000, 24, 1, false}, {4}),
                ElementsAre(0.0F, 8'388'607.0F / 8'388'608.0F, 0.0F, -1.0F));
    // 2^31 - 1 has no float of its own.
    EXPECT_THAT(Read(config, {48'000, 32, 1, false}, {2}), ElementsAre(0.0F, 1.0F));
}

TEST(SampleSourceTest, TheToneHasItsLevelAndFrequencyInAllChannels) {
    SimulatedRecorderConfig config = Config(SimulatedSource::Tone);
    config.levelDb = -20.0;
    const std::vector<float> samples = Read(config, kPcm48k, {48'000});

    int rises = 0;
    float peak = 0.0F;
    for (std::size_t frame = 0; frame < 48'000; ++frame) {
        ASSERT_EQ(samples[frame * 2], samples[frame * 2 + 1]);
        peak = std::max(peak, samples[frame * 2]);
        rises += frame > 0 && samples[frame * 2] > 0.0F && samples[frame * 2 - 2] <= 0.0F ? 1 : 0;
    }
    EXPECT_NEAR(peak, 0.1F, 1e-6);
    EXPECT_EQ(rises, 1'000);
}

TEST(SampleSourceTest, SixteenBitSourcesDeliverOnlyMultiplesOfASixteenBitStep) {
    for (const SimulatedSource source :
         {SimulatedSource::Tone, SimulatedSource::Sweep, SimulatedSource::Noise}) {
        for (const float sample : Read(Config(source), {44'100, 16, 2, false}, {5'000})) {
            const float steps = sample * 32'768.0F;
            ASSERT_EQ(steps, std::nearbyint(steps));
        }
    }
}

TEST(SampleSourceTest, TheSweepRisesFromTwentyHertzAndBeginsAgainAfterTenSeconds) {
    const std::vector<float> samples =
        Read(Config(SimulatedSource::Sweep), {48'000, 32, 1, false}, {490'000});

    // The first second runs from 20 Hz to 20 x 10^0.3 = 39.9 Hz: 20 x 10 / ln(1000) x (10^0.3 - 1)
    // = 28.8 periods. The last one is a thousand times, less one tenth of a decade, as fast.
    const auto risesBetween = [&samples](std::size_t from, std::size_t to) {
        int rises = 0;
        for (std::size_t frame = from + 1; frame < to; ++frame) {
            rises += samples[frame] > 0.0F && samples[frame - 1] <= 0.0F ? 1 : 0;
        }
        return rises;
    };
    EXPECT_NEAR(risesBetween(0, 48'000), 28.8, 1.1);
    // 20 x 10 / ln(1000) x (1000 - 10^2.7) = 14442 periods.
    EXPECT_NEAR(risesBetween(432'000, 480'000), 14'442, 2);
    EXPECT_EQ(samples[480'000], samples[0]);
    EXPECT_EQ(samples[489'999], samples[9'999]);
}

TEST(SampleSourceTest, TheNoiseFollowsItsSeedAndItsLevel) {
    SimulatedRecorderConfig config = Config(SimulatedSource::Noise);
    config.levelDb = -6.0;
    const std::vector<float> first = Read(config, kPcm48k, {50'000});
    config.seed = 2;
    const std::vector<float> second = Read(config, kPcm48k, {50'000});

    EXPECT_NE(first, second);
    double sum = 0.0;
    double squares = 0.0;
    for (const float sample : first) {
        ASSERT_LE(std::abs(sample), 0.50119);
        sum += sample;
        squares += static_cast<double>(sample) * sample;
    }
    EXPECT_NEAR(sum / 100'000, 0.0, 0.005);
    // Evenly spread over -0.5012 to 0.5012: the mean square is a third of the peak's.
    EXPECT_NEAR(squares / 100'000, 0.2512 / 3, 0.002);
}

TEST(SampleSourceTest, NoiseInDsdUsesAllBitPatterns) {
    std::set<std::uint16_t> lowBytes;
    std::set<std::uint16_t> highBytes;
    for (const float value : Read(Config(SimulatedSource::Noise), kDsd64, {5'000})) {
        lowBytes.insert(WordOf(value) & 0xFF);
        highBytes.insert(static_cast<std::uint16_t>(WordOf(value) >> 8));
    }

    EXPECT_EQ(lowBytes.size(), 256U);
    EXPECT_EQ(highBytes.size(), 256U);
}

TEST(SampleSourceTest, DsdWordsAreExactMultiplesOfOneStep) {
    EXPECT_EQ(DsdWordToFloat(0x0000), 0.0F);
    EXPECT_EQ(DsdWordToFloat(0x4000), 0.5F);
    EXPECT_EQ(DsdWordToFloat(0x8000), -1.0F);
    EXPECT_EQ(DsdWordToFloat(0xFFFF), -1.0F / 32'768.0F);
    EXPECT_EQ(DsdWordToFloat(0x7FFF), 32'767.0F / 32'768.0F);
}

/// Bits of one channel in the order in which they were sampled.
std::vector<int> Bits(const std::vector<float>& words, std::size_t channels) {
    std::vector<int> bits;
    for (std::size_t i = 0; i < words.size(); i += channels) {
        const std::uint16_t word = WordOf(words[i]);
        for (const unsigned byte : {word & 0xFFU, static_cast<unsigned>(word >> 8)}) {
            for (int bit = 7; bit >= 0; --bit) {
                bits.push_back((byte >> bit & 1) != 0 ? 1 : -1);
            }
        }
    }
    return bits;
}

TEST(SampleSourceTest, TheDsdToneReadByteByByteFromTheLowOneIsTheTone) {
    for (const double wordRateHz : {176'400.0, 352'800.0, 705'600.0}) {
        SimulatedRecorderConfig config = Config(SimulatedSource::Tone);
        config.levelDb = -12.0;
        const auto words = static_cast<std::size_t>(wordRateHz / 10);  // 100 periods
        const std::vector<int> bits = Bits(Read(config, {wordRateHz, 16, 2, true}, {words}), 2);

        // Correlation with the sine and the cosine at 1 kHz.
        double inPhase = 0.0;
        double quadrature = 0.0;
        for (std::size_t n = 0; n < bits.size(); ++n) {
            const double angle =
                2.0 * std::numbers::pi * 1000.0 * static_cast<double>(n) / (wordRateHz * 16);
            inPhase += bits[n] * std::sin(angle);
            quadrature += bits[n] * std::cos(angle);
        }
        const double scale = 2.0 / static_cast<double>(bits.size());
        EXPECT_NEAR(inPhase * scale, 0.2512, 0.002) << wordRateHz;
        EXPECT_NEAR(quadrature * scale, 0.0, 0.002) << wordRateHz;
    }
}

/// What a low-pass leaves of the bits besides the tone of 1 kHz, as mean power.
double ResidueOfTheBand(const std::vector<int>& bits) {
    std::vector<double> filtered(bits.begin(), bits.end());
    constexpr std::size_t kTaps = 48;
    for (int stage = 0; stage < 5; ++stage) {
        double sum = 0.0;
        std::vector<double> next;
        for (std::size_t n = 0; n < filtered.size(); ++n) {
            sum += filtered[n] - (n >= kTaps ? filtered[n - kTaps] : 0.0);
            if (n + 1 >= kTaps) {
                next.push_back(sum / kTaps);
            }
        }
        filtered = std::move(next);
    }
    // Ten whole periods from the middle, less their projection on the tone.
    constexpr std::size_t kCount = 28'224;
    const auto begin = filtered.begin() + 50'000;
    double inPhase = 0.0;
    double quadrature = 0.0;
    double power = 0.0;
    for (std::size_t n = 0; n < kCount; ++n) {
        const double value = begin[static_cast<std::ptrdiff_t>(n)];
        const double angle = 2.0 * std::numbers::pi * static_cast<double>(n) / 2'822.4;
        inPhase += value * std::sin(angle) / kCount;
        quadrature += value * std::cos(angle) / kCount;
        power += value * value / kCount;
    }
    return power - 2.0 * (inPhase * inPhase + quadrature * quadrature);
}

TEST(SampleSourceTest, ReadInTheWrongByteOrderTheDsdToneIsFullOfNoise) {
    const std::vector<float> words = Read(Config(SimulatedSource::Tone), kDsd64, {17'640});
    std::vector<float> swapped;
    for (const float word : words) {
        const std::uint16_t bits = WordOf(word);
        swapped.push_back(DsdWordToFloat(static_cast<std::uint16_t>(bits << 8 | bits >> 8)));
    }

    const double right = ResidueOfTheBand(Bits(words, 2));
    const double wrong = ResidueOfTheBand(Bits(swapped, 2));

    EXPECT_LT(right, 1e-7);
    EXPECT_GT(wrong, 100.0 * right);
}

TEST(SampleSourceTest, AFullScaleDsdToneIsHeldAtHalfOfFullScale) {
    SimulatedRecorderConfig config = Config(SimulatedSource::Tone);
    config.levelDb = 0.0;
    const std::vector<int> bits = Bits(Read(config, kDsd64, {17'640}), 2);

    double inPhase = 0.0;
    for (std::size_t n = 0; n < bits.size(); ++n) {
        inPhase += bits[n] * std::sin(2.0 * std::numbers::pi * static_cast<double>(n) / 2'822.4);
    }
    EXPECT_NEAR(inPhase * 2.0 / static_cast<double>(bits.size()), 0.5, 0.002);
}

}  // namespace
}  // namespace vorrel
