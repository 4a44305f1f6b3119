#include "Pattern.h"

#include <gtest/gtest.h>

#include "PatternChecker.h"

namespace vorrel::e2e {
namespace {

TEST(PatternTest, TheFirstFramesAreThese) {
    const Pattern pcm(StreamMode::Pcm, 16);
    const Pattern dsd(StreamMode::Dsd, 16);

    EXPECT_EQ(pcm.At(0), (Frame{0, 0}));
    EXPECT_EQ(pcm.At(1), (Frame{1, 40'503}));
    EXPECT_EQ(pcm.At(2), (Frame{2, 15'470}));       // 81,006 - 65,536
    EXPECT_EQ(pcm.At(65'536), (Frame{0, 1}));       // the number goes on in the second channel
    EXPECT_EQ(dsd.At(0), (Frame{0x6969, 0x6969}));  // the idle pattern
}

TEST(PatternTest, EveryFrameTellsItsNumber) {
    for (const StreamMode mode : {StreamMode::Pcm, StreamMode::Dsd}) {
        for (const unsigned bits : {16U, 24U}) {
            const Pattern pattern(mode, bits);
            for (const std::uint64_t number :
                 {0ULL, 1ULL, 65'535ULL, 65'536ULL, 16'777'216ULL, 4'294'967'295ULL}) {
                EXPECT_EQ(pattern.NumberOf(pattern.At(number)), number);
            }
        }
    }
}

TEST(PatternTest, FillsItsWidthAndNoMore) {
    const Pattern pattern(StreamMode::Pcm, 24);
    std::uint32_t used = 0;
    for (std::uint64_t number = 0; number < (1U << 24); number += 4'095) {
        used |= pattern.At(number)[0];
        used |= pattern.At(number)[1];
    }
    EXPECT_EQ(used, 0xFF'FFFFU);
}

TEST(PatternTest, TheModesHaveNoFrameInCommonAtOnePlace) {
    const Pattern pcm(StreamMode::Pcm, 16);
    const Pattern dsd(StreamMode::Dsd, 16);
    for (std::uint64_t number = 0; number < 100'000; ++number) {
        EXPECT_NE(pcm.At(number), dsd.At(number));
    }
}

class PatternCheckerTest : public testing::TestWithParam<unsigned> {
protected:
    void AddFrames(std::uint64_t from, std::uint64_t to) {
        for (std::uint64_t number = from; number < to; ++number) {
            checker.Add(pattern.At(number));
        }
    }

    Pattern pattern{StreamMode::Pcm, GetParam()};
    PatternChecker checker{pattern};
};

INSTANTIATE_TEST_SUITE_P(Widths, PatternCheckerTest, testing::Values(16U, 24U));

TEST_P(PatternCheckerTest, FindsNothingInWhatWasPlayed) {
    AddFrames(0, 200'000);

    EXPECT_TRUE(checker.Result().IsClean());
    EXPECT_EQ(checker.Result().frames, 200'000U);
    EXPECT_EQ(checker.Result().firstNumber, 0U);
}

TEST_P(PatternCheckerTest, ATakeMayBeginAnywhere) {
    AddFrames(70'000, 80'000);

    EXPECT_TRUE(checker.Result().IsClean());
    EXPECT_EQ(checker.Result().firstNumber, 70'000U);
}

TEST_P(PatternCheckerTest, FindsOneMissingFrame) {
    AddFrames(0, 1'000);
    AddFrames(1'001, 2'000);

    EXPECT_EQ(checker.Result().gaps, 1U);
    EXPECT_EQ(checker.Result().missing, 1U);
    EXPECT_EQ(checker.Result().wrong, 0U);
    EXPECT_FALSE(checker.Result().IsClean());
}

TEST_P(PatternCheckerTest, FindsAGapOfAWholeRoundOfTheFirstChannel) {
    const std::uint64_t round = std::uint64_t{1} << GetParam();
    AddFrames(0, 1'000);
    AddFrames(1'000 + round, 2'000 + round);

    EXPECT_EQ(checker.Result().gaps, 1U);
    EXPECT_EQ(checker.Result().missing, round);
}

TEST_P(PatternCheckerTest, FindsARepeatedStretch) {
    AddFrames(0, 1'000);
    AddFrames(952, 2'000);

    EXPECT_EQ(checker.Result().repeats, 1U);
    EXPECT_EQ(checker.Result().repeated, 48U);
    EXPECT_EQ(checker.Result().gaps, 0U);
    EXPECT_EQ(checker.Result().wrong, 0U);
}

TEST_P(PatternCheckerTest, FindsEveryOneOfSeveralPlaces) {
    AddFrames(0, 1'000);
    AddFrames(1'006, 2'000);
    AddFrames(1'990, 3'000);
    AddFrames(3'100, 4'000);

    EXPECT_EQ(checker.Result().gaps, 2U);
    EXPECT_EQ(checker.Result().missing, 106U);
    EXPECT_EQ(checker.Result().repeats, 1U);
    EXPECT_EQ(checker.Result().repeated, 10U);
}

TEST_P(PatternCheckerTest, AChangedSampleIsWrongAndNoGap) {
    AddFrames(0, 1'000);
    Frame changed = pattern.At(1'000);
    changed[1] ^= 1U;
    checker.Add(changed);
    AddFrames(1'001, 2'000);

    EXPECT_EQ(checker.Result().wrong, 1U);
    EXPECT_EQ(checker.Result().gaps, 0U);
    EXPECT_EQ(checker.Result().repeats, 0U);
}

TEST_P(PatternCheckerTest, SwappedChannelsAreToldAsSuch) {
    AddFrames(0, 1'000);
    const Frame frame = pattern.At(1'000);
    checker.Add({frame[1], frame[0]});
    AddFrames(1'001, 2'000);

    EXPECT_EQ(checker.Result().wrong, 1U);
    EXPECT_EQ(checker.Result().swapped, 1U);
}

TEST_P(PatternCheckerTest, SilenceInBetweenIsNotClean) {
    AddFrames(1, 1'000);
    for (int count = 0; count < 48; ++count) {
        checker.Add({0, 0});
    }
    AddFrames(1'000, 2'000);

    EXPECT_FALSE(checker.Result().IsClean());
}

TEST_P(PatternCheckerTest, AJumpInTheLastFrameIsNotClean) {
    AddFrames(0, 1'000);
    checker.Add(pattern.At(1'500));

    EXPECT_FALSE(checker.Result().IsClean());
}

TEST_P(PatternCheckerTest, ASampleWiderThanThePatternIsWrong) {
    AddFrames(0, 1'000);
    Frame wide = pattern.At(1'000);
    wide[0] |= 0x8000'0000U;
    checker.Add(wide);

    EXPECT_EQ(checker.Result().wrong, 1U);
}

}  // namespace
}  // namespace vorrel::e2e
