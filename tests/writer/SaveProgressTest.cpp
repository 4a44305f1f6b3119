#include <gtest/gtest.h>

#include <limits>
#include <utility>
#include <vector>

#include "support/Recording.h"
#include "writer/SaveThreadRig.h"

namespace vorrel {
namespace {

using test::Messages;
using test::onBlock;
using test::Recording;
using test::SaveThreadTest;

TEST_F(SaveThreadTest, ProgressBeforeAnyRequestIsAnInvalidStateAndWritesNothing) {
    int file = -7;
    int total = -8;

    EXPECT_EQ(thread.GetProgress(file, total), VrErrorInvalidState);

    EXPECT_EQ(file, -7);
    EXPECT_EQ(total, -8);
}

TEST_F(SaveThreadTest, ProgressIsInPerMilleOfFileAndRequest) {
    MakeRecording(1'000, true);
    std::vector<std::pair<int, int>> seen;
    onBlock = [&](int) {
        int file = -1;
        int total = -1;
        EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
        seen.emplace_back(file, total);
    };

    Save(List({Setting("one.wav", 0.3), Setting("two.wav", 0.35, 0.05)}));

    // 600 frames in all; a block counts before it is written, and parts of a thousandth are cut.
    EXPECT_EQ(seen,
              (std::vector<std::pair<int, int>>{
                  {333, 166}, {666, 333}, {1'000, 500}, {333, 666}, {666, 833}, {1'000, 1'000}}));
}

TEST_F(SaveThreadTest, ProgressCountsTheRangeThatWasAskedFor) {
    MakeRecording(1'000);

    Save(List({Setting("take.wav", 2.0)}));

    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(file, 1'000);
    EXPECT_EQ(total, 500);
}

TEST_F(SaveThreadTest, AReversedRangeAddsNothingToTheLength) {
    MakeRecording(1'000);

    Save(List({Setting("one.wav", 0.4), Setting("two.wav", 0.1, 0.9)}));

    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(file, 0);
    EXPECT_EQ(total, 1'000);
    EXPECT_EQ(manager.Messages(), (Messages{{VrMessageSaveFailed, directory.File("two.wav")}}));
}

TEST_F(SaveThreadTest, ARequestOfNoLengthHasNoProgress) {
    MakeRecording(1'000);
    int file = -7;
    int total = -8;

    Save(List({Setting("take.wav", 0.5, 0.5)}));

    EXPECT_EQ(thread.GetProgress(file, total), VrErrorInvalidState);
    EXPECT_EQ(SizeOf("take.wav"), 44U);
}

TEST_F(SaveThreadTest, ProgressStaysWithinAThousandForAbsurdRanges) {
    MakeRecording(1'000);
    constexpr double kInfinity = std::numeric_limits<double>::infinity();

    // The lengths add up to 2^64 + 99, which counts as 99.
    Save(List({Setting("one.wav", kInfinity), Setting("two.wav", 0.1)}));

    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(file, 1'000);
    EXPECT_EQ(total, 1'000);
}

TEST_F(SaveThreadTest, BelowTenHertzABlockIsAFrame) {
    recording.Make(1, 9, 4, Recording::Steps, &callingType);
    thread.SetBits(16);
    std::vector<int> seen;
    onBlock = [&](int) {
        int file = -1;
        int total = -1;
        EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
        seen.push_back(total);
    };

    Save(List({Setting("take.wav", 1.0)}));

    // The end lies past the recording: four frames of the nine that were asked for.
    EXPECT_EQ(seen, (std::vector<int>{111, 222, 333, 444}));
    EXPECT_EQ(SizeOf("take.wav"), 44U + 4 * 2);
}

TEST_F(SaveThreadTest, AnEmptyRequestLeavesTheProgressOfTheOneBefore) {
    MakeRecording(1'000);
    Save(List({Setting("take.wav", 2.0)}));  // half of it is there

    Save(List({}));

    int file = 0;
    int total = 0;
    EXPECT_EQ(thread.GetProgress(file, total), VrSuccess);
    EXPECT_EQ(file, 1'000);
    EXPECT_EQ(total, 500);
}

}  // namespace
}  // namespace vorrel
