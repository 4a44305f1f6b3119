#include <gtest/gtest.h>

#include <algorithm>
#include <cfenv>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "convert/DsdTables.h"
#include "convert/DsdToPcm.h"
#include "convert/KernelSets.h"
#include "convert/PlainDecimator.h"

namespace vorrel {
namespace {

using test::GuardedBytes;
using test::KernelSet;
using test::PlacedBytes;

std::vector<std::uint8_t> RandomBits(std::size_t bytes, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bits(bytes);
    std::generate(bits.begin(), bits.end(), [&] { return static_cast<std::uint8_t>(random()); });
    return bits;
}

/// A channel's state with the rings at these steps and a random past.
DsdToPcmWorkBuffer StateAt(std::int64_t bitStep, std::int64_t stageStep, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> level(-1.2F, 1.2F);
    DsdToPcmWorkBuffer work{};
    for (float& bit : work.bitRing) {
        bit = (random() & 1U) != 0 ? 1.0F : -1.0F;
    }
    for (float& value : work.stageRing) {
        value = level(random);
    }
    work.bitPos = 8 * bitStep;
    work.stagePos = 8 * stageStep;
    return work;
}

/// Every set of kernels this machine can run, held against the plain version.
class DsdToPcmKernelsTest : public ::testing::TestWithParam<KernelSet> {
protected:
    static void Decimate(bool msbFirst, std::uint8_t* out, const std::uint8_t* in,
                         std::size_t count, DsdToPcmWorkBuffer& work) {
        const PcmKernels& kernels = *GetParam().kernels;
        (msbFirst ? kernels.decimateMsbFirst : kernels.decimateLsbFirst)(out, in, count, &work);
    }

    /// Converts `count` samples both ways from the state `work`, which both leave behind.
    static void ExpectSameAsPlain(bool msbFirst, const std::uint8_t* bits, std::size_t count,
                                  DsdToPcmWorkBuffer& work, std::size_t misalignment = 0) {
        DsdToPcmWorkBuffer plainWork = work;
        std::vector<std::uint8_t> plain(2 * count);
        test::PlainDecimate(msbFirst, plain.data(), bits, count, plainWork);
        // Exactly as long as what may be read, so that the sanitizer finds a read beside it.
        const std::vector<std::uint8_t> exact(bits, bits + 8 * count);
        const PlacedBytes placed(exact.data(), exact.size(), misalignment);
        GuardedBytes out(2 * count, misalignment);

        Decimate(msbFirst, out.data(), misalignment == 0 ? exact.data() : placed.data(), count,
                 work);

        ASSERT_EQ(out.Contents(), plain) << count << " samples";
        ASSERT_TRUE(out.Intact()) << count << " samples";
        ASSERT_EQ(std::memcmp(&work, &plainWork, sizeof work), 0) << count << " samples";
    }
};

INSTANTIATE_TEST_SUITE_P(Sets, DsdToPcmKernelsTest, ::testing::ValuesIn(test::KernelSets()),
                         &test::KernelSetName);

TEST_P(DsdToPcmKernelsTest, EveryLengthFromAZeroedWorkBuffer) {
    const std::vector<std::uint8_t> bits = RandomBits(8 * 600, 1);
    for (std::size_t count = 0; count <= 600; ++count) {
        DsdToPcmWorkBuffer work{};
        ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(count % 2 == 0, bits.data(), count, work));
    }
}

TEST_P(DsdToPcmKernelsTest, EveryStateOfTheRingsItCanStartFrom) {
    const std::vector<std::uint8_t> bits = RandomBits(8 * 400, 2);
    for (const bool msbFirst : {true, false}) {
        for (std::int64_t bitStep = 0; bitStep < 12; ++bitStep) {
            for (std::int64_t stageStep = 0; stageStep < 12; ++stageStep) {
                for (const std::size_t count :
                     {1U, 7U, 24U, 25U, 48U, 61U, 96U, 192U, 241U, 400U}) {
                    DsdToPcmWorkBuffer work =
                        StateAt(bitStep, stageStep, static_cast<std::uint32_t>(count));
                    ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(msbFirst, bits.data(), count, work))
                        << "from bit step " << bitStep << ", stage step " << stageStep;
                }
            }
        }
    }
}

TEST_P(DsdToPcmKernelsTest, AStreamCutAnywhere) {
    constexpr std::size_t kSamples = 30'000;
    const std::vector<std::uint8_t> bits = RandomBits(8 * kSamples, 3);
    std::mt19937 random(4);
    for (const bool msbFirst : {true, false}) {
        for (const std::size_t longest : {30U, 300U, 4096U}) {
            DsdToPcmWorkBuffer work{};
            for (std::size_t done = 0; done < kSamples;) {
                const std::size_t count = std::min(kSamples - done, random() % (longest + 1));
                ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(msbFirst, bits.data() + 8 * done, count,
                                                          work, random() % 64));
                done += count;
            }
        }
    }
}

TEST_P(DsdToPcmKernelsTest, FullLevelsAndOverloadAtEveryPlace) {
    // Stretches of ones and zeros drive the filters to full level and, at their ends, beyond.
    std::vector<std::uint8_t> bits = RandomBits(8 * 2000, 5);
    std::mt19937 random(6);
    for (std::size_t place = 0; place < bits.size();) {
        const std::size_t end = std::min(bits.size(), place + 40 + random() % 160);
        const std::size_t kind = random() % 3;
        for (; place < end; ++place) {
            bits[place] = kind == 0 ? 0xFF : kind == 1 ? 0x00 : bits[place];
        }
    }
    DsdToPcmWorkBuffer work{};
    ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(true, bits.data(), 2000, work));

    // The most that the second stage can give: each value at full level with its tap's sign.
    for (std::int64_t step = 0; step < 12; ++step) {
        for (const float sign : {1.0F, -1.0F}) {
            work = StateAt(0, step, 7);
            for (std::size_t k = 0; k < 96; ++k) {
                const std::size_t slot = (k + static_cast<std::size_t>(8 * step)) % 96;
                work.stageRing[slot] = filter_coef[k] < 0 ? -sign : sign;
            }
            ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(true, bits.data(), 100, work));
        }
    }
}

TEST_P(DsdToPcmKernelsTest, ValuesThatAreNoLevelAgeOutOfTheRing) {
    for (const float value : {std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity(), -3e38F, 1e-42F, -0.0F}) {
        const std::vector<std::uint8_t> bits = RandomBits(8 * 100, 8);
        DsdToPcmWorkBuffer work = StateAt(4, 5, 9);
        work.stageRing[41] = value;
        ASSERT_NO_FATAL_FAILURE(ExpectSameAsPlain(true, bits.data(), 100, work)) << value;
    }
}

TEST(DsdToPcmRoundingTest, TheCallersRoundingModeHasNoSay) {
    const std::vector<std::uint8_t> bits = RandomBits(8 * 300, 10);
    DsdToPcmWorkBuffer expectedWork{};
    std::vector<std::uint8_t> expected(600);
    test::PlainDecimate(true, expected.data(), bits.data(), 300, expectedWork);
    for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
        DsdToPcmWorkBuffer work{};
        std::vector<std::uint8_t> samples(600);

        std::fesetround(mode);
        DSD_To_Int16LSB<true>(samples.data(), bits.data(), 300, &work);
        const int after = std::fegetround();
        std::fesetround(FE_TONEAREST);

        EXPECT_EQ(samples, expected);
        EXPECT_EQ(std::memcmp(&work, &expectedWork, sizeof work), 0);
        EXPECT_EQ(after, mode) << "the caller's mode is put back";
    }
}

}  // namespace
}  // namespace vorrel
