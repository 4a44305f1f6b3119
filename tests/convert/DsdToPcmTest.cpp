#include "convert/DsdToPcm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <deque>
#include <random>
#include <tuple>
#include <vector>

#include "convert/DsdTables.h"
#include "convert/KernelSets.h"

namespace vorrel {
namespace {

using test::GuardedBytes;

template <bool msbFirst>
std::vector<std::int16_t> Decimate(const std::vector<std::uint8_t>& bits, std::size_t count,
                                   DsdToPcmWorkBuffer& work) {
    std::vector<std::int16_t> samples(count);
    DSD_To_Int16LSB<msbFirst>(reinterpret_cast<std::uint8_t*>(samples.data()), bits.data(), count,
                              &work);
    return samples;
}

std::vector<std::uint8_t> RandomBytes(std::size_t count) {
    std::mt19937 random(7);
    std::vector<std::uint8_t> bytes(count);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

bool IsZero(const DsdToPcmWorkBuffer& work) {
    const DsdToPcmWorkBuffer zero{};
    return std::memcmp(&work, &zero, sizeof work) == 0;
}

TEST(DsdToPcmTest, ACountOfZeroChangesNeitherDestinationNorWorkBuffer) {
    DsdToPcmWorkBuffer work{};
    GuardedBytes out(0);
    const std::vector<std::uint8_t> bits(8, 0xFF);

    DSD_To_Int16LSB<true>(out.data(), bits.data(), 0, &work);
    DSD_To_Int16LSB<false>(nullptr, nullptr, 0, &work);

    EXPECT_TRUE(out.Intact());
    EXPECT_TRUE(IsZero(work));
}

TEST(DsdToPcmTest, FirstSampleFromAZeroedWorkBufferIsZero) {
    for (const std::uint8_t byte : std::vector<std::uint8_t>{0x00, 0xFF, 0x69, 0x80}) {
        DsdToPcmWorkBuffer work{};

        EXPECT_EQ(Decimate<true>(std::vector<std::uint8_t>(8, byte), 1, work)[0], 0);
    }
}

TEST(DsdToPcmTest, AllOnesSettleAtPlus32767AndAllZerosAtMinus32767) {
    DsdToPcmWorkBuffer ones{};
    DsdToPcmWorkBuffer zeros{};

    const auto high = Decimate<true>(std::vector<std::uint8_t>(8 * 40, 0xFF), 40, ones);
    const auto low = Decimate<true>(std::vector<std::uint8_t>(8 * 40, 0x00), 40, zeros);

    // Bits fill the first ring in 12 bytes, first-stage values the second in 12 samples.
    for (std::size_t i = 14; i < 40; ++i) {
        EXPECT_EQ(high[i], 32767) << i;
        EXPECT_EQ(low[i], -32767) << i;
    }
}

TEST(DsdToPcmTest, ReversedBytesGiveTheSameWithTheOtherBitOrder) {
    std::vector<std::uint8_t> bytes;
    std::vector<std::uint8_t> reversed;
    for (int i = 0; i < 8 * 20; ++i) {
        bytes.push_back(i % 2 == 0 ? 0x69 : 0x96);
        reversed.push_back(i % 2 == 0 ? 0x96 : 0x69);
    }
    DsdToPcmWorkBuffer msb{};
    DsdToPcmWorkBuffer lsb{};

    EXPECT_EQ(Decimate<true>(bytes, 20, msb), Decimate<false>(reversed, 20, lsb));
    EXPECT_EQ(std::memcmp(&msb, &lsb, sizeof msb), 0);
}

TEST(DsdToPcmTest, BitsEnterInTimeOrder) {
    DsdToPcmWorkBuffer msb{};
    DsdToPcmWorkBuffer lsb{};
    const std::vector<std::uint8_t> bytes = {0x1C, 0, 0, 0, 0, 0, 0, 0};  // 0001 1100

    std::ignore = Decimate<true>(bytes, 1, msb);
    std::ignore = Decimate<false>(bytes, 1, lsb);

    const float fromMsb[] = {-1, -1, -1, 1, 1, 1, -1, -1};
    const float fromLsb[] = {-1, -1, 1, 1, 1, -1, -1, -1};
    EXPECT_EQ(std::memcmp(msb.bitRing, fromMsb, sizeof fromMsb), 0);
    EXPECT_EQ(std::memcmp(lsb.bitRing, fromLsb, sizeof fromLsb), 0);
}

TEST(DsdToPcmTest, CallsOfThreeAndFiveSamplesEqualOneOfEight) {
    const std::vector<std::uint8_t> bytes = RandomBytes(8 * 8);
    DsdToPcmWorkBuffer whole{};
    DsdToPcmWorkBuffer parts{};

    const auto expected = Decimate<true>(bytes, 8, whole);
    auto samples = Decimate<true>({bytes.begin(), bytes.begin() + 24}, 3, parts);
    const auto rest = Decimate<true>({bytes.begin() + 24, bytes.end()}, 5, parts);
    samples.insert(samples.end(), rest.begin(), rest.end());

    EXPECT_EQ(samples, expected);
    EXPECT_EQ(std::memcmp(&parts, &whole, sizeof whole), 0);
}

TEST(DsdToPcmTest, PositionsWrapAtTheEndsOfTheRings) {
    DsdToPcmWorkBuffer work{};
    const std::vector<std::uint8_t> bytes = RandomBytes(8 * 12);

    for (std::int64_t sample = 1; sample <= 12; ++sample) {
        std::ignore = Decimate<true>({bytes.begin(), bytes.begin() + 8}, 1, work);
        EXPECT_EQ(work.stagePos, sample * 8 % 96);
        EXPECT_EQ(work.bitPos, sample * 64 % 96);
    }
}

TEST(DsdToPcmTest, WritesExactlyTheCountAndReadsAnyAlignment) {
    const std::vector<std::uint8_t> bytes = RandomBytes(8 * 30);
    for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
        const test::PlacedBytes in(bytes.data(), bytes.size(), misalignment);
        DsdToPcmWorkBuffer work{};
        DsdToPcmWorkBuffer aligned{};
        GuardedBytes out(60, misalignment);

        DSD_To_Int16LSB<true>(out.data(), in.data(), 30, &work);

        const auto expected = Decimate<true>(bytes, 30, aligned);
        EXPECT_EQ(std::memcmp(out.data(), expected.data(), 60), 0);
        EXPECT_TRUE(out.Intact());
    }
}

/// The decimator from its definition: queues instead of rings, double precision.
std::vector<double> ExactDecimation(const std::vector<std::uint8_t>& bytes) {
    std::deque<double> bits(96, 0.0);
    std::deque<double> stage(96, 0.0);
    const auto filter = [](const std::deque<double>& values) {
        double sum = 0;
        for (std::size_t k = 0; k < 96; ++k) {
            sum += static_cast<double>(filter_coef[k]) * values[k];
        }
        return sum;
    };
    std::vector<double> samples;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i % 8 == 0) {
            samples.push_back(filter(stage) * 32767.0);
        }
        stage.push_back(filter(bits));
        stage.pop_front();
        for (int bit = 7; bit >= 0; --bit) {
            bits.push_back(((bytes[i] >> bit) & 1) != 0 ? 1.0 : -1.0);
            bits.pop_front();
        }
    }
    return samples;
}

TEST(DsdToPcmTest, FollowsTheFilterAppliedInDoublePrecision) {
    // Random bits make noise at a fair level; a run of ones in the middle drives the filter to
    // full scale and, at its ends, beyond.
    std::vector<std::uint8_t> bytes = RandomBytes(8 * 200);
    std::fill(bytes.begin() + 600, bytes.begin() + 900, std::uint8_t{0xFF});
    DsdToPcmWorkBuffer work{};

    const auto samples = Decimate<true>(bytes, 200, work);

    const std::vector<double> exact = ExactDecimation(bytes);
    for (std::size_t i = 0; i < 200; ++i) {
        EXPECT_NEAR(samples[i], std::clamp(exact[i], -32768.0, 32767.0), 0.51) << i;
    }
}

TEST(DsdToPcmTest, SumsInRingOrderInFourLanes) {
    // The order of a sum shows in its last bits, and these must be the same on every machine.
    DsdToPcmWorkBuffer work{};
    const std::vector<std::uint8_t> bytes = RandomBytes(8 * 25);
    std::ignore = Decimate<true>(bytes, 25, work);
    const DsdToPcmWorkBuffer before = work;
    ASSERT_EQ(before.bitPos, 64);

    std::ignore = Decimate<true>(std::vector<std::uint8_t>(8, 0), 1, work);

    float lanes[4] = {};
    for (std::size_t slot = 0; slot < 96; ++slot) {
        // The oldest bit, at slot 64, meets coefficient 0.
        const volatile float product = filter_coef[(slot + 96 - 64) % 96] * before.bitRing[slot];
        lanes[slot % 4] += product;
    }
    const float expected = (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
    const auto written = static_cast<std::size_t>(before.stagePos);
    EXPECT_EQ(std::memcmp(&work.stageRing[written], &expected, sizeof expected), 0);
}

TEST(DsdToPcmTest, SaturatesWhatTheFilterOvershoots) {
    // The most that the second stage can give: every first-stage value at full level with the sign
    // of its tap. The magnitudes of the taps sum to more than 1.
    DsdToPcmWorkBuffer high{};
    DsdToPcmWorkBuffer low{};
    for (std::size_t k = 0; k < 96; ++k) {
        high.stageRing[k] = filter_coef[k] < 0 ? -1.0F : 1.0F;
        low.stageRing[k] = -high.stageRing[k];
    }
    const std::vector<std::uint8_t> bytes(8, 0x55);

    EXPECT_EQ(Decimate<true>(bytes, 1, high)[0], 32767);
    EXPECT_EQ(Decimate<true>(bytes, 1, low)[0], -32768);
}

TEST(DsdTablesTest, TheFilterBeginsAndPeaksAsKnown) {
    const float first[] = {3e-08F,    1.2e-07F,  3.4e-07F,  7.4e-07F,   1.32e-06F,
                           1.93e-06F, 2.17e-06F, 1.25e-06F, -2.02e-06F, -9.16e-06F};
    for (std::size_t k = 0; k < 10; ++k) {
        // The first four are known to two digits at 1e-8, the others to three.
        EXPECT_NEAR(filter_coef[k], first[k], 5.1e-9F) << k;
    }
    EXPECT_FLOAT_EQ(filter_coef[47], 0.09950732F);
    EXPECT_FLOAT_EQ(filter_coef[48], 0.09950732F);
    EXPECT_FLOAT_EQ(filter_coef[46], 0.09562846F);
    EXPECT_FLOAT_EQ(filter_coef[49], 0.09562846F);
    EXPECT_FLOAT_EQ(filter_coef[45], 0.08819647F);
    EXPECT_FLOAT_EQ(filter_coef[50], 0.08819647F);
    double sum = 0;
    for (std::size_t k = 0; k < 96; ++k) {
        sum += static_cast<double>(filter_coef[k]);
        EXPECT_EQ(filter_coef[k], filter_coef[95 - k]) << k;
        EXPECT_EQ(filter_coef[k], filter_coef[k + 96]) << k;
    }
    EXPECT_NEAR(sum, 0.99999695, 5e-9);
}

TEST(DsdTablesTest, NibblesBecomeFourBitsInTimeOrder) {
    EXPECT_EQ(table_msb[1], (std::array{-1.0F, -1.0F, -1.0F, 1.0F}));
    EXPECT_EQ(table_msb[8], (std::array{1.0F, -1.0F, -1.0F, -1.0F}));
    EXPECT_EQ(table_msb[6], (std::array{-1.0F, 1.0F, 1.0F, -1.0F}));
    EXPECT_EQ(table_lsb[1], (std::array{1.0F, -1.0F, -1.0F, -1.0F}));
    EXPECT_EQ(table_lsb[8], (std::array{-1.0F, -1.0F, -1.0F, 1.0F}));
    EXPECT_EQ(table_lsb[3], (std::array{1.0F, 1.0F, -1.0F, -1.0F}));
}

}  // namespace
}  // namespace vorrel
