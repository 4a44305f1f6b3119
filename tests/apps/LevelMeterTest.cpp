#include "LevelMeter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Screen.h"

namespace vorrel::cli {
namespace {

constexpr double kSilence = -std::numeric_limits<double>::infinity();

TEST(LevelMeterTest, MeasuresEachChannelOnItsOwn) {
    const std::int16_t samples[] = {16384, 0, -100, 0, 3, -3277};

    const std::vector<Level> levels = MeasureLevels(samples, 2);

    ASSERT_EQ(levels.size(), 2U);
    EXPECT_NEAR(levels[0].peakDbfs, -6.02, 0.01);
    EXPECT_NEAR(levels[1].peakDbfs, -20.0, 0.01);
    EXPECT_FALSE(levels[0].clipped);
}

TEST(LevelMeterTest, TheLowestSampleIsFullScaleAndClipped) {
    const std::int16_t samples[] = {-32768, 32767, 32766, 0};

    const std::vector<Level> levels = MeasureLevels(samples, 4);

    EXPECT_EQ(levels[0].peakDbfs, 0.0);
    EXPECT_TRUE(levels[0].clipped);
    EXPECT_TRUE(levels[1].clipped);
    EXPECT_FALSE(levels[2].clipped);
    EXPECT_EQ(levels[3].peakDbfs, kSilence);
}

TEST(LevelMeterTest, NoFramesAreSilence) {
    EXPECT_EQ(MeasureLevels({}, 1).at(0).peakDbfs, kSilence);
    EXPECT_TRUE(MeasureLevels({}, 0).empty());
}

TEST(LevelMeterTest, TheBarShowsTheTopSixtyDecibels) {
    EXPECT_EQ(MeterBar({kSilence, false}, 6), "------");
    EXPECT_EQ(MeterBar({-60.0, false}, 6), "------");
    EXPECT_EQ(MeterBar({-30.0, false}, 6), "###---");
    EXPECT_EQ(MeterBar({-1.0, false}, 6), "######");
    EXPECT_EQ(MeterBar({0.0, true}, 6), "#####!");
    EXPECT_EQ(MeterBar({0.0, true}, 0), "");
}

TEST(LevelMeterTest, OneCharacterAChannelShowsStepsOfTenDecibels) {
    EXPECT_EQ(CompactMeterText({{kSilence, false},
                                {-60.1, false},
                                {-60.0, false},
                                {-45.0, false},
                                {-35.0, false},
                                {-25.0, false},
                                {-15.0, false},
                                {-5.0, false},
                                {0.0, false},
                                {0.0, true}}),
              "[..:-=+*##!]");
}

TEST(LevelMeterTest, NamesTwoChannelsByTheirSideAndMoreByNumber) {
    const Level half{-30.0, false};

    EXPECT_EQ(MeterText({half, {kSilence, false}}, 2), "L [#-] -30.0  R [--]  -inf");
    EXPECT_EQ(MeterText({half}, 2), "1 [#-] -30.0");
    EXPECT_EQ(DecibelText(-0.01), "0.0");
}

TEST(StatusTextTest, ShowsPositionStateLevelsDiskAndLosses) {
    StatusLine status;
    status.state = "recording";
    status.position = 62.5;
    status.levels = {{-30.0, false}, {-30.0, false}};
    status.diskSecondsLeft = 7.0 * 3600.0 + 5.0 * 60.0;
    status.lostBuffers = true;

    const std::string text = StatusText(status, 200);

    EXPECT_EQ(text,
              "01:02.5 recording  BUFFERS LOST  disk 7 h 05 min  "
              "L [############------------] -30.0  R [############------------] -30.0");
}

TEST(StatusTextTest, EightChannelsOnEightyColumnsLoseNeitherDiskTimeNorLosses) {
    StatusLine status;
    status.state = "recording";
    status.levels.assign(8, {-30.0, false});
    status.levels[2] = {0.0, true};
    status.levels[7] = {kSilence, false};
    status.diskSecondsLeft = 90.0;
    status.lostBuffers = true;

    EXPECT_EQ(StatusText(status, 79), "00:00.0 recording  BUFFERS LOST  disk 1 min  [++!++++.]");
}

TEST(StatusTextTest, ShrinksTheMetersBeforeItCutsTheLine) {
    StatusLine status;
    status.state = "recording";
    status.levels = {{-30.0, false}, {-30.0, false}};

    EXPECT_EQ(StatusText(status, 55), "00:00.0 recording  L [####---] -30.0  R [####---] -30.0");
    EXPECT_EQ(StatusText(status, 10), "00:00.0 re");
}

TEST(StatusTextTest, ASaveShowsItsPercentage) {
    StatusLine status;
    status.state = "saving";
    status.savePercent = 42.9;

    EXPECT_EQ(StatusText(status, 79), "00:00.0 saving  42 %");
}

TEST(DiskTimeTextTest, UsesTheUnitThatMatters) {
    EXPECT_EQ(DiskTimeText(59.9), "59 s");
    EXPECT_EQ(DiskTimeText(60.0), "1 min");
    EXPECT_EQ(DiskTimeText(3600.0), "1 h 00 min");
    EXPECT_EQ(DiskTimeText(400'000.0), "over 99 h");
    EXPECT_EQ(DiskTimeText(std::numeric_limits<double>::infinity()), "over 99 h");
}

}  // namespace
}  // namespace vorrel::cli
