#include "SavePlan.h"

#include <gtest/gtest.h>

#include <limits>

namespace vorrel::cli {
namespace {

constexpr TakeFormat kStereo24{48'000, 2, 24, false};
constexpr TakeFormat kStereoDsd{2'822'400, 2, 0, true};
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

TEST(SavePlanTest, AVolumeThatTakesSmallerFilesGetsParts) {
    WantedFile wish = Whole("/t/a.wav");
    wish.largest = 44 + 20 + 6 * 400 + 5;  // 400 frames, and 5 bytes that are none

    const SavePlan plan = MakeSavePlan({wish}, kStereo24, 1'000, 20);

    ASSERT_EQ(plan.files.size(), 3U);
    EXPECT_EQ(plan.files[0].end, 400U);
    EXPECT_EQ(plan.files[1].path, "/t/a-2.wav");
    EXPECT_EQ(plan.files[2].start, 800U);
    EXPECT_EQ(plan.files[2].end, 1'000U);
    EXPECT_EQ(MostFramesOf(wish, kStereo24, 20), 400U);
}

TEST(SavePlanTest, DsdPartsForAVolumeAreWholeBlocks) {
    WantedFile wish = Whole("/t/a.dsf");
    wish.start = 16;
    wish.largest = 4294967295.0;  // (2^32 - 1 - 92) / 8192 = 524,287 blocks of both channels
    const std::uint64_t most = 524'287ULL * 32'768;

    const SavePlan plan = MakeSavePlan({wish}, kStereoDsd, most + 1'016, 0);

    ASSERT_EQ(plan.files.size(), 2U);
    EXPECT_EQ(plan.files[0].end, most + 16);
    EXPECT_EQ(plan.files[1].start, most + 16);
    EXPECT_EQ(plan.files[1].end, most + 1'016);
}

TEST(SavePlanTest, ARangeThatItsVolumeDoesNotTakeIsCutOnlyWhereNothingElseHasIt) {
    WantedFile range = Stretch("/t/b.wav", 100, 900);
    range.largest = 44 + 6 * 300;

    const SavePlan alone = MakeSavePlan({range}, kStereo24, 1'000, 0);
    const SavePlan beside = MakeSavePlan({Whole("/t/a.wav"), range}, kStereo24, 1'000, 0);

    ASSERT_EQ(alone.files.size(), 3U);
    EXPECT_EQ(alone.files[2].start, 700U);
    EXPECT_EQ(alone.files[2].end, 900U);
    EXPECT_EQ(beside.files.size(), 1U);
    ASSERT_EQ(beside.oversized.size(), 1U);
    EXPECT_EQ(beside.oversized[0].path, "/t/b.wav");
}

TEST(SavePlanTest, AVolumeThatTakesNotEvenAFrameIsTriedAllTheSame) {
    WantedFile wish = Whole("/t/a.wav");
    wish.largest = 40;

    EXPECT_EQ(MostFramesOf(wish, kStereo24, 0), 0U);
    EXPECT_EQ(MakeSavePlan({wish}, kStereo24, 1'000, 0).files.size(), 1U);
}

TEST(PartPathTest, NumbersTheNameAndKeepsItsEnding) {
    EXPECT_EQ(PartPath("/t/a.wav", 0), "/t/a.wav");
    EXPECT_EQ(PartPath("/t/a.wav", 1), "/t/a-2.wav");
    EXPECT_EQ(PartPath("/t.d/a", 2), "/t.d/a-3");
    EXPECT_EQ(PartPath("/t/.wav", 1), "/t/.wav-2");
}

TEST(SavePlanTest, ADsdRecordingIsNeverCut) {
    // 20 hours: 50,803,200,000 bytes.
    const std::uint64_t total = 20ULL * 3600 * 2'822'400;

    const SavePlan plan = MakeSavePlan({Whole("/t/a.dsf")}, kStereoDsd, total, 1000);

    ASSERT_EQ(plan.files.size(), 1U);
    EXPECT_EQ(plan.files[0].end, total);
    EXPECT_FALSE(plan.files[0].tooLarge);
}

TEST(TakeFormatTest, TheFileThatGrowsFastestIsAChannelsOrThePreviews) {
    EXPECT_DOUBLE_EQ(kStereo24.LargestSpillRate(), 48'000.0 * 4);
    EXPECT_DOUBLE_EQ((TakeFormat{48'000, 8, 24, false}).LargestSpillRate(), 48'000.0 * 8 * 2);
    EXPECT_DOUBLE_EQ(kStereoDsd.LargestSpillRate(), 352'800.0);
}

TEST(TakeFormatTest, ADsfPayloadIsPaddedToWholeBlocksOfEveryChannel) {
    EXPECT_EQ(kStereoDsd.PayloadBytes(0), 0U);
    EXPECT_EQ(kStereoDsd.PayloadBytes(8), 8'192U);
    EXPECT_EQ(kStereoDsd.PayloadBytes(32'768), 8'192U);
    EXPECT_EQ(kStereoDsd.PayloadBytes(32'776), 16'384U);
    EXPECT_EQ(kStereoDsd.PayloadBytes(2'822'400), 712'704U);  // a second: 87 blocks
    EXPECT_EQ(FileBytes(kStereoDsd, 2'822'400, 10), 712'704U + 92 + 10);
    EXPECT_EQ(FileBytes(kStereo24, 100, 0), 644U);
}

TEST(TakeFormatTest, StorageGrowsBySamplesAndPreview) {
    EXPECT_DOUBLE_EQ(kStereo24.SpillRate(), 48'000.0 * 2 * 6);
    EXPECT_DOUBLE_EQ(kStereo24.FileRate(), 288'000.0);
    // 352,800 bytes of bits and 44,100 preview samples of two bytes, for each channel.
    EXPECT_DOUBLE_EQ(kStereoDsd.SpillRate(), 2 * (352'800.0 + 88'200.0));
    EXPECT_DOUBLE_EQ(kStereoDsd.FileRate(), 705'600.0);
    EXPECT_EQ(kStereoDsd.PreviewRateHz(), 44'100U);
}

TEST(FrameAtTest, APcmTimeIsItsNearestFrame) {
    const TakeFormat cd{44'100, 2, 16, false};

    EXPECT_EQ(FrameAt(1.1, cd), 48'510U);  // in binary 1.1 x 44,100 lies just below or above
    EXPECT_EQ(FrameAt(0.00001, kStereo24), 0U);
    EXPECT_EQ(FrameAt(2.5, kStereo24), 120'000U);
}

TEST(FrameAtTest, ADsdTimeIsItsNearestWholeByte) {
    EXPECT_EQ(FrameAt(1.0, kStereoDsd), 2'822'400U);
    EXPECT_EQ(FrameAt(0.00001, kStereoDsd), 32U);  // 28.2 one-bit samples
    EXPECT_EQ(FrameAt(0.000001, kStereoDsd), 0U);
    for (const double seconds : {0.1, 1.23456789, 3600.987, 9'999'999.0}) {
        EXPECT_EQ(FrameAt(seconds, kStereoDsd) % 8, 0U) << seconds;
    }
}

TEST(SavableFramesTest, OfPcmAllThatThePreviewHas) {
    EXPECT_EQ(SavableFrames(kStereo24, 48'001, 1.0, 3), 48'001U);
    EXPECT_EQ(SavableFrames(kStereo24, 100, 1.0, 1), 48'000U);  // a preview that stayed behind
}

TEST(SavableFramesTest, OfDsdNoMoreThanSurelyStandsBehindThePreview) {
    // Each stretch may have given the preview a frame of 64 bits too many.
    EXPECT_EQ(SavableFrames(kStereoDsd, 44'101, 0.9, 1), 2'822'400U);
    EXPECT_EQ(SavableFrames(kStereoDsd, 44'100, 0.9, 3), 2'822'400U - 192);
    // What has been told is there.
    EXPECT_EQ(SavableFrames(kStereoDsd, 44'100, 1.0, 3), 2'822'400U);
    EXPECT_EQ(SavableFrames(kStereoDsd, 2, 0.0, 5), 0U);
}

PlannedFile Failed(std::uint64_t start, std::uint64_t end) {
    PlannedFile file;
    file.path = "/t/a.wav";
    file.start = start;
    file.end = end;
    file.toEnd = true;
    return file;
}

RescuePlace Place(std::size_t number, const std::string& directory, double freeBytes) {
    return {number, directory, freeBytes, 1e18};
}

// What a plan leaves free on a volume, and the header of a file.
constexpr double kMargin = 262'144.0 + 44.0;

TEST(RescuePlanTest, TakesTheFirstPlaceThatHasRoomForAll) {
    const RescuePlan plan =
        MakeRescuePlan(Failed(100, 1'100), kStereo24, 0,
                       {Place(2, "/small/", 6'000.0 + kMargin - 1),
                        Place(3, "/home/", 6'000.0 + kMargin), Place(4, "/large/", 1e9)});

    ASSERT_EQ(plan.files.size(), 1U);
    EXPECT_EQ(plan.files[0].path, "/home/a-rescued.wav");
    EXPECT_EQ(plan.files[0].origin, "/t/a.wav");
    EXPECT_EQ(plan.files[0].place, 3U);
    EXPECT_EQ(plan.files[0].start, 100U);
    EXPECT_EQ(plan.files[0].end, 1'100U);
    EXPECT_TRUE(plan.files[0].toEnd);
    EXPECT_EQ(plan.lostFrom, 1'100U);
}

TEST(RescuePlanTest, WhatNoPlaceTakesWholeIsSpreadOverThem) {
    const RescuePlan plan = MakeRescuePlan(
        Failed(0, 1'000), kStereo24, 0,
        {Place(1, "/one/", 2'400.0 + kMargin), Place(2, "/two/", 3'599.0 + kMargin)});

    ASSERT_EQ(plan.files.size(), 2U);
    EXPECT_EQ(plan.files[0].path, "/one/a-rescued.wav");
    EXPECT_EQ(plan.files[0].end, 400U);
    EXPECT_FALSE(plan.files[0].toEnd);
    EXPECT_EQ(plan.files[1].path, "/two/a-rescued.wav");
    EXPECT_EQ(plan.files[1].start, 400U);
    EXPECT_EQ(plan.files[1].end, 999U);
    EXPECT_EQ(plan.lostFrom, 999U);
}

TEST(RescuePlanTest, NoRoomAnywhereLosesItAll) {
    const RescuePlan plan =
        MakeRescuePlan(Failed(7, 1'000), kStereo24, 0, {Place(1, "/one/", 1'000.0)});

    EXPECT_TRUE(plan.files.empty());
    EXPECT_EQ(plan.lostFrom, 7U);
}

TEST(RescuePlanTest, AFileLimitMakesParts) {
    RescuePlace place = Place(1, "/one/", 1e9);
    place.largestFile = 44.0 + 600.0 * 6.0;

    const RescuePlan plan = MakeRescuePlan(Failed(0, 1'500), kStereo24, 0, {place});

    ASSERT_EQ(plan.files.size(), 3U);
    EXPECT_EQ(plan.files[0].end, 600U);
    EXPECT_EQ(plan.files[1].end, 1'200U);
    EXPECT_EQ(plan.files[2].end, 1'500U);
    EXPECT_TRUE(plan.files[2].toEnd);
}

TEST(RescuePlanTest, ARangeBeyondFourGibibytesBecomesFilesThatAreNot) {
    PlannedFile file = Failed(0, kMostStereo24 + 10);
    file.tooLarge = true;

    const RescuePlan plan = MakeRescuePlan(file, kStereo24, 0, {Place(1, "/t/", 1e12)});

    ASSERT_EQ(plan.files.size(), 2U);
    EXPECT_EQ(plan.files[0].end, kMostStereo24);
    EXPECT_FALSE(plan.files[0].tooLarge);
    EXPECT_EQ(plan.files[1].end, kMostStereo24 + 10);
}

TEST(RescuePlanTest, ASecondRescueKeepsTheFirstName) {
    PlannedFile file = Failed(0, 100);
    file.path = "/tmp/a-rescued.wav";
    file.origin = "/t/a.wav";
    file.place = 2;

    const RescuePlan plan = MakeRescuePlan(file, kStereo24, 0, {Place(3, "/home/", 1e9)});

    ASSERT_EQ(plan.files.size(), 1U);
    EXPECT_EQ(plan.files[0].path, "/home/a-rescued.wav");
    EXPECT_EQ(plan.files[0].origin, "/t/a.wav");
}

TEST(RescuePlanTest, DsdPartsMeetAtWholeBlocks) {
    PlannedFile file = Failed(0, 1'000'000);
    file.path = "/t/a.dsf";

    const RescuePlan plan = MakeRescuePlan(
        file, kStereoDsd, 0,
        {Place(1, "/one/", 262'144.0 + 92 + 3 * 8'192 + 5'000), Place(2, "/two/", 1e6)});

    ASSERT_EQ(plan.files.size(), 1U);  // the second takes it whole
    const RescuePlan parts = MakeRescuePlan(file, kStereoDsd, 0,
                                            {Place(1, "/one/", 262'144.0 + 92 + 3 * 8'192 + 5'000),
                                             Place(2, "/two/", 262'144.0 + 92 + 29 * 8'192)});
    ASSERT_EQ(parts.files.size(), 2U);
    EXPECT_EQ(parts.files[0].end, 3U * 32'768);
    EXPECT_EQ(parts.files[1].end, 1'000'000U);  // 28 blocks, the last one padded
    EXPECT_EQ(parts.files[1].path, "/two/a-rescued.dsf");
}

TEST(SecondsLeftTest, WhatAVolumeHasToTakeAndItsReserveAreTakenOffItsSpace) {
    VolumeState volume;
    volume.free = 1'000.0;
    volume.needed = 300.0;
    volume.reserve = 200.0;
    volume.rate = 100.0;

    EXPECT_DOUBLE_EQ(SecondsLeft({volume}), 5.0);
}

TEST(SecondsLeftTest, OfSeveralVolumesTheFirstThatIsFullCounts) {
    VolumeState spill;
    spill.free = 1'000.0;
    spill.rate = 100.0;
    VolumeState target;
    target.free = 100.0;
    target.needed = 20.0;
    target.rate = 40.0;

    EXPECT_DOUBLE_EQ(SecondsLeft({spill, target}), 2.0);
    target.free = 10'000.0;
    EXPECT_DOUBLE_EQ(SecondsLeft({spill, target}), 10.0);
    target.free = 10.0;  // less than what the files need already
    EXPECT_EQ(SecondsLeft({spill, target}), 0.0);
}

TEST(SecondsLeftTest, WhatHasItsRoomInCommonHasToTakeTheSum) {
    VolumeState spill;
    spill.free = 100.0;
    spill.rate = 3.0;
    spill.reserve = 10.0;
    VolumeState target;
    target.free = 98.0;  // a limit of its own
    target.rate = 1.0;
    target.needed = 20.0;
    target.reserve = 30.0;

    const VolumeState all = Together({spill, target});

    // 100 - 20 - 40 = 40, at 4 a second.
    EXPECT_DOUBLE_EQ(SecondsLeft({spill, target, all}), 10.0);
    EXPECT_DOUBLE_EQ(SecondsLeft({spill, target}), 30.0);
}

TEST(SecondsLeftTest, AVolumeThatTakesNothingMoreSetsNoLimit) {
    VolumeState done;
    done.free = 100.0;
    done.needed = 50.0;

    EXPECT_EQ(SecondsLeft({done}), std::numeric_limits<double>::infinity());
}

}  // namespace
}  // namespace vorrel::cli
