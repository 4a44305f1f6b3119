#include "convert/PcmKernels.h"

#include <gtest/gtest.h>

#include <span>
#include <vector>

#include "convert/KernelSets.h"
#include "convert/PlainConverters.h"

namespace vorrel {
namespace {

using test::GuardedBytes;
using test::KernelSet;
using test::PlacedBytes;

constexpr std::size_t kWidths[] = {2, 3, 4};

/// Every set of kernels this machine can run, held against the plain version.
class PcmKernelsTest : public ::testing::TestWithParam<KernelSet> {
protected:
    static void Convert(std::uint8_t* out, const std::uint8_t* in, std::size_t count,
                        std::size_t width) {
        const PcmKernels& kernels = *GetParam().kernels;
        (width == 2   ? kernels.toInt16
         : width == 3 ? kernels.toInt24
                      : kernels.toInt32)(out, in, count);
    }

    static void ExpectSameAsPlain(std::span<const float> samples, std::size_t width,
                                  std::size_t inMisalignment = 0, std::size_t outMisalignment = 0) {
        const PlacedBytes in(samples.data(), samples.size_bytes(), inMisalignment);
        GuardedBytes out(samples.size() * width, outMisalignment);

        Convert(out.data(), in.data(), samples.size(), width);

        ASSERT_EQ(out.Contents(), test::PlainConvert(samples, width))
            << samples.size() << " samples of " << width << " bytes";
        ASSERT_TRUE(out.Intact()) << samples.size() << " samples of " << width << " bytes";
    }

    static void ExpectGainSameAsPlain(const std::vector<std::vector<float>>& channels,
                                      std::size_t frames, float gain, std::size_t width,
                                      std::size_t misalignment = 0) {
        std::vector<const float*> pointers;
        for (const std::vector<float>& channel : channels) {
            pointers.push_back(channel.data());
        }
        GuardedBytes out(channels.size() * frames * width, misalignment);

        GetParam().kernels->gainConvertInterleave(out.data(), pointers.data(), pointers.size(),
                                                  frames, gain, width);

        ASSERT_EQ(out.Contents(), test::PlainGainConvertInterleave(channels, frames, gain, width))
            << channels.size() << " channels, " << frames << " frames of " << width << " bytes";
        ASSERT_TRUE(out.Intact()) << channels.size() << " channels, " << frames << " frames of "
                                  << width << " bytes";
    }

    static void ExpectSplitSameAsPlain(std::size_t channels, std::size_t frames,
                                       std::size_t misalignment) {
        std::vector<std::uint32_t> words(channels * frames);
        std::mt19937 random(static_cast<std::uint32_t>(channels * 1000 + frames));
        for (std::uint32_t& word : words) {
            word = static_cast<std::uint32_t>(random());
        }
        const PlacedBytes in(words.data(), words.size() * 4, misalignment);
        std::vector<GuardedBytes> lanes;
        lanes.reserve(channels);
        std::vector<std::uint8_t*> pointers;
        for (std::size_t channel = 0; channel < channels; ++channel) {
            lanes.emplace_back(frames * 4);
            pointers.push_back(lanes.back().data());
        }

        GetParam().kernels->splitLanes(pointers.data(), channels, in.data(), frames);

        for (std::size_t channel = 0; channel < channels; ++channel) {
            const std::vector<std::uint32_t> plain = test::PlainLane(words, channels, channel);
            const std::vector<std::uint8_t> contents = lanes[channel].Contents();
            ASSERT_TRUE(frames == 0 || std::memcmp(contents.data(), plain.data(), frames * 4) == 0)
                << "channel " << channel << " of " << channels << ", " << frames << " frames";
            ASSERT_TRUE(lanes[channel].Intact());
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Sets, PcmKernelsTest, ::testing::ValuesIn(test::KernelSets()),
                         &test::KernelSetName);

TEST_P(PcmKernelsTest, ConvertsEveryLengthAtEveryAlignment) {
    const std::vector<float> samples = test::RandomFloats(300, 10);
    for (const std::size_t width : kWidths) {
        for (std::size_t count = 0; count <= 70; ++count) {
            for (std::size_t misalignment = 0; misalignment < 64; misalignment += 5) {
                ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(std::span(samples).first(count), width,
                                                          misalignment, (misalignment * 3) % 64));
            }
        }
        for (std::size_t count = 71; count <= 300; ++count) {
            ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(std::span(samples).first(count), width));
        }
    }
}

TEST_P(PcmKernelsTest, ConvertsSpecialValuesAtEveryPlaceOfABlock) {
    std::vector<float> samples = test::SpecialFloats();
    for (const std::size_t width : kWidths) {
        for (std::size_t shift = 0; shift < 64; ++shift) {
            ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(samples, width));
            samples.insert(samples.begin(), 0.125F);
        }
    }
}

TEST_P(PcmKernelsTest, ConvertsRandomBitPatterns) {
    for (std::uint32_t seed = 20; seed < 24; ++seed) {
        const std::vector<float> samples = test::RandomFloats(100'003, seed);
        for (const std::size_t width : kWidths) {
            ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(samples, width));
        }
    }
}

TEST_P(PcmKernelsTest, AValueBeyondThe32BitRangeDoesNotWrapToTheOtherSign) {
    for (const std::size_t width : kWidths) {
        ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(std::vector<float>(65, 65536.0F), width));
        ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(std::vector<float>(65, 1e30F), width));
        ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(std::vector<float>(65, -1e30F), width));
    }
}

TEST_P(PcmKernelsTest, GainConvertInterleaveTakesAnyNumberOfChannelsAndFrames) {
    for (const std::size_t channelCount : {1U, 2U, 3U, 4U, 5U, 6U, 8U, 11U}) {
        std::vector<std::vector<float>> channels;
        for (std::size_t channel = 0; channel < channelCount; ++channel) {
            channels.push_back(
                test::RandomFloats(300, static_cast<std::uint32_t>(100 * channelCount + channel)));
        }
        for (const std::size_t width : kWidths) {
            for (std::size_t frames = 0; frames <= 70; ++frames) {
                ASSERT_NO_FATAL_FAILURE(
                    ExpectGainSameAsPlain(channels, frames, 1.4125376F, width, frames % 64));
            }
            for (const std::size_t frames : {127U, 128U, 129U, 255U, 256U, 257U, 300U}) {
                ASSERT_NO_FATAL_FAILURE(
                    ExpectGainSameAsPlain(channels, frames, 0.70794576F, width));
            }
        }
    }
}

TEST_P(PcmKernelsTest, GainIsAProductOfItsOwnBeforeTheScaling) {
    // At the ends of the float range one combined factor would give something else.
    const std::vector<float> special = test::SpecialFloats();
    const std::vector<float> random = test::RandomFloats(special.size(), 30);
    for (const float gain :
         {1.0F, 0.0F, -1.0F, 0.5F, 1.0000001F, 0.3333333F, 1e30F, 1e35F, 3e38F, 1e-35F, 1e-42F,
          std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()}) {
        for (const std::size_t width : kWidths) {
            ASSERT_NO_FATAL_FAILURE(ExpectGainSameAsPlain({special}, special.size(), gain, width));
            ASSERT_NO_FATAL_FAILURE(
                ExpectGainSameAsPlain({special, random}, special.size(), gain, width));
            ASSERT_NO_FATAL_FAILURE(
                ExpectGainSameAsPlain({random, special, random}, special.size(), gain, width));
        }
    }
}

TEST_P(PcmKernelsTest, SplitsAnyNumberOfChannelsAndFramesBitForBit) {
    for (const std::size_t channels : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 16U}) {
        for (std::size_t frames = 0; frames <= 70; ++frames) {
            ASSERT_NO_FATAL_FAILURE(ExpectSplitSameAsPlain(channels, frames, (4 * frames) % 64));
        }
        for (const std::size_t frames : {255U, 256U, 257U, 600U}) {
            ASSERT_NO_FATAL_FAILURE(ExpectSplitSameAsPlain(channels, frames, 0));
        }
    }
}

}  // namespace
}  // namespace vorrel
