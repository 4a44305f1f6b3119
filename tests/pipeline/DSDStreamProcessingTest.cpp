#include "pipeline/DSDStreamProcessing.h"

#include <gtest/gtest.h>

#include <array>
#include <cfenv>
#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "convert/BitReversal.h"
#include "convert/PlainGain.h"
#include "support/DSDStreamProcessingParts.h"

namespace vorrel {
namespace {

using test::PlainGain;
using test::RandomBits;
using Bytes = std::vector<std::uint8_t>;

constexpr std::int32_t kRateHz = 2'822'400;
constexpr std::int32_t kMsbFirst = 0;
constexpr std::int32_t kLsbFirst = 1;

float Factor(float decibels) {
    return std::pow(10.0F, decibels / 20.0F);
}

Bytes Reversed(Bytes bytes) {
    for (std::uint8_t& byte : bytes) {
        byte = m_br[byte];
    }
    return bytes;
}

TEST(DSDStreamProcessingTest, BeforeInitEveryCallIsRefusedAndTheDataStay) {
    DSDStreamProcessing processing;
    Bytes bytes = RandomBits(100, 1);
    const Bytes before = bytes;
    std::int32_t delay = 77;

    EXPECT_EQ(processing.Process(bytes.data(), bytes.size()), 3);
    EXPECT_EQ(processing.SetGain(-6.0F), 3);
    EXPECT_EQ(processing.GetDelay(&delay), 3);

    EXPECT_EQ(bytes, before);
    EXPECT_EQ(delay, 77);
}

TEST(DSDStreamProcessingTest, AGainSetBeforeInitIsNotTaken) {
    DSDStreamProcessing processing;
    EXPECT_EQ(processing.SetGain(-6.0F), 3);

    EXPECT_EQ(processing.Init(kRateHz, kMsbFirst), 0);

    EXPECT_EQ(DSDStreamProcessingParts::GainOf(processing), 1.0F);
}

TEST(DSDStreamProcessingTest, ZeroDecibelsAreExactlyOneAndLeaveTheBuffer) {
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(kRateHz, kLsbFirst), 0);
    ASSERT_EQ(processing.SetGain(0.0F), 0);
    Bytes bytes = RandomBits(5'000, 2);
    const Bytes before = bytes;

    EXPECT_EQ(processing.Process(bytes.data(), bytes.size()), 0);

    EXPECT_EQ(DSDStreamProcessingParts::GainOf(processing), 1.0F);
    EXPECT_EQ(bytes, before);
}

TEST(DSDStreamProcessingTest, MinusSixDecibelsAreTheKnownFactorAndChangeTheStream) {
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
    ASSERT_EQ(processing.SetGain(-6.0F), 0);
    Bytes bytes = RandomBits(5'000, 3);
    const Bytes before = bytes;

    EXPECT_EQ(processing.Process(bytes.data(), bytes.size()), 0);

    EXPECT_FLOAT_EQ(DSDStreamProcessingParts::GainOf(processing), 0.5011872F);
    EXPECT_NE(bytes, before);
}

TEST(DSDStreamProcessingTest, GetDelayLeavesItsArgument) {
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
    std::int32_t delay = 4711;

    EXPECT_EQ(processing.GetDelay(&delay), 0);
    EXPECT_EQ(processing.GetDelay(nullptr), 0);

    EXPECT_EQ(delay, 4711);
}

TEST(DSDStreamProcessingTest, NoBytesAreDoneAtOnce) {
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
    ASSERT_EQ(processing.SetGain(-6.0F), 0);

    EXPECT_EQ(processing.Process(nullptr, 0), 0);
}

TEST(DSDStreamProcessingTest, FromRestTheFirstByteIsWorkedOutByHand) {
    // Tap 0 at half gain is too little to matter in the first steps: the modulator at rest gives
    // +1 (y = 0), and is then pushed to -1 and back.
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
    ASSERT_EQ(processing.SetGain(-6.0F), 0);
    std::uint8_t byte = 0x00;

    ASSERT_EQ(processing.Process(&byte, 1), 0);

    // s0 goes 0, -1, 0-, ... with x some -0.0002; what the states are, step by step:
    // y0 = 0 -> +1; s = (-1, 0, 0, 0, 0); y1 < 0 -> -1; s = (-0, -1, 0, 0, 0); y2 < 0 -> -1;
    // s = (1, -1, -1, 0, 0); y3 = 0.79 - 0.30 - 0.07 > 0 -> +1; s = (-0, 0, -2, -1, 0); y4 < 0 ->
    // -1; s = (1, 0, -2, -3, -1); y5 > 0 -> +1; s = (-0, 1, -2, -5, -4); y6 = 0.30 - 0.14 - 0.05 >
    // 0 -> +1; s = (-1, 1, -1, -7, -9); y7 = -0.79 + 0.30 - 0.07 - 0.07 < 0 -> -1.
    EXPECT_EQ(byte, 0b1001'0110);
}

TEST(DSDStreamProcessingTest, TheStreamIsThatOfTheStepByStepVersion) {
    const Bytes source = RandomBits(3'000, 4);
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
    ASSERT_EQ(processing.SetGain(-3.0F), 0);
    Bytes bytes = source;

    ASSERT_EQ(processing.Process(bytes.data(), bytes.size()), 0);

    EXPECT_EQ(bytes, PlainGain(Factor(-3.0F)).Processed(source));
}

TEST(DSDStreamProcessingTest, LeastSignificantFirstIsTheSameStreamWithReversedBytes) {
    const Bytes source = RandomBits(3'000, 5);
    DSDStreamProcessing msb;
    DSDStreamProcessing lsb;
    ASSERT_EQ(msb.Init(kRateHz, kMsbFirst), 0);
    ASSERT_EQ(lsb.Init(kRateHz, kLsbFirst), 0);
    ASSERT_EQ(msb.SetGain(-6.0F), 0);
    ASSERT_EQ(lsb.SetGain(-6.0F), 0);
    Bytes straight = source;
    Bytes reversed = Reversed(source);

    ASSERT_EQ(msb.Process(straight.data(), straight.size()), 0);
    ASSERT_EQ(lsb.Process(reversed.data(), reversed.size()), 0);

    EXPECT_EQ(Reversed(reversed), straight);
}

TEST(DSDStreamProcessingTest, AnyBitOrderButOneIsMostSignificantFirst) {
    const Bytes source = RandomBits(600, 6);
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(kRateHz, 2), 0);
    ASSERT_EQ(processing.SetGain(-6.0F), 0);
    Bytes bytes = source;

    ASSERT_EQ(processing.Process(bytes.data(), bytes.size()), 0);

    EXPECT_EQ(bytes, PlainGain(Factor(-6.0F)).Processed(source));
}

TEST(DSDStreamProcessingTest, TheSampleRateMakesNoDifference) {
    const Bytes source = RandomBits(600, 7);
    Bytes streams[2] = {source, source};
    const std::int32_t rates[2] = {2'822'400, 11'289'600};
    for (std::size_t i = 0; i < 2; ++i) {
        DSDStreamProcessing processing;
        ASSERT_EQ(processing.Init(rates[i], kMsbFirst), 0);
        ASSERT_EQ(processing.SetGain(-6.0F), 0);
        ASSERT_EQ(processing.Process(streams[i].data(), source.size()), 0);
    }

    EXPECT_EQ(streams[0], streams[1]);
}

TEST(DSDStreamProcessingTest, InitBeginsANewStreamAndKeepsTheGain) {
    const Bytes source = RandomBits(1'000, 8);
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
    ASSERT_EQ(processing.SetGain(-6.0F), 0);
    Bytes first = source;
    ASSERT_EQ(processing.Process(first.data(), first.size()), 0);

    ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);

    Bytes second = source;
    ASSERT_EQ(processing.Process(second.data(), second.size()), 0);
    EXPECT_EQ(second, first);
}

TEST(DSDStreamProcessingTest, AStreamAtZeroDecibelsDoesNotEnterTheFilter) {
    const Bytes passed = RandomBits(500, 9);
    const Bytes source = RandomBits(500, 10);
    DSDStreamProcessing processing;
    ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
    Bytes bytes = passed;
    ASSERT_EQ(processing.Process(bytes.data(), bytes.size()), 0);
    ASSERT_EQ(processing.SetGain(-6.0F), 0);
    bytes = source;

    ASSERT_EQ(processing.Process(bytes.data(), bytes.size()), 0);

    EXPECT_EQ(bytes, PlainGain(Factor(-6.0F)).Processed(source));
}

TEST(DSDStreamProcessingTest, GainsThatAreNoFactorOfAudioAreTakenLiterally) {
    // Infinite, not a number, nothing at all, and so little or so much that products vanish or
    // overflow.
    for (const float decibels : {1e9F, NAN, -1e9F, -760.0F, -900.0F, 400.0F, 763.0F, 768.0F}) {
        const Bytes source = RandomBits(700, 11);
        DSDStreamProcessing processing;
        ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
        ASSERT_EQ(processing.SetGain(decibels), 0);
        Bytes bytes = source;

        ASSERT_EQ(processing.Process(bytes.data(), bytes.size()), 0);

        EXPECT_EQ(bytes, PlainGain(Factor(decibels)).Processed(source)) << decibels;
    }
}

/// What a stream goes through, in pieces; the kernels take over and give back between them.
struct Piece {
    float decibels;
    std::size_t length;
};

class DSDStreamProcessingSetsTest : public ::testing::TestWithParam<InstructionSet> {
protected:
    static void ExpectSameAsPlain(const std::vector<Piece>& pieces) {
        DSDStreamProcessing processing;
        DSDStreamProcessingParts::Force(processing, GetParam());
        ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
        PlainGain plain(1.0F);
        std::uint32_t seed = 100;
        for (const Piece& piece : pieces) {
            const Bytes source = RandomBits(piece.length, seed++);
            Bytes bytes = source;
            ASSERT_EQ(processing.SetGain(piece.decibels), 0);
            ASSERT_EQ(processing.Process(bytes.data(), bytes.size()), 0);

            plain.SetGain(Factor(piece.decibels));
            const Bytes expected = piece.decibels == 0 ? source : plain.Processed(source);

            ASSERT_EQ(bytes, expected) << "piece " << seed - 101;
        }
    }
};

std::string NameOf(const ::testing::TestParamInfo<InstructionSet>& set) {
    static const std::array kNames = {"Baseline", "Avx2", "Avx512"};
    return kNames.at(static_cast<std::size_t>(set.param));
}

INSTANTIATE_TEST_SUITE_P(Sets, DSDStreamProcessingSetsTest,
                         ::testing::ValuesIn(SupportedInstructionSets()), NameOf);

TEST_P(DSDStreamProcessingSetsTest, AStreamInOnePiece) {
    ExpectSameAsPlain({{-6.0F, 5'000}});
}

TEST_P(DSDStreamProcessingSetsTest, AStreamInPiecesOfEverySize) {
    std::vector<Piece> pieces;
    for (std::size_t length = 0; length < 120; ++length) {
        pieces.push_back({-6.0F, length});
    }
    ExpectSameAsPlain(pieces);
}

TEST_P(DSDStreamProcessingSetsTest, TheGainMayChangeAtAnyPointOfTheStream) {
    // Before, at and after the 50 bytes that the filter looks back on.
    for (const std::size_t length : {1U, 49U, 50U, 51U, 99U, 100U, 101U, 200U}) {
        ExpectSameAsPlain({{-6.0F, length},
                           {3.0F, length},
                           {3.0F, length},
                           {-20.0F, length},
                           {-6.0F, 700},
                           {0.5F, 700}});
        ASSERT_FALSE(HasFatalFailure()) << length;
    }
}

TEST_P(DSDStreamProcessingSetsTest, ABypassedStretchLeavesFilterAndModulatorAsTheyWere) {
    ExpectSameAsPlain({{-6.0F, 300}, {0.0F, 300}, {-6.0F, 300}, {0.0F, 10}, {2.0F, 300}});
}

TEST_P(DSDStreamProcessingSetsTest, TheSameGainSetAgainChangesNothing) {
    ExpectSameAsPlain({{-6.0F, 100}, {-6.0F, 1}, {-6.0F, 100}, {-6.0F, 3'000}});
}

TEST_P(DSDStreamProcessingSetsTest, GainsBeyondTheKernelsReachMixWithOthers) {
    ExpectSameAsPlain({{-6.0F, 200}, {700.0F, 200}, {-6.0F, 200}, {-800.0F, 200}, {1.0F, 200}});
}

TEST_P(DSDStreamProcessingSetsTest, AGainThatWasNoNumberIsFollowedLiterally) {
    for (const float none :
         {std::numeric_limits<float>::quiet_NaN(), -std::numeric_limits<float>::quiet_NaN(),
          std::numeric_limits<float>::infinity()}) {
        ExpectSameAsPlain({{none, 100}, {-6.0F, 400}});
    }
}

TEST_P(DSDStreamProcessingSetsTest, InitForgetsWhatTheKernelsKept) {
    DSDStreamProcessing processing;
    DSDStreamProcessingParts::Force(processing, GetParam());
    const Bytes source = RandomBits(1'000, 12);
    for (const float decibels : {-6.0F, -6.0F, 4.0F}) {
        ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
        ASSERT_EQ(processing.SetGain(decibels), 0);
        Bytes bytes = source;

        ASSERT_EQ(processing.Process(bytes.data(), bytes.size()), 0);

        ASSERT_EQ(bytes, PlainGain(Factor(decibels)).Processed(source));
    }
}

TEST_P(DSDStreamProcessingSetsTest, ATurnedRoundingModeChangesNothing) {
    const Bytes source = RandomBits(1'000, 13);
    const Bytes expected = PlainGain(Factor(-6.0F)).Processed(source);
    DSDStreamProcessing processing;
    DSDStreamProcessingParts::Force(processing, GetParam());
    ASSERT_EQ(processing.Init(kRateHz, kMsbFirst), 0);
    Bytes bytes = source;

    ASSERT_EQ(std::fesetround(FE_UPWARD), 0);
    std::ignore = processing.SetGain(-6.0F);
    const int result = processing.Process(bytes.data(), bytes.size());
    ASSERT_EQ(std::fesetround(FE_TONEAREST), 0);

    EXPECT_EQ(result, 0);
    EXPECT_EQ(bytes, expected);
}

}  // namespace
}  // namespace vorrel
