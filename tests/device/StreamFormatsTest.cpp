#include "device/StreamFormats.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/FakeRecorder.h"

namespace vorrel {
namespace {

using test::AnyRate;
using test::Ranged;
using Formats = std::vector<AudioStreamRangedDescription>;

UInt32 BitsFound(const Formats& formats, double rateHz, std::uint32_t targetBits) {
    const auto* found = SearchASRD(formats, rateHz, targetBits);
    return found == nullptr ? 0 : found->mFormat.mBitsPerChannel;
}

TEST(StreamFormatsTest, PcmPicks32BitsOver24) {
    EXPECT_EQ(BitsFound({Ranged(96'000, 24, 2), Ranged(96'000, 32, 2)}, 96'000, 32), 32U);
    EXPECT_EQ(BitsFound({Ranged(96'000, 32, 2), Ranged(96'000, 24, 2)}, 96'000, 32), 32U);
}

TEST(StreamFormatsTest, PcmPicks24BitsWhereThereAreOnly16And24) {
    EXPECT_EQ(BitsFound({Ranged(96'000, 16, 2), Ranged(96'000, 24, 2)}, 96'000, 32), 24U);
    EXPECT_EQ(BitsFound({Ranged(96'000, 24, 2), Ranged(96'000, 16, 2)}, 96'000, 32), 24U);
}

TEST(StreamFormatsTest, TakesTheTargetItselfOverMoreAndOverFewerBits) {
    EXPECT_EQ(BitsFound({Ranged(1, 32, 2), Ranged(1, 24, 2), Ranged(1, 16, 2)}, 1, 24), 24U);
    EXPECT_EQ(BitsFound({Ranged(1, 16, 2), Ranged(1, 24, 2), Ranged(1, 32, 2)}, 1, 24), 24U);
}

TEST(StreamFormatsTest, TakesTheNearestAboveTheTarget) {
    EXPECT_EQ(BitsFound({Ranged(1, 32, 2), Ranged(1, 24, 2)}, 1, 16), 24U);
    EXPECT_EQ(BitsFound({Ranged(1, 24, 2), Ranged(1, 32, 2)}, 1, 16), 24U);
}

TEST(StreamFormatsTest, TakesMoreBitsWhereOneIsBelowTheTarget) {
    EXPECT_EQ(BitsFound({Ranged(1, 16, 2), Ranged(1, 32, 2)}, 1, 24), 32U);
    EXPECT_EQ(BitsFound({Ranged(1, 32, 2), Ranged(1, 16, 2)}, 1, 24), 32U);
    EXPECT_EQ(BitsFound({Ranged(1, 8, 2), Ranged(1, 16, 2)}, 1, 24), 16U);
    EXPECT_EQ(BitsFound({Ranged(1, 16, 2), Ranged(1, 8, 2)}, 1, 24), 16U);
}

TEST(StreamFormatsTest, TheFirstOfEqualBitsAndChannelsIsChosen) {
    const Formats formats = {Ranged(96'000, 24, 2), Ranged(96'000, 24, 2)};

    EXPECT_EQ(SearchASRD(formats, 96'000, 32), &formats[0]);
}

TEST(StreamFormatsTest, MoreChannelsWinAtEqualBits) {
    const Formats rising = {Ranged(96'000, 24, 2), Ranged(96'000, 24, 4)};
    const Formats falling = {Ranged(96'000, 24, 4), Ranged(96'000, 24, 2)};

    EXPECT_EQ(SearchASRD(rising, 96'000, 32), &rising[1]);
    EXPECT_EQ(SearchASRD(falling, 96'000, 32), &falling[0]);
}

TEST(StreamFormatsTest, BitsDecideBeforeChannels) {
    const Formats formats = {Ranged(96'000, 24, 8), Ranged(96'000, 32, 1)};

    EXPECT_EQ(SearchASRD(formats, 96'000, 32), &formats[1]);
}

TEST(StreamFormatsTest, AnyCandidateWinsAgainstNone) {
    EXPECT_TRUE(CompareASRD(nullptr, Ranged(96'000, 8, 1), 32));
}

TEST(StreamFormatsTest, TheKeptBestStaysOnADraw) {
    const AudioStreamRangedDescription best = Ranged(96'000, 24, 2);

    EXPECT_FALSE(CompareASRD(&best, Ranged(96'000, 24, 2), 32));
    EXPECT_FALSE(CompareASRD(&best, Ranged(96'000, 24, 1), 32));
    EXPECT_TRUE(CompareASRD(&best, Ranged(96'000, 24, 3), 32));
}

TEST(StreamFormatsTest, FindsNothingAtAnotherRate) {
    EXPECT_EQ(SearchASRD(Formats{Ranged(96'000, 24, 2)}, 96'000.5, 32), nullptr);
    EXPECT_EQ(SearchASRD(Formats{}, 96'000, 32), nullptr);
}

TEST(StreamFormatsTest, AnEntryForARateIsNotStretchedByItsRange) {
    AudioStreamRangedDescription format = Ranged(96'000, 24, 2);
    format.mSampleRateRange = {44'100, 192'000};

    EXPECT_FALSE(IsEligibleFormat(format, 48'000));
    EXPECT_TRUE(IsEligibleFormat(format, 96'000));
}

TEST(StreamFormatsTest, AnEntryForAnyRateTakesItsRangeWithBothEnds) {
    const AudioStreamRangedDescription format = AnyRate(44'100, 192'000, 24, 2);

    EXPECT_TRUE(IsEligibleFormat(format, 44'100));
    EXPECT_TRUE(IsEligibleFormat(format, 96'000));
    EXPECT_TRUE(IsEligibleFormat(format, 192'000));
    EXPECT_FALSE(IsEligibleFormat(format, 44'099.5));
    EXPECT_FALSE(IsEligibleFormat(format, 192'000.5));
}

TEST(StreamFormatsTest, OnlySignedIntegerLinearPcmThatIsNotNonMixableIsEligible) {
    AudioStreamRangedDescription compressed = Ranged(96'000, 24, 2);
    compressed.mFormat.mFormatID = vorrel::detail::FourCharCode("cac3");
    AudioStreamRangedDescription floating = Ranged(96'000, 32, 2);
    floating.mFormat.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    AudioStreamRangedDescription nonMixable = Ranged(96'000, 24, 2);
    nonMixable.mFormat.mFormatFlags |= kAudioFormatFlagIsNonMixable;

    EXPECT_FALSE(IsEligibleFormat(compressed, 96'000));
    EXPECT_FALSE(IsEligibleFormat(floating, 96'000));
    EXPECT_FALSE(IsEligibleFormat(nonMixable, 96'000));
    EXPECT_TRUE(IsEligibleFormat(Ranged(96'000, 24, 2), 96'000));
}

TEST(StreamFormatsTest, IneligibleFormatsNeverWin) {
    AudioStreamRangedDescription nonMixable = Ranged(96'000, 32, 8);
    nonMixable.mFormat.mFormatFlags |= kAudioFormatFlagIsNonMixable;

    EXPECT_EQ(BitsFound({nonMixable, Ranged(96'000, 16, 2), Ranged(48'000, 32, 2)}, 96'000, 32),
              16U);
}

TEST(StreamFormatsTest, WithoutARateEveryUsableFormatTakesPart) {
    const Formats formats = {Ranged(44'100, 16, 2), AnyRate(1, 2, 24, 2), Ranged(8'000, 20, 2)};

    EXPECT_EQ(SearchASRD(formats, std::nullopt, 32), &formats[1]);
}

}  // namespace
}  // namespace vorrel
