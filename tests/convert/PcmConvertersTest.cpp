#include "convert/PcmConverters.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cstring>
#include <limits>
#include <span>
#include <vector>

#include "convert/ChannelKernels.h"
#include "convert/KernelSets.h"
#include "convert/PlainConverters.h"
#include "convert/SampleTypeInfo.h"

namespace vorrel {
namespace {

using test::GuardedBytes;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

const std::uint8_t* Bytes(const std::vector<float>& samples) {
    return reinterpret_cast<const std::uint8_t*>(samples.data());
}

/// Little-endian signed integers of `width` bytes.
std::vector<std::int64_t> Integers(const std::vector<std::uint8_t>& bytes, std::size_t width) {
    std::vector<std::int64_t> values;
    for (std::size_t i = 0; i + width <= bytes.size(); i += width) {
        std::int64_t value = 0;
        for (std::size_t byte = width; byte > 0; --byte) {
            value = value * 256 + bytes[i + byte - 1];
        }
        const std::int64_t range = std::int64_t{1} << (8 * width);
        values.push_back(value >= range / 2 ? value - range : value);
    }
    return values;
}

std::vector<std::int64_t> Convert(SampleConverter converter, const std::vector<float>& samples,
                                  std::size_t width) {
    GuardedBytes out(samples.size() * width);
    converter(out.data(), Bytes(samples), samples.size());
    EXPECT_TRUE(out.Intact());
    return Integers(out.Contents(), width);
}

std::vector<float> BigEndian(std::vector<float> samples) {
    for (float& sample : samples) {
        std::uint32_t bits = 0;
        std::memcpy(&bits, &sample, sizeof bits);
        bits = (bits >> 24) | ((bits >> 8) & 0xFF00U) | ((bits << 8) & 0xFF0000U) | (bits << 24);
        std::memcpy(&sample, &bits, sizeof bits);
    }
    return samples;
}

/// Puts the calling thread's rounding mode back.
class RoundingMode {
public:
    explicit RoundingMode(int mode) { std::fesetround(mode); }
    ~RoundingMode() { std::fesetround(FE_TONEAREST); }
    RoundingMode(const RoundingMode&) = delete;
    RoundingMode& operator=(const RoundingMode&) = delete;
};

constexpr SampleConverter kConverters[] = {
    &Float32_To_Int16LSB<false>,   &Float32_To_Int16LSB<true>,  &Float32_To_Int24LSB<false>,
    &Float32_To_Int24LSB<true>,    &Float32_To_Int32LSB<false>, &Float32_To_Int32LSB<true>,
    &Float32_To_Float32LSB<false>, &Float32_To_Float32LSB<true>};

TEST(PcmConvertersTest, ACountOfZeroWritesNothing) {
    for (const SampleConverter converter : kConverters) {
        GuardedBytes out(0);
        const float sample = 0.5F;

        converter(out.data(), reinterpret_cast<const std::uint8_t*>(&sample), 0);
        converter(nullptr, nullptr, 0);

        EXPECT_TRUE(out.Intact());
    }
}

TEST(PcmConvertersTest, SixteenBitsSaturateInBlocksAndTailAlike) {
    // 1.0, -1.0, 0.5 and 1.5 at every place of a block and as each of the last samples.
    const std::vector<float> cycle = {1.0F, -1.0F, 0.5F, 1.5F};
    const std::vector<std::int64_t> expected = {32767, -32768, 16384, 32767};
    for (std::size_t count = 1; count <= 150; ++count) {
        std::vector<float> samples;
        for (std::size_t i = 0; i < count; ++i) {
            samples.push_back(cycle[i % 4]);
        }

        const auto result = Convert(&Float32_To_Int16LSB<false>, samples, 2);

        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_EQ(result[i], expected[i % 4]) << "sample " << i << " of " << count;
        }
    }
}

TEST(PcmConvertersTest, SixteenBitsRoundToNearestWithTiesToEven) {
    const std::vector<float> steps = {0.5F,     1.5F,     2.5F,      -0.5F,     -1.5F,
                                      -2.5F,    0.4999F,  0.51F,     -0.51F,    32766.5F,
                                      32767.4F, 32767.5F, -32768.5F, -32768.6F, 12345.25F};
    std::vector<float> samples;
    for (const float step : steps) {
        samples.push_back(step / 32768.0F);
    }

    EXPECT_EQ(Convert(&Float32_To_Int16LSB<false>, samples, 2),
              (std::vector<std::int64_t>{0, 2, 2, 0, -2, -2, 0, 1, -1, 32766, 32767, 32767, -32768,
                                         -32768, 12345}));
}

TEST(PcmConvertersTest, TheFourArgumentTwinGivesTheSameAndIgnoresTheWorkBuffer) {
    const std::vector<float> samples = test::RandomFloats(101, 1);
    GuardedBytes plain(202);
    GuardedBytes twin(202);
    DsdToPcmWorkBuffer work{};
    work.bitPos = 8;
    const DsdToPcmWorkBuffer before = work;

    Float32_To_Int16LSB<false>(plain.data(), Bytes(samples), 101);
    Float32_To_Int16LSB<false>(twin.data(), Bytes(samples), 101, &work);

    EXPECT_EQ(twin.Contents(), plain.Contents());
    EXPECT_EQ(std::memcmp(&work, &before, sizeof work), 0);
    Float32_To_Int16LSB<false>(twin.data(), Bytes(samples), 101, nullptr);
    EXPECT_EQ(twin.Contents(), plain.Contents());
}

TEST(PcmConvertersTest, TruncatesTo24BitsInsteadOfRounding) {
    EXPECT_EQ(Convert(&Float32_To_Int24LSB<false>, {0.99999994F, -1.0F, 2.0F}, 3),
              (std::vector<std::int64_t>{8388607, -8388608, 8388607}));

    std::vector<float> samples;
    for (const float step : {0.5F, 0.99F, 1.5F, 1.99F, -0.5F, -0.99F, -1.5F, -1.99F, 100.75F}) {
        samples.push_back(step / 8388608.0F);
    }
    EXPECT_EQ(Convert(&Float32_To_Int24LSB<false>, samples, 3),
              (std::vector<std::int64_t>{0, 0, 1, 1, 0, 0, -1, -1, 100}));
}

TEST(PcmConvertersTest, TwentyFourBitSamplesArePackedLowByteFirst) {
    const std::vector<float> samples = {0x123456 / 8388608.0F, -2.0F / 8388608.0F};
    GuardedBytes out(6);

    Float32_To_Int24LSB<false>(out.data(), Bytes(samples), 2);

    EXPECT_EQ(out.Contents(), (std::vector<std::uint8_t>{0x56, 0x34, 0x12, 0xFE, 0xFF, 0xFF}));
    EXPECT_TRUE(out.Intact());
}

TEST(PcmConvertersTest, ThirtyTwoBitsSaturateAtFullScale) {
    EXPECT_EQ(
        Convert(&Float32_To_Int32LSB<false>, {1.0F, -1.0F, 0.5F, 0.99999994F, 1.5F, -1.5F}, 4),
        (std::vector<std::int64_t>{2147483647, -2147483648, 1073741824, 2147483520, 2147483647,
                                   -2147483648}));
}

TEST(PcmConvertersTest, ThirtyTwoBitsRoundToNearestWithTiesToEven) {
    std::vector<float> samples;
    for (const float step : {0.5F, 1.5F, 2.5F, -0.5F, -1.5F, -2.5F, 0.75F, -0.75F, 4194303.5F}) {
        samples.push_back(step / 2147483648.0F);
    }

    EXPECT_EQ(Convert(&Float32_To_Int32LSB<false>, samples, 4),
              (std::vector<std::int64_t>{0, 2, 2, 0, -2, -2, 1, -1, 4194304}));
}

TEST(PcmConvertersTest, NotANumberGivesZeroAndInfinitySaturates) {
    const std::vector<float> samples = {kNan,  -kNan,  kInfinity, -kInfinity,
                                        3e38F, -3e38F, 1e10F,     -1e10F};

    EXPECT_EQ(Convert(&Float32_To_Int16LSB<false>, samples, 2),
              (std::vector<std::int64_t>{0, 0, 32767, -32768, 32767, -32768, 32767, -32768}));
    EXPECT_EQ(
        Convert(&Float32_To_Int24LSB<false>, samples, 3),
        (std::vector<std::int64_t>{0, 0, 8388607, -8388608, 8388607, -8388608, 8388607, -8388608}));
    EXPECT_EQ(Convert(&Float32_To_Int32LSB<false>, samples, 4),
              (std::vector<std::int64_t>{0, 0, 2147483647, -2147483648, 2147483647, -2147483648,
                                         2147483647, -2147483648}));
}

TEST(PcmConvertersTest, DenormalsAndBothZerosGiveZero) {
    const std::vector<float> samples = {0.0F, -0.0F, 1e-45F, -1e-45F, 1e-39F, -1e-39F};
    const std::vector<std::int64_t> zeros(6, 0);

    EXPECT_EQ(Convert(&Float32_To_Int16LSB<false>, samples, 2), zeros);
    EXPECT_EQ(Convert(&Float32_To_Int24LSB<false>, samples, 3), zeros);
    EXPECT_EQ(Convert(&Float32_To_Int32LSB<false>, samples, 4), zeros);
}

TEST(PcmConvertersTest, SwappedMembersReadBigEndianSamples) {
    // Past one piece of the turned copy, and with a tail.
    const std::vector<float> samples = test::RandomFloats(1031, 2);
    const std::vector<float> turned = BigEndian(samples);

    EXPECT_EQ(Convert(&Float32_To_Int16LSB<true>, turned, 2),
              Convert(&Float32_To_Int16LSB<false>, samples, 2));
    EXPECT_EQ(Convert(&Float32_To_Int24LSB<true>, turned, 3),
              Convert(&Float32_To_Int24LSB<false>, samples, 3));
    EXPECT_EQ(Convert(&Float32_To_Int32LSB<true>, turned, 4),
              Convert(&Float32_To_Int32LSB<false>, samples, 4));

    GuardedBytes twin(2 * samples.size());
    Float32_To_Int16LSB<true>(twin.data(), Bytes(turned), turned.size(), nullptr);
    EXPECT_EQ(Integers(twin.Contents(), 2), Convert(&Float32_To_Int16LSB<false>, samples, 2));
}

TEST(PcmConvertersTest, FloatToFloatCopiesBitForBit) {
    const std::vector<float> samples = test::SpecialFloats();
    GuardedBytes out(samples.size() * 4);

    Float32_To_Float32LSB<false>(out.data(), Bytes(samples), samples.size());

    EXPECT_EQ(std::memcmp(out.data(), samples.data(), samples.size() * 4), 0);
    EXPECT_TRUE(out.Intact());
}

TEST(PcmConvertersTest, SwappedFloatToFloatLeavesTheDestinationAsItWas) {
    const std::vector<float> samples(33, 0.25F);
    GuardedBytes out(samples.size() * 4);

    Float32_To_Float32LSB<true>(out.data(), Bytes(samples), samples.size());

    EXPECT_EQ(out.Contents(), std::vector<std::uint8_t>(33 * 4, GuardedBytes::kCanary));
}

TEST(PcmConvertersTest, TheCallersRoundingModeHasNoSay) {
    const std::vector<float> samples = test::RandomFloats(1000, 3);
    const float* const channels[] = {samples.data(), samples.data() + 500};
    for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
        const auto int16 = Convert(&Float32_To_Int16LSB<false>, samples, 2);
        const auto int32 = Convert(&Float32_To_Int32LSB<false>, samples, 4);
        GuardedBytes gained(1000 * 3);
        GainConvertInterleave(gained.data(), channels, 500, 0.7F, 3);
        GuardedBytes otherGained(1000 * 3);
        std::vector<std::int64_t> other16;
        std::vector<std::int64_t> other32;
        int after = 0;

        {
            const RoundingMode other(mode);
            other16 = Convert(&Float32_To_Int16LSB<false>, samples, 2);
            other32 = Convert(&Float32_To_Int32LSB<false>, samples, 4);
            GainConvertInterleave(otherGained.data(), channels, 500, 0.7F, 3);
            after = std::fegetround();
        }

        EXPECT_EQ(other16, int16);
        EXPECT_EQ(other32, int32);
        EXPECT_EQ(otherGained.Contents(), gained.Contents());
        EXPECT_EQ(after, mode) << "the caller's mode is put back";
    }
}

}  // namespace
}  // namespace vorrel
