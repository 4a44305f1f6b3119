#include "Tracks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vorrel::cli {
namespace {

using testing::ElementsAre;

TakeFormat Pcm() {
    TakeFormat format;
    format.rateHz = 48'000;
    format.channels = 2;
    format.bits = 24;
    return format;
}

TakeFormat Dsd() {
    TakeFormat format;
    format.rateHz = 2'822'400;
    format.channels = 2;
    format.dsd = true;
    return format;
}

WantedFile Whole(std::uint64_t start = 0, std::optional<std::uint64_t> end = std::nullopt) {
    WantedFile whole;
    whole.path = "/m/take.wav";
    whole.start = start;
    whole.end = end;
    whole.whole = true;
    return whole;
}

/// Starts, and the end of the last, 0 = to the end of what there is.
std::vector<std::uint64_t> Bounds(const std::vector<WantedFile>& files) {
    std::vector<std::uint64_t> bounds;
    for (std::size_t index = 0; index < files.size(); ++index) {
        bounds.push_back(files[index].start);
        if (index > 0) {
            EXPECT_EQ(files[index - 1].end, files[index].start);  // neither a gap nor an overlap
        }
    }
    bounds.push_back(files.back().end.value_or(0));
    return bounds;
}

TEST(TracksTest, ATakeWithoutCutsStaysWhole) {
    const Tracks tracks(Pcm());

    const std::vector<WantedFile> files = tracks.Split(Whole(), 1'000);

    ASSERT_EQ(files.size(), 1U);
    EXPECT_EQ(files[0].path, "/m/take.wav");
    EXPECT_EQ(files[0].end, std::nullopt);
    EXPECT_TRUE(tracks.Empty());
}

TEST(TracksTest, CutsMeetAtTheSameFrameInWhateverOrderTheyCome) {
    Tracks tracks(Pcm());
    EXPECT_EQ(tracks.Add(700)->frame, 700U);
    EXPECT_EQ(tracks.Add(300)->movedFrames, 0);
    EXPECT_FALSE(tracks.Add(300));
    EXPECT_FALSE(tracks.Add(0));

    const std::vector<WantedFile> files = tracks.Split(Whole(), 1'000);

    EXPECT_THAT(Bounds(files), ElementsAre(0, 300, 700, 0));
    EXPECT_EQ(files[0].path, "/m/take-01.wav");
    EXPECT_EQ(files[2].path, "/m/take-03.wav");
    EXPECT_TRUE(files[1].whole);
    EXPECT_EQ(tracks.Count(), 2U);
}

TEST(TracksTest, CutsCountFromTheStartOfTheTake) {
    Tracks tracks(Pcm());
    std::ignore = tracks.Add(300);

    EXPECT_THAT(Bounds(tracks.Split(Whole(5'000, 5'900), 10'000)),
                ElementsAre(5'000, 5'300, 5'900));
}

TEST(TracksTest, ACutAtOrBehindTheEndIsNone) {
    Tracks tracks(Pcm());
    std::ignore = tracks.Add(1'000);
    std::ignore = tracks.Add(2'000);

    EXPECT_EQ(tracks.Split(Whole(), 1'000).size(), 1U);
    EXPECT_THAT(Bounds(tracks.Split(Whole(), 1'001)), ElementsAre(0, 1'000, 0));
    EXPECT_EQ(tracks.Split(Whole(), 0).size(), 1U);
    EXPECT_EQ(tracks.Split(Whole(0, 900), 1'001).size(), 1U);
}

TEST(TracksTest, CutsAtOrBehindTheEndAreMissed) {
    Tracks tracks(Pcm());
    for (const std::uint64_t cut : {300U, 1'000U, 2'000U}) {
        std::ignore = tracks.Add(cut);
    }

    EXPECT_THAT(tracks.Missed(Whole(), 1'000), ElementsAre(1'000, 2'000));
    EXPECT_THAT(tracks.Missed(Whole(), 1'001), ElementsAre(2'000));
    EXPECT_THAT(tracks.Missed(Whole(50), 1'050), ElementsAre(1'000, 2'000));
    EXPECT_THAT(tracks.Missed(Whole(0, 300), 5'000), ElementsAre(300, 1'000, 2'000));
    EXPECT_THAT(tracks.Missed(Whole(), 5'000), testing::IsEmpty());
}

TEST(TracksTest, WhatWasAnnouncedHasANumberAndItsDigitsHoweverEarlyItEnds) {
    Tracks tracks(Pcm());
    tracks.NumberAlways();
    for (std::uint64_t cut = 1; cut <= 99; ++cut) {
        std::ignore = tracks.Add(cut * 100);
    }

    EXPECT_EQ(tracks.Split(Whole(), 100).at(0).path, "/m/take-001.wav");
    EXPECT_EQ(tracks.Split(Whole(), 101).at(1).path, "/m/take-002.wav");
}

TEST(TracksTest, ALimitOfLengthCountsAnewFromEveryCut) {
    Tracks tracks(Pcm());
    std::ignore = tracks.Add(250);
    tracks.LimitLength(100);

    EXPECT_THAT(Bounds(tracks.Split(Whole(), 450)), ElementsAre(0, 100, 200, 250, 350, 0));
    EXPECT_FALSE(tracks.Empty());
    EXPECT_EQ(tracks.Count(), 1U);
}

TEST(TracksTest, DsdCutsFallOnWholeBlocksAndSayHowFarTheyMove) {
    Tracks tracks(Dsd());
    constexpr std::uint64_t kBlock = 4096 * 8;

    EXPECT_EQ(tracks.Add(kBlock * 3 + 100)->frame, kBlock * 3);
    const std::optional<Tracks::Cut> up = tracks.Add(kBlock * 5 - 100);
    EXPECT_EQ(up->frame, kBlock * 5);
    EXPECT_EQ(up->movedFrames, 100);
    EXPECT_FALSE(tracks.Add(100));               // the start
    EXPECT_FALSE(tracks.Add(kBlock * 3 + 200));  // there is one already
    tracks.LimitLength(kBlock + 1);

    EXPECT_THAT(Bounds(tracks.Split(Whole(8), kBlock * 4)),
                ElementsAre(8, kBlock + 8, kBlock * 2 + 8, kBlock * 3 + 8, 0));
}

TEST(TracksTest, HowFarACutHasMovedIsToldInMilliseconds) {
    EXPECT_EQ(MovedText({0, 0}, Dsd()), "");
    EXPECT_EQ(MovedText({0, -14'112}, Dsd()), ", moved by 5 ms to where blocks of a DSF file meet");
    EXPECT_EQ(MovedText({0, 8}, Dsd()),
              ", moved by less than 1 ms to where blocks of a DSF file meet");
}

TEST(TracksTest, ALimitBelowABlockIsABlock) {
    Tracks tracks(Dsd());
    tracks.LimitLength(8);

    EXPECT_EQ(tracks.Split(Whole(), 4096 * 8 * 3).size(), 3U);
}

TEST(TracksTest, NamesHaveAsManyDigitsAsTheLastNumber) {
    EXPECT_EQ(TrackPath("/a.b/take", 1, 2), "/a.b/take-01");
    EXPECT_EQ(TrackPath("/m/take.wav", 7, 120), "/m/take-007.wav");
    EXPECT_EQ(TrackPath("/m/take.wav", 120, 120), "/m/take-120.wav");
    EXPECT_EQ(TrackPath(".hidden", 1, 2), ".hidden-01");
}

}  // namespace
}  // namespace vorrel::cli
