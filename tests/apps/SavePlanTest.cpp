#include "SavePlan.h"

#include <gtest/gtest.h>

#include <limits>

namespace vorrel::cli {
namespace {

constexpr TakeFormat kStereo24{48'000, 2, 24};
// (2^32 - 1 - 44) / 6
constexpr std::uint64_t kMostStereo24 = 715'827'875;

WantedFile Whole(const std::string& path) {
    WantedFile wish;
    wish.path = path;
    wish.whole = true;
    return wish;
}

WantedFile Stretch(const std::string& path, std::uint64_t start, std::optional<std::uint64_t> end) {
    WantedFile wish;
    wish.path = path;
    wish.start = start;
    wish.end = end;
    return wish;
}

TEST(SavePlanTest, AWavFileHoldsAllFramesThatStayBelowFourGibibytes) {
    EXPECT_EQ(MostFrames(kStereo24, 0), kMostStereo24);
    EXPECT_EQ(MostFrames(kStereo24, 6), kMostStereo24 - 1);
    EXPECT_EQ(MostFrames(kStereo24, std::uint64_t{1} << 33), 0U);
}

TEST(SavePlanTest, TheWholeRecordingGoesToItsEnd) {
    const SavePlan plan = MakeSavePlan({Whole("/t/a.wav")}, kStereo24, 96'000, 0);

    ASSERT_EQ(plan.files.size(), 1U);
    EXPECT_EQ(plan.files[0].path, "/t/a.wav");
    EXPECT_EQ(plan.files[0].start, 0U);
    EXPECT_EQ(plan.files[0].end, 96'000U);
    EXPECT_TRUE(plan.files[0].toEnd);
    EXPECT_FALSE(plan.files[0].shortened);
}

TEST(SavePlanTest, AWantedEndIsKeptAndOneBehindTheRecordingIsTold) {
    const SavePlan plan = MakeSavePlan(
        {Stretch("/t/a.wav", 10, 500), Stretch("/t/b.wav", 900, 2'000)}, kStereo24, 1'000, 0);

    ASSERT_EQ(plan.files.size(), 2U);
    EXPECT_EQ(plan.files[0].end, 500U);
    EXPECT_FALSE(plan.files[0].toEnd);
    EXPECT_FALSE(plan.files[0].shortened);
    EXPECT_EQ(plan.files[1].end, 1'000U);
    EXPECT_TRUE(plan.files[1].shortened);
}

TEST(SavePlanTest, WhatBeginsBehindTheRecordingIsMissed) {
    const SavePlan plan = MakeSavePlan(
        {Whole("/t/a.wav"), Stretch("/t/b.wav", 1'000, 2'000), Stretch("/t/c.wav", 1'001, {})},
        kStereo24, 1'000, 0);

    EXPECT_EQ(plan.files.size(), 1U);
    ASSERT_EQ(plan.missed.size(), 2U);
    EXPECT_EQ(plan.missed[0].path, "/t/b.wav");
    EXPECT_EQ(plan.missed[1].path, "/t/c.wav");
}

TEST(SavePlanTest, OfAnEmptyRecordingEverythingIsMissed) {
    EXPECT_EQ(MakeSavePlan({Whole("/t/a.wav")}, kStereo24, 0, 0).missed.size(), 1U);
}

TEST(SavePlanTest, ARecordingTooLongForOneFileIsCutIntoPartsWithoutAGap) {
    const std::uint64_t total = 2 * kMostStereo24 + 5;

    const SavePlan plan = MakeSavePlan({Whole("/t/a.b/take.wav")}, kStereo24, total, 0);

    ASSERT_EQ(plan.files.size(), 3U);
    EXPECT_EQ(plan.files[0].path, "/t/a.b/take.wav");
    EXPECT_EQ(plan.files[0].end, kMostStereo24);
    EXPECT_FALSE(plan.files[0].toEnd);
    EXPECT_EQ(plan.files[1].path, "/t/a.b/take-2.wav");
    EXPECT_EQ(plan.files[1].start, kMostStereo24);
    EXPECT_EQ(plan.files[2].path, "/t/a.b/take-3.wav");
    EXPECT_EQ(plan.files[2].start, 2 * kMostStereo24);
    EXPECT_EQ(plan.files[2].end, total);
    EXPECT_TRUE(plan.files[2].toEnd);
    for (const PlannedFile& file : plan.files) {
        EXPECT_FALSE(file.tooLarge);
    }
}

TEST(SavePlanTest, ARecordingThatFillsOneFileIsNotCut) {
    EXPECT_EQ(MakeSavePlan({Whole("/t/a.wav")}, kStereo24, kMostStereo24, 0).files.size(), 1U);
}

TEST(SavePlanTest, TagsTakeTheirRoomFromTheParts) {
    const SavePlan plan = MakeSavePlan({Whole("/t/a.wav")}, kStereo24, kMostStereo24, 600);

    ASSERT_EQ(plan.files.size(), 2U);
    EXPECT_EQ(plan.files[0].end, kMostStereo24 - 100);
    EXPECT_GE(TagBytesBound({{"Title", "abc"}}), TagBytesBound({}) + 3 * 4);
}

TEST(SavePlanTest, ARangeTooLongForAFileStaysOneAndIsMarked) {
    const SavePlan plan =
        MakeSavePlan({Stretch("/t/a.wav", 0, kMostStereo24 + 1)}, kStereo24, 2 * kMostStereo24, 0);

    ASSERT_EQ(plan.files.size(), 1U);
    EXPECT_TRUE(plan.files[0].tooLarge);
}

TEST(PartPathTest, NumbersTheNameAndKeepsItsEnding) {
    EXPECT_EQ(PartPath("/t/a.wav", 0), "/t/a.wav");
    EXPECT_EQ(PartPath("/t/a.wav", 1), "/t/a-2.wav");
    EXPECT_EQ(PartPath("/t.d/a", 2), "/t.d/a-3");
    EXPECT_EQ(PartPath("/t/.wav", 1), "/t/.wav-2");
}

TEST(SecondsLeftTest, OnOneVolumeCaptureAndFilesShareTheSpace) {
    DiskState disk;
    disk.sameVolume = true;
    disk.spillFree = 1'000.0 + 6.0 * 60.0;  // six seconds of capture stay free for the next spill
    disk.spillRate = 60.0;
    disk.targetRate = 40.0;
    disk.targetBytes = 500.0;

    EXPECT_DOUBLE_EQ(SecondsLeft(disk), 5.0);
}

TEST(SecondsLeftTest, OnTwoVolumesTheSmallerTimeCounts) {
    DiskState disk;
    disk.spillFree = 60.0 * 6.0 + 600.0;
    disk.spillRate = 60.0;
    disk.targetFree = 100.0;
    disk.targetBytes = 20.0;
    disk.targetRate = 40.0;
    EXPECT_DOUBLE_EQ(SecondsLeft(disk), 2.0);

    disk.targetFree = 10'000.0;
    EXPECT_DOUBLE_EQ(SecondsLeft(disk), 10.0);

    disk.targetFree = 10.0;  // less than what the files need already
    EXPECT_EQ(SecondsLeft(disk), 0.0);
}

}  // namespace
}  // namespace vorrel::cli
