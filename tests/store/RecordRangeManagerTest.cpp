#include "store/RecordRangeManager.h"

#include <gtest/gtest.h>

#include <limits>

#include "store/StoreTestSupport.h"

namespace vorrel::test {
namespace {

constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();

/// Record at 100, pause at 200, resume at 300.
class RecordPauseResumeTest : public ::testing::Test {
protected:
    RecordPauseResumeTest() {
        log.AddRecordEvent(100, kRecordEventRecord);
        log.AddRecordEvent(200, kRecordEventPause);
        log.AddRecordEvent(300, kRecordEventResume);
    }

    RecordRangeManager log;
};

TEST_F(RecordPauseResumeTest, ClipsTheClosedRangeAndLeavesTheResumedOneOpen) {
    EXPECT_EQ(log.GetAvailableRange_Frames(150, 350), (Ranges{{150, 200}, {300, 300}}));
}

TEST_F(RecordPauseResumeTest, GivesNothingForASpanThatEndsWhereTheFirstRangeBegins) {
    EXPECT_EQ(log.GetAvailableRange_Frames(0, 100), Ranges{});
}

TEST_F(RecordPauseResumeTest, GivesNothingForASpanInsideThePause) {
    EXPECT_EQ(log.GetAvailableRange_Frames(200, 300), Ranges{});
}

TEST_F(RecordPauseResumeTest, ClipsAClosedRangeOnBothSides) {
    EXPECT_EQ(log.GetAvailableRange_Frames(120, 180), (Ranges{{120, 180}}));
}

TEST_F(RecordPauseResumeTest, LeavesOutARangeThatEndsWhereTheSpanBegins) {
    EXPECT_EQ(log.GetAvailableRange_Frames(200, 301), (Ranges{{300, 300}}));
}

TEST_F(RecordPauseResumeTest, GivesNothingForAnEmptyOrInvertedSpan) {
    EXPECT_EQ(log.GetAvailableRange_Frames(150, 150), Ranges{});
    EXPECT_EQ(log.GetAvailableRange_Frames(160, 150), Ranges{});
}

TEST_F(RecordPauseResumeTest, ClosesTheResumedRangeAtTheStop) {
    log.AddRecordEvent(400, kRecordEventStop);

    EXPECT_EQ(log.GetAvailableRange_Frames(0, 1000), (Ranges{{100, 200}, {300, 400}}));
}

TEST_F(RecordPauseResumeTest, RecordBeginsANewLogWhateverCameBefore) {
    log.AddRecordEvent(50, kRecordEventRecord);

    EXPECT_EQ(log.GetAvailableRange_Frames(0, 1000), (Ranges{{50, 50}}));
}

TEST_F(RecordPauseResumeTest, ResetForgetsEverything) {
    EXPECT_TRUE(log.Reset());

    EXPECT_EQ(log.GetAvailableRange_Frames(0, 1000), Ranges{});
    log.AddRecordEvent(500, kRecordEventPause);  // idle: nothing to close
    EXPECT_EQ(log.GetAvailableRange_Frames(0, 1000), Ranges{});
}

TEST(RecordRangeManagerTest, AnOpenRangeBeginsWithTheSpanWhenItBeganEarlier) {
    RecordRangeManager log;
    log.AddRecordEvent(0, kRecordEventRecord);

    EXPECT_EQ(log.GetAvailableRange_Frames(50, 80), (Ranges{{50, 50}}));
}

TEST(RecordRangeManagerTest, ReportsARangePausedWhereItBeganAsOpen) {
    RecordRangeManager log;
    log.AddRecordEvent(10, kRecordEventRecord);
    log.AddRecordEvent(10, kRecordEventPause);

    EXPECT_EQ(log.GetAvailableRange_Frames(0, 100), (Ranges{{10, 10}}));
}

TEST(RecordRangeManagerTest, ARangePausedWhereItBeganHidesTheLaterOnes) {
    RecordRangeManager log;
    log.AddRecordEvent(10, kRecordEventRecord);
    log.AddRecordEvent(10, kRecordEventPause);
    log.AddRecordEvent(20, kRecordEventResume);
    log.AddRecordEvent(30, kRecordEventStop);

    EXPECT_EQ(log.GetAvailableRange_Frames(15, 100), (Ranges{{15, 15}}));
}

TEST(RecordRangeManagerTest, IgnoresResumeWhileRecordingAndPauseWhilePaused) {
    RecordRangeManager log;
    log.AddRecordEvent(10, kRecordEventRecord);
    log.AddRecordEvent(20, kRecordEventResume);
    log.AddRecordEvent(30, kRecordEventPause);
    log.AddRecordEvent(40, kRecordEventPause);

    EXPECT_EQ(log.GetAvailableRange_Frames(0, 100), (Ranges{{10, 30}}));
}

TEST(RecordRangeManagerTest, IgnoresAStopWhilePaused) {
    RecordRangeManager log;
    log.AddRecordEvent(10, kRecordEventRecord);
    log.AddRecordEvent(30, kRecordEventPause);
    log.AddRecordEvent(40, kRecordEventStop);

    EXPECT_EQ(log.GetAvailableRange_Frames(0, 100), (Ranges{{10, 30}}));
}

TEST(RecordRangeManagerTest, ResumesAfterAStopAsAfterAPause) {
    RecordRangeManager log;
    log.AddRecordEvent(10, kRecordEventRecord);
    log.AddRecordEvent(20, kRecordEventStop);
    log.AddRecordEvent(30, kRecordEventResume);

    EXPECT_EQ(log.GetAvailableRange_Frames(0, 100), (Ranges{{10, 20}, {30, 30}}));
}

TEST(RecordRangeManagerTest, IgnoresUnknownAndNegativeEventCodes) {
    RecordRangeManager log;
    log.AddRecordEvent(10, kRecordEventRecord);
    for (const int code : {4, 5, 1000, -1, -2, std::numeric_limits<int>::min()}) {
        log.AddRecordEvent(20, code);
    }

    EXPECT_EQ(log.GetAvailableRange_Frames(0, 100), (Ranges{{10, 10}}));
}

TEST(RecordRangeManagerTest, ScalesWholeFramesToBytes) {
    RecordRangeManager log;
    log.AddRecordEvent(2, kRecordEventRecord);
    log.AddRecordEvent(3, kRecordEventPause);
    log.AddRecordEvent(4, kRecordEventResume);

    // Frames [1, 5): the closed frame 2 and the open one from 4.
    EXPECT_EQ(log.GetAvailableRange_Bytes(5, 21, 4), (Ranges{{8, 12}, {16, 16}}));
}

TEST(RecordRangeManagerTest, RoundsTheSpanOfBytesDownToWholeFrames) {
    RecordRangeManager log;
    log.AddRecordEvent(0, kRecordEventRecord);
    log.AddRecordEvent(100, kRecordEventPause);

    EXPECT_EQ(log.GetAvailableRange_Bytes(5, 21, 4), (Ranges{{4, 20}}));
    EXPECT_EQ(log.GetAvailableRange_Bytes(4, 7, 4), Ranges{});  // no whole frame
}

TEST(RecordRangeManagerTest, GivesNothingForAFrameOfNoBytes) {
    RecordRangeManager log;
    log.AddRecordEvent(0, kRecordEventRecord);

    EXPECT_EQ(log.GetAvailableRange_Bytes(0, 100, 0), Ranges{});
}

TEST(RecordRangeManagerTest, GivesNothingBeforeTheFirstEvent) {
    RecordRangeManager log;

    EXPECT_EQ(log.GetAvailableRange_Frames(0, kLargest), Ranges{});
}

}  // namespace
}  // namespace vorrel::test
