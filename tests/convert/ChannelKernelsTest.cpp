#include "convert/ChannelKernels.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "convert/KernelSets.h"
#include "convert/PcmConverters.h"
#include "convert/PlainConverters.h"

namespace vorrel {
namespace {

using test::GuardedBytes;

TEST(ChannelKernelsTest, CopyLaneTakesOneChannelOfEveryFrame) {
    const float frames[] = {1.0F, 2.0F, 3.0F, 4.0F, 5.0F, 6.0F};
    GuardedBytes out(2 * sizeof(float));

    CopyLane(out.data(), frames, 2, 3, 1);

    const float expected[] = {2.0F, 5.0F};
    EXPECT_EQ(std::memcmp(out.data(), expected, sizeof expected), 0);
    EXPECT_TRUE(out.Intact());
}

TEST(ChannelKernelsTest, CopyLaneOfASingleChannelCopiesItWhole) {
    const std::vector<float> samples = test::SpecialFloats();
    GuardedBytes out(samples.size() * sizeof(float));

    CopyLane(out.data(), samples.data(), samples.size(), 1, 0);

    EXPECT_EQ(std::memcmp(out.data(), samples.data(), samples.size() * sizeof(float)), 0);
    EXPECT_TRUE(out.Intact());
}

TEST(ChannelKernelsTest, NoFramesWriteNothing) {
    GuardedBytes out(0);
    std::uint8_t* const outs[] = {out.data(), out.data()};
    const float* const channels[] = {nullptr, nullptr};

    CopyLane(out.data(), nullptr, 0, 1, 0);
    CopyLane(out.data(), nullptr, 0, 2, 1);
    SplitLanes(outs, nullptr, 0);
    for (const std::size_t width : {2U, 3U, 4U}) {
        GainConvertInterleave(out.data(), channels, 0, 1.0F, width);
    }

    EXPECT_TRUE(out.Intact());
}

TEST(ChannelKernelsTest, SplitLanesGivesTheSameAsCopyLaneForEachChannel) {
    constexpr std::size_t kFrames = 333;
    for (const std::size_t channels : {1U, 2U, 3U, 4U, 6U, 8U}) {
        const std::vector<float> in = test::RandomFloats(channels * kFrames, 40);
        std::vector<std::vector<std::uint8_t>> split(channels,
                                                     std::vector<std::uint8_t>(kFrames * 4));
        std::vector<std::uint8_t*> outs;
        for (std::vector<std::uint8_t>& lane : split) {
            outs.push_back(lane.data());
        }

        SplitLanes(outs, in.data(), kFrames);

        for (std::size_t channel = 0; channel < channels; ++channel) {
            GuardedBytes lane(kFrames * 4);
            CopyLane(lane.data(), in.data(), kFrames, channels, channel);
            EXPECT_EQ(split[channel], lane.Contents());
            EXPECT_TRUE(lane.Intact());
        }
    }
}

TEST(ChannelKernelsTest, SplitLanesKeepsTheBitsOfWordsThatAreNoNumbers) {
    const std::uint32_t words[] = {0x7F80'0001, 0xFFC1'2345, 0x0000'0001, 0x8000'0000};
    float in[4];
    std::memcpy(in, words, sizeof in);
    GuardedBytes left(8);
    GuardedBytes right(8);
    std::uint8_t* const outs[] = {left.data(), right.data()};

    SplitLanes(outs, in, 2);

    const std::uint32_t expectedLeft[] = {words[0], words[2]};
    const std::uint32_t expectedRight[] = {words[1], words[3]};
    EXPECT_EQ(std::memcmp(left.data(), expectedLeft, 8), 0);
    EXPECT_EQ(std::memcmp(right.data(), expectedRight, 8), 0);
}

TEST(ChannelKernelsTest, GainConvertInterleavePutsChannelZeroFirst) {
    const float left[] = {0.5F, -0.5F};
    const float right[] = {0.25F, -1.0F};
    const float* const channels[] = {left, right};
    GuardedBytes out(8);

    GainConvertInterleave(out.data(), channels, 2, 0.5F, 2);

    // 8192, 4096, -8192, -16384
    EXPECT_EQ(out.Contents(),
              (std::vector<std::uint8_t>{0x00, 0x20, 0x00, 0x10, 0x00, 0xE0, 0x00, 0xC0}));
    EXPECT_TRUE(out.Intact());
}

TEST(ChannelKernelsTest, UnityGainGivesTheConvertersBytes) {
    const std::vector<float> samples = test::SpecialFloats();
    const float* const channels[] = {samples.data()};
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(samples.data());
    GuardedBytes gained16(samples.size() * 2);
    GuardedBytes plain16(samples.size() * 2);
    GuardedBytes gained24(samples.size() * 3);
    GuardedBytes plain24(samples.size() * 3);
    GuardedBytes gained32(samples.size() * 4);
    GuardedBytes plain32(samples.size() * 4);

    GainConvertInterleave(gained16.data(), channels, samples.size(), 1.0F, 2);
    GainConvertInterleave(gained24.data(), channels, samples.size(), 1.0F, 3);
    GainConvertInterleave(gained32.data(), channels, samples.size(), 1.0F, 4);
    Float32_To_Int16LSB<false>(plain16.data(), bytes, samples.size());
    Float32_To_Int24LSB<false>(plain24.data(), bytes, samples.size());
    Float32_To_Int32LSB<false>(plain32.data(), bytes, samples.size());

    EXPECT_EQ(gained16.Contents(), plain16.Contents());
    EXPECT_EQ(gained24.Contents(), plain24.Contents());
    EXPECT_EQ(gained32.Contents(), plain32.Contents());
}

TEST(ChannelKernelsTest, GainThatOverdrivesSaturates) {
    const float sample[] = {0.75F, -0.75F};
    const float* const channels[] = {sample};
    GuardedBytes out(4);

    GainConvertInterleave(out.data(), channels, 2, 2.0F, 2);

    EXPECT_EQ(out.Contents(), (std::vector<std::uint8_t>{0xFF, 0x7F, 0x00, 0x80}));
}

}  // namespace
}  // namespace vorrel
