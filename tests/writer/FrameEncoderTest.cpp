#include "writer/FrameEncoder.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "support/FileBytes.h"
#include "writer/Interleave.h"

namespace vorrel {
namespace {

using test::Bytes;

AlignedBytes Buffer(std::initializer_list<std::uint8_t> bytes) {
    return AlignedBytes(bytes.begin(), bytes.end());
}

AlignedBytes Floats(const std::vector<float>& samples) {
    AlignedBytes bytes(samples.size() * sizeof(float));
    std::memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}

void Int16ToFloat(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    for (std::size_t index = 0; index < count; ++index) {
        std::int16_t sample = 0;
        std::memcpy(&sample, source + 2 * index, sizeof(sample));
        const float value = static_cast<float>(sample) / 32'768.0f;
        std::memcpy(destination + 4 * index, &value, sizeof(value));
    }
}

/// A sample type that holds floats like type 0 without being it: it goes the way step by step.
SampleTypeInfo OtherFloats() {
    SampleTypeInfo type = *GetSampleTypeInfo(kSampleTypePcm);
    type.type = 77;
    return type;
}

TEST(InterleaveTest, PutsTheChannelsOfEachFrameNextToEachOther) {
    const AlignedBytes left =
        Buffer({0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B});
    const AlignedBytes right =
        Buffer({0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2A, 0x2B});
    const std::vector<AlignedBytes> channels = {left, right};
    Bytes out16(8), out24(12), out32(16);

    Interleave16(out16.data(), channels, 2);
    Interleave24(out24.data(), channels, 2);
    Interleave32(out32.data(), channels, 2);

    EXPECT_EQ(out16, (Bytes{0x10, 0x11, 0x20, 0x21, 0x12, 0x13, 0x22, 0x23}));
    EXPECT_EQ(out24,
              (Bytes{0x10, 0x11, 0x12, 0x20, 0x21, 0x22, 0x13, 0x14, 0x15, 0x23, 0x24, 0x25}));
    EXPECT_EQ(out32, (Bytes{0x10, 0x11, 0x12, 0x13, 0x20, 0x21, 0x22, 0x23, 0x14, 0x15, 0x16, 0x17,
                            0x24, 0x25, 0x26, 0x27}));
}

TEST(InterleaveTest, NoFramesWriteNothing) {
    const std::vector<AlignedBytes> channels = {Buffer({1, 2, 3, 4}), Buffer({5, 6, 7, 8})};
    Bytes out(8, 0xEE);

    Interleave16(out.data(), channels, 0);
    Interleave24(out.data(), channels, 0);
    Interleave32(out.data(), channels, 0);

    EXPECT_EQ(out, Bytes(8, 0xEE));
}

TEST(InterleaveTest, TheTableIsIndexedByBytesPerSampleLessTwo) {
    EXPECT_EQ(kInterleaveByWidth[2 - 2], Interleave16);
    EXPECT_EQ(kInterleaveByWidth[3 - 2], Interleave24);
    EXPECT_EQ(kInterleaveByWidth[4 - 2], Interleave32);
}

TEST(FrameEncoderTest, SupportsThreeWidthsOfTypesThatBecomeFloats) {
    const SampleTypeInfo& pcm = *GetSampleTypeInfo(kSampleTypePcm);
    for (const std::uint32_t bits : {16U, 24U, 32U}) {
        EXPECT_TRUE(FrameEncoder::Supports(pcm, bits)) << bits;
        EXPECT_FALSE(FrameEncoder::Supports(*GetSampleTypeInfo(kSampleTypeDsd), bits)) << bits;
    }
    for (const std::uint32_t bits : {0U, 1U, 8U, 17U, 20U, 25U, 31U, 33U, 40U, 64U}) {
        EXPECT_FALSE(FrameEncoder::Supports(pcm, bits)) << bits;
    }
}

TEST(FrameEncoderTest, EncodesEachWidth) {
    const std::vector<AlignedBytes> channels = {Floats({0.5f, -1.0f}), Floats({-0.5f, 1.0f})};
    const SampleTypeInfo& pcm = *GetSampleTypeInfo(kSampleTypePcm);
    const SampleTypeInfo other = OtherFloats();
    struct Row {
        std::uint32_t bits;
        Bytes expected;
    };
    const Row rows[] = {
        {16, {0x00, 0x40, 0x00, 0xC0, 0x00, 0x80, 0xFF, 0x7F}},
        {24, {0, 0, 0x40, 0, 0, 0xC0, 0, 0, 0x80, 0xFF, 0xFF, 0x7F}},
        {32, {0, 0, 0, 0x40, 0, 0, 0, 0xC0, 0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0x7F}},
    };
    for (const Row& row : rows) {
        for (const SampleTypeInfo* type : {&pcm, &other}) {
            FrameEncoder encoder(*type, 2, row.bits, 2, 1.0f);
            const auto encoded = encoder.Encode(channels, 2);
            EXPECT_EQ(Bytes(encoded.begin(), encoded.end()), row.expected) << row.bits;
        }
    }
}

TEST(FrameEncoderTest, TheOnePassIsBitIdenticalToTheSteps) {
    std::mt19937 random(20'261'121);
    std::uniform_real_distribution<float> sample(-1.5f, 1.5f);
    constexpr std::size_t kFrames = 517;  // no multiple of any vector's length
    const SampleTypeInfo other = OtherFloats();
    const std::vector<float> special = {0.0f,
                                        -0.0f,
                                        1.0f,
                                        -1.0f,
                                        0.99999994f,
                                        1e30f,
                                        -1e30f,
                                        1e-40f,
                                        0.5f / 32'768.0f,
                                        1.5f / 32'768.0f,
                                        2.5f / 32'768.0f,
                                        -0.5f / 32'768.0f,
                                        std::nanf(""),
                                        std::numeric_limits<float>::infinity(),
                                        -std::numeric_limits<float>::infinity()};
    for (const std::size_t channelCount : {1U, 2U, 3U, 6U, 8U}) {
        std::vector<AlignedBytes> channels;
        for (std::size_t channel = 0; channel < channelCount; ++channel) {
            std::vector<float> samples(kFrames);
            for (std::size_t frame = 0; frame < kFrames; ++frame) {
                samples[frame] = frame < special.size() ? special[frame] : sample(random);
            }
            channels.push_back(Floats(samples));
        }
        for (const std::uint32_t bits : {16U, 24U, 32U}) {
            for (const float gain : {1.0f, 0.50118721f, 3.9810717f, 0.0f}) {
                FrameEncoder onePass(*GetSampleTypeInfo(kSampleTypePcm), channelCount, bits,
                                     kFrames, gain);
                FrameEncoder steps(other, channelCount, bits, kFrames, gain);

                const auto expected = steps.Encode(channels, kFrames);
                const auto encoded = onePass.Encode(channels, kFrames);

                EXPECT_TRUE(
                    std::equal(encoded.begin(), encoded.end(), expected.begin(), expected.end()))
                    << channelCount << " channels, " << bits << " bits, gain " << gain;
            }
        }
    }
}

TEST(FrameEncoderTest, ABlockMayBeShorterThanTheLargest) {
    const std::vector<AlignedBytes> channels = {Floats({0.5f}), Floats({-0.5f})};
    FrameEncoder encoder(*GetSampleTypeInfo(kSampleTypePcm), 2, 16, 100, 1.0f);

    const auto encoded = encoder.Encode(channels, 1);

    EXPECT_EQ(Bytes(encoded.begin(), encoded.end()), (Bytes{0x00, 0x40, 0x00, 0xC0}));
}

TEST(FrameEncoderTest, IntegerSamplesBecomeFloatsFirst) {
    SampleTypeInfo int16 = OtherFloats();
    int16.toFloat32 = &Int16ToFloat;
    const std::vector<AlignedBytes> channels = {Buffer({0x00, 0x40, 0x00, 0x80})};
    FrameEncoder encoder(int16, 1, 24, 2, 0.5f);

    const auto encoded = encoder.Encode(channels, 2);

    EXPECT_EQ(Bytes(encoded.begin(), encoded.end()), (Bytes{0, 0, 0x20, 0, 0, 0xC0}));
}

}  // namespace
}  // namespace vorrel
