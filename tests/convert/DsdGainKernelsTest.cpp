#include "convert/DsdGainKernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "convert/BitReversal.h"
#include "convert/GainTables.h"
#include "convert/KernelSets.h"
#include "convert/PlainGain.h"

namespace vorrel {
namespace {

using test::GuardedBytes;
using test::PlainGain;
using test::RandomBits;
using test::ToneBits;
using Bytes = std::vector<std::uint8_t>;

constexpr double kRateHz = 2'822'400;
constexpr std::size_t kHistory = DsdGainState::kHistoryBytes;

struct GainSet {
    std::string name;
    const DsdGainKernels* kernels;
};

void PrintTo(const GainSet& set, std::ostream* stream) {
    *stream << set.name;
}

std::vector<GainSet> GainSets() {
    static const std::array kNames = {"Baseline", "Avx2", "Avx512"};
    std::vector<GainSet> sets;
    for (const InstructionSet set : SupportedInstructionSets()) {
        sets.push_back({kNames.at(static_cast<std::size_t>(set)), &DsdGainKernelsFor(set)});
    }
    return sets;
}

float Factor(double decibels) {
    return static_cast<float>(std::pow(10.0, decibels / 20));
}

/// A stream whose first 50 bytes the plain version has processed, and where both stand after it.
struct Streams {
    Streams(const Bytes& source, float gain)
        : plain(gain), rest(source.begin() + kHistory, source.end()) {
        Bytes head(source.begin(), source.begin() + kHistory);
        std::copy(head.begin(), head.end(), state.history);
        plain.Process(head.data(), head.size());
        std::copy_n(plain.States(), 5, state.integrators);
        for (std::size_t k = 0; k < 200; ++k) {
            state.taps[k] = static_cast<float>(cff[k]) * (2.0F * gain);
        }
    }

    void SetIntegrators(const double (&values)[5]) {
        std::copy_n(values, 5, state.integrators);
        plain.SetStates(values);
    }

    PlainGain plain;
    Bytes rest;
    DsdGainState state{};
};

class DsdGainKernelsTest : public ::testing::TestWithParam<GainSet> {
protected:
    static void ExpectSameAsPlain(Streams& streams, std::size_t misalignment = 0) {
        const Bytes source = streams.rest;
        GuardedBytes place(source.size(), misalignment);
        std::copy(source.begin(), source.end(), place.data());

        GetParam().kernels->gain(&streams.state, place.data(), source.size());

        ASSERT_EQ(place.Contents(), streams.plain.Processed(source)) << source.size() << " bytes";
        ASSERT_TRUE(place.Intact()) << source.size() << " bytes";
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(streams.state.integrators[i], streams.plain.States()[i])
                << "s" << i << " after " << source.size() << " bytes";
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Sets, DsdGainKernelsTest, ::testing::ValuesIn(GainSets()),
                         [](const auto& set) { return set.param.name; });

TEST_P(DsdGainKernelsTest, EveryLengthGivesThePlainBits) {
    for (std::size_t length = 0; length <= 260; ++length) {
        Streams streams(RandomBits(kHistory + length, static_cast<std::uint32_t>(length)),
                        Factor(-6));
        ExpectSameAsPlain(streams, length % 64);
        ASSERT_FALSE(HasFatalFailure());
    }
}

TEST_P(DsdGainKernelsTest, LongLengthsGiveThePlainBits) {
    for (const std::size_t length : {511U, 512U, 767U, 768U, 769U, 2048U, 4095U, 4096U, 10'000U}) {
        Streams streams(RandomBits(kHistory + length, 1), Factor(-6));
        ExpectSameAsPlain(streams);
        ASSERT_FALSE(HasFatalFailure());
    }
}

TEST_P(DsdGainKernelsTest, EveryGainGivesThePlainBits) {
    for (const double decibels : {-590.0, -120.0, -60.0, -6.02, -0.1, 0.1, 3.0, 6.0, 20.0, 590.0}) {
        Streams tone(ToneBits(1'500, 0.5, 1000, kRateHz), Factor(decibels));
        ExpectSameAsPlain(tone);
        ASSERT_FALSE(HasFatalFailure()) << decibels;
        Streams noise(RandomBits(1'500, 2), Factor(decibels));
        ExpectSameAsPlain(noise);
        ASSERT_FALSE(HasFatalFailure()) << decibels;
    }
}

TEST_P(DsdGainKernelsTest, OverloadGivesThePlainBits) {
    // Nearly every integrator meets its limit again and again.
    Streams hot(ToneBits(12'000, 0.9, 1000, kRateHz), Factor(6));
    ExpectSameAsPlain(hot);
    Streams steady(Bytes(3'000, 0xFF), Factor(3));
    ExpectSameAsPlain(steady);
    Streams square(ToneBits(6'000, 0.98, 50, kRateHz), Factor(40));
    ExpectSameAsPlain(square);
}

TEST_P(DsdGainKernelsTest, IdlePatternsGiveThePlainBits) {
    for (const int pattern : {0x00, 0xFF, 0x69, 0x96, 0x55, 0xAA}) {
        Streams streams(Bytes(2'500, static_cast<std::uint8_t>(pattern)), Factor(-6));
        ExpectSameAsPlain(streams);
        ASSERT_FALSE(HasFatalFailure()) << pattern;
    }
}

TEST_P(DsdGainKernelsTest, AValueAtOrBesideZeroIsQuantisedAsDefined) {
    // What is quantised first: exactly 0, which is a one, and the least that is not.
    const double kBeside[] = {0.0, 1e-300, -1e-300, 1e-17, -1e-17, 1e-14, -1e-14, 1e-11, -1e-11};
    for (const double beside : kBeside) {
        for (std::uint32_t seed = 0; seed < 20; ++seed) {
            Streams streams(RandomBits(kHistory + 40, seed), Factor(-6));
            // 0.304545 x 0.791882 - 0.791882 x 0.304545 is exactly 0.
            streams.SetIntegrators({0.304545 + beside, -0.791882, 0.0, 0.0, 0.0});
            ExpectSameAsPlain(streams);
            ASSERT_FALSE(HasFatalFailure()) << beside;
        }
    }
    Streams rest(RandomBits(kHistory + 40, 3), Factor(-6));
    rest.SetIntegrators({0.0, 0.0, 0.0, 0.0, 0.0});
    ExpectSameAsPlain(rest);
}

TEST_P(DsdGainKernelsTest, AnIntegratorAtOrBesideItsLimitIsClampedAsDefined) {
    const double kLimits[5] = {4.0, 9.0, 25.0, 92.0, 700.0};
    for (std::size_t which = 0; which < 5; ++which) {
        for (const double share : {1.0, -1.0, 0.999, -0.999, 0.95, -0.95}) {
            for (std::uint32_t seed = 0; seed < 10; ++seed) {
                Streams streams(RandomBits(kHistory + 60, seed), Factor(-2));
                double values[5] = {0.1, -0.2, 0.3, -0.4, 0.5};
                values[which] = share * kLimits[which];
                streams.SetIntegrators(values);
                ExpectSameAsPlain(streams);
                ASSERT_FALSE(HasFatalFailure()) << "s" << which << " at " << share;
            }
        }
    }
}

TEST_P(DsdGainKernelsTest, AStreamMayBeCutAnywhere) {
    const Bytes source = ToneBits(kHistory + 9'000, 0.7, 3000, kRateHz);
    Streams streams(source, Factor(1));
    Bytes pieces = streams.rest;
    std::mt19937 random(7);

    for (std::size_t done = 0; done < pieces.size();) {
        const std::size_t count = std::min<std::size_t>(random() % 300, pieces.size() - done);
        GetParam().kernels->gain(&streams.state, pieces.data() + done, count);
        done += count;
        if (done >= kHistory) {
            // What the kernels keep is what came in last.
            ASSERT_EQ(
                std::memcmp(streams.state.history, streams.rest.data() + done - kHistory, kHistory),
                0);
        }
    }

    EXPECT_EQ(pieces, streams.plain.Processed(streams.rest));
}

TEST_P(DsdGainKernelsTest, GivesTheGoldenStreams) {
    // The same on every machine and for ever: files that were gained then and now are the same.
    const struct {
        Bytes source;
        float gain;
        std::uint64_t hash;
    } kGolden[] = {
        {RandomBits(10'050, 11), 0.5011872F, 16136599420388859067U},
        {test::TriangleBits(20'050, 0.5, 2'822), 0.5F, 16234313212629027125U},
        {test::TriangleBits(20'050, 0.9, 3'000), 1.9952623F, 10407681463217796779U},
    };
    for (const auto& golden : kGolden) {
        Streams streams(golden.source, golden.gain);
        Bytes bytes = streams.rest;

        GetParam().kernels->gain(&streams.state, bytes.data(), bytes.size());

        EXPECT_EQ(test::HashOf(bytes), golden.hash) << golden.gain;
        EXPECT_EQ(test::HashOf(streams.plain.Processed(streams.rest)), golden.hash);
    }
}

TEST_P(DsdGainKernelsTest, BitsAreReversedAtEveryLengthAndPlace) {
    for (std::size_t length = 0; length <= 300; ++length) {
        const Bytes bytes = RandomBits(length, static_cast<std::uint32_t>(length + 1));
        GuardedBytes place(length, length % 64);
        std::copy(bytes.begin(), bytes.end(), place.data());

        GetParam().kernels->reverseBits(place.data(), length);

        const Bytes reversed = place.Contents();
        for (std::size_t i = 0; i < length; ++i) {
            ASSERT_EQ(reversed[i], m_br[bytes[i]]) << i << " of " << length;
        }
        ASSERT_TRUE(place.Intact()) << length;
    }
}

TEST(DsdGainKernelSetsTest, TheWidestSupportedSetIsTheActiveOne) {
    EXPECT_EQ(&ActiveDsdGainKernels(), &DsdGainKernelsFor(SupportedInstructionSets().back()));
    EXPECT_EQ(&ActiveDsdGainKernels(), &ActiveDsdGainKernels());
}

}  // namespace
}  // namespace vorrel
