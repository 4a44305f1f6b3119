#include "store/TemporaryData.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <filesystem>
#include <utility>

#include "store/StoreTestSupport.h"
#include "support/FakeManager.h"
#include "support/FileSizeLimit.h"
#include "support/TempDirectory.h"

namespace vorrel::test {
namespace {

class TemporaryDataTest : public ::testing::Test {
protected:
    TempDirectory directory;
    FakeManager manager{directory.Path()};
    TemporaryData store{manager};

    std::vector<std::uint64_t> SpillSizes() const { return FileSizes(directory.Path()); }
};

/// Reads as bytes; the result stands in the second.
std::pair<Bytes, VrError> Read(TemporaryData& store, std::uint64_t from, std::uint64_t to,
                               bool available) {
    std::pair<Bytes, VrError> result{{42}, VrSuccess};
    result.second = store.GetData(from, to, result.first, available);
    return result;
}

std::pair<Bytes, VrError> Good(const Bytes& bytes) {
    return {bytes, VrSuccess};
}
std::pair<Bytes, VrError> Refused() {
    return {Bytes{}, VrErrorInvalidParameter};
}

constexpr bool kRaw = false;
constexpr bool kAvailable = true;

TEST_F(TemporaryDataTest, RefusesAMemoryBufferOfNoBytesAndChangesNothing) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), kAll), VrSuccess);

    EXPECT_EQ(store.Init(0), VrErrorInvalidParameter);

    EXPECT_EQ(store.GetLength(kRaw), 10U);
    EXPECT_EQ(Read(store, 0, 10, kAvailable), Good(Pattern(0, 10)));
}

TEST_F(TemporaryDataTest, BeginsEmptyAndTakesNothingBeforeInit) {
    EXPECT_EQ(store.Add(Pattern(0, 10), kAll), VrErrorFailed);

    EXPECT_EQ(store.GetLength(kRaw), 0U);
    EXPECT_EQ(store.GetLength(kAvailable), 0U);
    EXPECT_EQ(Read(store, 0, 1, kRaw), Refused());
    EXPECT_EQ(Read(store, 0, 1, kAvailable), Refused());
}

TEST_F(TemporaryDataTest, AnEmptyBlockIsSuccessAndChangesNothing) {
    EXPECT_EQ(store.Add(Bytes{}, kAll), VrSuccess);  // before Init, too
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 3), kAll), VrSuccess);

    EXPECT_EQ(store.Add(Bytes{}, kAll), VrSuccess);

    EXPECT_EQ(store.GetLength(kRaw), 3U);
    EXPECT_EQ(store.GetLength(kAvailable), 3U);
}

TEST_F(TemporaryDataTest, RefusesAnEmptyRangeAndEmptiesTheOutput) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), kAll), VrSuccess);

    for (const bool available : {kRaw, kAvailable}) {
        std::vector<std::int16_t> samples = {42};
        AlignedBytes aligned = {42};
        EXPECT_EQ(Read(store, 2, 2, available), Refused());
        EXPECT_EQ(Read(store, 3, 2, available), Refused());
        EXPECT_EQ(store.GetData(2, 2, samples, available), VrErrorInvalidParameter);
        EXPECT_EQ(store.GetData(2, 2, aligned, available), VrErrorInvalidParameter);
        EXPECT_TRUE(samples.empty());
        EXPECT_TRUE(aligned.empty());
    }
}

TEST_F(TemporaryDataTest, RefusesARangePastTheLengthOfTheStream) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), Ranges{{0, 6}}), VrSuccess);

    EXPECT_EQ(Read(store, 8, 11, kRaw), Refused());
    EXPECT_EQ(Read(store, 4, 7, kAvailable), Refused());
}

TEST_F(TemporaryDataTest, RefusesRawDataOlderThanTheTwoBuffers) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 6), Ranges{}), VrSuccess);
    ASSERT_EQ(Read(store, 4, 6, kRaw), Good(Pattern(4, 6)));  // the next switch spares buffer 1
    ASSERT_EQ(store.Add(Pattern(6, 10), Ranges{}), VrSuccess);

    EXPECT_EQ(Read(store, 3, 4, kRaw), Refused());
    EXPECT_EQ(Read(store, 0, 10, kRaw), Refused());
    EXPECT_EQ(Read(store, 4, 10, kRaw), Good(Pattern(4, 10)));
}

TEST_F(TemporaryDataTest, SplitsABlockThatIsLongerThanItsMemoryBuffers) {
    ASSERT_EQ(store.Init(4), VrSuccess);

    ASSERT_EQ(store.Add(Pattern(0, 10), Ranges{{0, 0}}), VrSuccess);

    EXPECT_EQ(store.GetLength(kRaw), 10U);
    EXPECT_EQ(store.GetLength(kAvailable), 10U);
    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{8});
    EXPECT_EQ(Read(store, 0, 4, kRaw), Good(Pattern(0, 4)));
    EXPECT_EQ(Read(store, 8, 10, kRaw), Good(Pattern(8, 10)));
    EXPECT_EQ(Read(store, 4, 8, kRaw), Refused());
    EXPECT_EQ(Read(store, 0, 10, kAvailable), Good(Pattern(0, 10)));
}

TEST_F(TemporaryDataTest, KeepsTheFirstBufferWhileNothingIsRead) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), kAll), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(10, 30), kAll), VrSuccess);
    std::filesystem::resize_file(Files(directory.Path()).at(0), 0);

    // The file is gone, so these come from memory: buffer 0 and the write buffer.
    EXPECT_EQ(Read(store, 0, 4, kAvailable), Good(Pattern(0, 4)));
    EXPECT_EQ(Read(store, 28, 30, kAvailable), Good(Pattern(28, 30)));
    EXPECT_EQ(Read(store, 0, 4, kRaw), Good(Pattern(0, 4)));
    EXPECT_EQ(Read(store, 28, 30, kRaw), Good(Pattern(28, 30)));
}

TEST_F(TemporaryDataTest, WritingSparesTheBufferThatServedTheLatestRead) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 6), kAll), VrSuccess);
    ASSERT_EQ(Read(store, 4, 6, kAvailable), Good(Pattern(4, 6)));  // from the write buffer
    ASSERT_EQ(store.Add(Pattern(6, 14), kAll), VrSuccess);
    std::filesystem::resize_file(Files(directory.Path()).at(0), 0);

    EXPECT_EQ(Read(store, 4, 8, kAvailable), Good(Pattern(4, 8)));
    EXPECT_EQ(Read(store, 12, 14, kAvailable), Good(Pattern(12, 14)));
    EXPECT_EQ(Read(store, 0, 4, kAvailable).second, VrErrorFailed);  // only in the file
}

TEST_F(TemporaryDataTest, ASequentialReaderTouchesEachSpilledBlockOnce) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 18), kAll), VrSuccess);
    ASSERT_EQ(Read(store, 4, 5, kAvailable), Good(Pattern(4, 5)));  // loads [4, 8)
    std::filesystem::resize_file(Files(directory.Path()).at(0), 0);

    EXPECT_EQ(Read(store, 5, 8, kAvailable), Good(Pattern(5, 8)));
}

TEST_F(TemporaryDataTest, AMalformedRangeAddsNothingToTheAvailableStream) {
    ASSERT_EQ(store.Init(100), VrSuccess);

    EXPECT_EQ(store.Add(Pattern(0, 10), Ranges{{6, 5}}), VrSuccess);

    EXPECT_EQ(store.GetLength(kRaw), 10U);
    EXPECT_EQ(store.GetLength(kAvailable), 0U);
}

TEST_F(TemporaryDataTest, AMalformedRangeKeepsThePiecesBeforeIt) {
    ASSERT_EQ(store.Init(100), VrSuccess);

    EXPECT_EQ(store.Add(Pattern(0, 10), Ranges{{0, 2}, {6, 5}, {7, 9}}), VrSuccess);

    EXPECT_EQ(store.GetLength(kAvailable), 2U);
}

TEST_F(TemporaryDataTest, TakesPiecesFromTheFrontOfTheBlock) {
    ASSERT_EQ(store.Init(100), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), Ranges{}), VrSuccess);

    ASSERT_EQ(store.Add(Pattern(10, 20), Ranges{{16, 16}}), VrSuccess);

    // Raw bytes 16 to 19 are recorded; 10 to 13 are kept.
    EXPECT_EQ(Read(store, 0, 4, kAvailable), Good(Pattern(10, 14)));
    EXPECT_EQ(store.GetLength(kAvailable), 4U);
}

TEST_F(TemporaryDataTest, TakesSeveralPiecesOneAfterAnother) {
    ASSERT_EQ(store.Init(100), VrSuccess);

    ASSERT_EQ(store.Add(Pattern(0, 10), Ranges{{1, 3}, {5, 6}, {8, 8}}), VrSuccess);

    EXPECT_EQ(store.GetLength(kAvailable), 5U);  // 2 + 1 + (10 - 8)
    EXPECT_EQ(Read(store, 0, 5, kAvailable), Good(Pattern(0, 5)));
}

TEST_F(TemporaryDataTest, TakesNoMoreThanTheBlockHolds) {
    ASSERT_EQ(store.Init(100), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 5), Ranges{}), VrSuccess);

    // A frame of 4 bytes begins at 4, one byte before the block: 13 - 4 = 9 bytes of 8.
    ASSERT_EQ(store.Add(Pattern(5, 13), Ranges{{4, 4}}), VrSuccess);

    EXPECT_EQ(store.GetLength(kAvailable), 8U);
    EXPECT_EQ(Read(store, 0, 8, kAvailable), Good(Pattern(5, 13)));
}

TEST_F(TemporaryDataTest, ReadsTheRawStreamAcrossItsTwoBuffers) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 7), Ranges{}), VrSuccess);

    EXPECT_EQ(Read(store, 1, 7, kRaw), Good(Pattern(1, 7)));
}

TEST_F(TemporaryDataTest, AFailedReadLeavesWhatWasFoundBeforeIt) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), Ranges{}), VrSuccess);

    EXPECT_EQ(Read(store, 1, 10, kRaw), std::pair(Pattern(1, 4), VrErrorInvalidParameter));
}

TEST_F(TemporaryDataTest, TakesAndGives16BitSamplesAsBytes) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    const std::vector<std::int16_t> samples = {0x0201, 0x0403, -2, 0x0605};

    ASSERT_EQ(store.Add(samples, kAll), VrSuccess);

    EXPECT_EQ(store.GetLength(kRaw), 8U);
    EXPECT_EQ(Read(store, 0, 8, kAvailable), Good({1, 2, 3, 4, 0xFE, 0xFF, 5, 6}));
    std::vector<std::int16_t> out = {9};
    EXPECT_EQ(store.GetData(2, 8, out, kAvailable), VrSuccess);
    EXPECT_EQ(out, (std::vector<std::int16_t>{0x0403, -2, 0x0605}));
}

TEST_F(TemporaryDataTest, GivesTheWholeSamplesOfAnOddRange) {
    ASSERT_EQ(store.Init(3), VrSuccess);
    ASSERT_EQ(store.Add(Bytes{1, 2, 3, 4, 5, 6, 7}, kAll), VrSuccess);
    std::vector<std::int16_t> out;

    EXPECT_EQ(store.GetData(1, 6, out, kAvailable), VrSuccess);

    EXPECT_EQ(out, (std::vector<std::int16_t>{0x0302, 0x0504}));
}

TEST_F(TemporaryDataTest, TakesAndGivesAlignedBytes) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    const AlignedBytes block = {1, 2, 3, 4, 5, 6};

    ASSERT_EQ(store.Add(block, kAll), VrSuccess);

    AlignedBytes out = {9};
    EXPECT_EQ(store.GetData(0, 6, out, kAvailable), VrSuccess);
    EXPECT_EQ(out, block);
}

TEST_F(TemporaryDataTest, SpillsWhenTheWriteBufferHoldsExactlyItsSize) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 3), kAll), VrSuccess);
    ASSERT_TRUE(SpillSizes().empty());

    ASSERT_EQ(store.Add(Pattern(3, 4), kAll), VrSuccess);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{4});
    EXPECT_EQ(Read(store, 0, 4, kAvailable), Good(Pattern(0, 4)));
}

TEST_F(TemporaryDataTest, NeverWritesTheRawStreamToAFile) {
    ASSERT_EQ(store.Init(4), VrSuccess);

    ASSERT_EQ(store.Add(Pattern(0, 100), Ranges{}), VrSuccess);

    EXPECT_TRUE(SpillSizes().empty());
}

TEST_F(TemporaryDataTest, OpensANewSegmentWhereTheOldOneWouldPassItsCap) {
    TemporaryData capped(manager, 11);
    ASSERT_EQ(capped.Init(4), VrSuccess);

    ASSERT_EQ(capped.Add(Pattern(0, 22), kAll), VrSuccess);

    EXPECT_EQ(SpillSizes(), (std::vector<std::uint64_t>{4, 8, 8}));
    EXPECT_EQ(Read(capped, 0, 22, kAvailable), Good(Pattern(0, 22)));
    EXPECT_EQ(Read(capped, 7, 17, kAvailable), Good(Pattern(7, 17)));  // over two borders
}

TEST_F(TemporaryDataTest, FillsASegmentUpToExactlyItsCap) {
    TemporaryData capped(manager, 8);
    ASSERT_EQ(capped.Init(4), VrSuccess);

    ASSERT_EQ(capped.Add(Pattern(0, 12), kAll), VrSuccess);

    EXPECT_EQ(SpillSizes(), (std::vector<std::uint64_t>{4, 8}));
}

TEST_F(TemporaryDataTest, ASegmentTakesOneBufferThatIsLargerThanItsCap) {
    TemporaryData capped(manager, 3);
    ASSERT_EQ(capped.Init(4), VrSuccess);

    ASSERT_EQ(capped.Add(Pattern(0, 8), kAll), VrSuccess);

    EXPECT_EQ(SpillSizes(), (std::vector<std::uint64_t>{4, 4}));
    EXPECT_EQ(Read(capped, 0, 8, kAvailable), Good(Pattern(0, 8)));
}

TEST_F(TemporaryDataTest, CapsASegmentAtOneGibibyte) {
    EXPECT_EQ(TemporaryData::kSegmentBytes, 1'073'741'824U);
}

TEST_F(TemporaryDataTest, InitDiscardsEverythingAndDeletesTheFiles) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), kAll), VrSuccess);

    ASSERT_EQ(store.Init(5), VrSuccess);

    EXPECT_TRUE(SpillSizes().empty());
    EXPECT_EQ(store.GetLength(kRaw), 0U);
    EXPECT_EQ(store.GetLength(kAvailable), 0U);
    EXPECT_EQ(Read(store, 0, 1, kRaw), Refused());
    ASSERT_EQ(store.Add(Pattern(100, 105), kAll), VrSuccess);
    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{5});
    EXPECT_EQ(Read(store, 0, 5, kAvailable), Good(Pattern(100, 105)));
}

TEST_F(TemporaryDataTest, DestructionDeletesTheFiles) {
    {
        TemporaryData scoped(manager, 4);
        ASSERT_EQ(scoped.Init(4), VrSuccess);
        ASSERT_EQ(scoped.Add(Pattern(0, 20), kAll), VrSuccess);
        ASSERT_EQ(SpillSizes().size(), 5U);
    }

    EXPECT_TRUE(SpillSizes().empty());
}

TEST_F(TemporaryDataTest, AFailedSpillKeepsAllThatWasStoredReadable) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    manager.tempDirectoryExists = false;

    EXPECT_EQ(store.Add(Pattern(0, 10), kAll), VrErrorFailed);

    EXPECT_EQ(store.GetLength(kRaw), 4U);  // up to the buffer whose turn failed
    EXPECT_EQ(store.GetLength(kAvailable), 10U);
    EXPECT_EQ(Read(store, 0, 4, kRaw), Good(Pattern(0, 4)));
    EXPECT_EQ(Read(store, 0, 10, kAvailable), Good(Pattern(0, 10)));
    EXPECT_TRUE(SpillSizes().empty());
}

TEST_F(TemporaryDataTest, TheNextAddTriesAFailedSpillAgain) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    manager.tempDirectoryExists = false;
    ASSERT_EQ(store.Add(Pattern(0, 6), kAll), VrErrorFailed);
    ASSERT_EQ(store.Add(Pattern(6, 7), kAll), VrErrorFailed);
    manager.tempDirectoryExists = true;

    EXPECT_EQ(store.Add(Pattern(7, 9), kAll), VrSuccess);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{4});
    EXPECT_EQ(Read(store, 0, 9, kAvailable), Good(Pattern(0, 9)));
    EXPECT_EQ(store.Add(Pattern(9, 10), kAll), VrSuccess);  // one spill for each turn
    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{8});
    EXPECT_EQ(Read(store, 0, 10, kAvailable), Good(Pattern(0, 10)));
}

TEST_F(TemporaryDataTest, ASpillHealsInsideAMissingDirectoryThatComesBack) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    std::filesystem::remove(directory.Path());
    ASSERT_EQ(store.Add(Pattern(0, 5), kAll), VrErrorFailed);
    std::filesystem::create_directory(directory.Path());

    EXPECT_EQ(store.Add(Pattern(5, 6), kAll), VrSuccess);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{4});
    EXPECT_EQ(Read(store, 0, 6, kAvailable), Good(Pattern(0, 6)));
}

TEST_F(TemporaryDataTest, ASegmentThatCannotTakeItsFirstBlockLeavesNoFile) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    {
        const FileSizeLimit full(2);
        EXPECT_EQ(store.Add(Pattern(0, 5), kAll), VrErrorFailed);
    }

    EXPECT_TRUE(SpillSizes().empty());
    EXPECT_EQ(store.Add(Pattern(5, 6), kAll), VrSuccess);
    EXPECT_EQ(Read(store, 0, 6, kAvailable), Good(Pattern(0, 6)));
}

TEST_F(TemporaryDataTest, AFullDiskInTheMiddleOfASegmentHealsWithoutAGap) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 9), kAll), VrSuccess);
    ASSERT_EQ(SpillSizes(), std::vector<std::uint64_t>{8});
    {
        const FileSizeLimit full(10);
        EXPECT_EQ(store.Add(Pattern(9, 14), kAll), VrErrorFailed);
        EXPECT_EQ(Read(store, 0, 14, kAvailable), Good(Pattern(0, 14)));
    }

    EXPECT_EQ(store.Add(Pattern(14, 15), kAll), VrSuccess);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{12});
    EXPECT_EQ(Read(store, 0, 15, kAvailable), Good(Pattern(0, 15)));
}

TEST_F(TemporaryDataTest, AFailedFileReadEmptiesOnlyItsBuffer) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 14), kAll), VrSuccess);
    std::filesystem::resize_file(Files(directory.Path()).at(0), 6);

    EXPECT_EQ(Read(store, 4, 8, kAvailable), std::pair(Bytes{}, VrErrorFailed));

    EXPECT_EQ(Read(store, 12, 14, kAvailable), Good(Pattern(12, 14)));
    EXPECT_EQ(Read(store, 0, 4, kAvailable), Good(Pattern(0, 4)));  // still whole in the file
    EXPECT_EQ(store.Add(Pattern(14, 18), kAll), VrSuccess);
    EXPECT_EQ(Read(store, 12, 18, kAvailable), Good(Pattern(12, 18)));
}

TEST_F(TemporaryDataTest, AMoveTakesEverythingAndLeavesTheSourceEmpty) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), kAll), VrSuccess);

    TemporaryData target(std::move(store));

    EXPECT_EQ(Read(target, 0, 10, kAvailable), Good(Pattern(0, 10)));
    EXPECT_EQ(Read(target, 8, 10, kRaw), Good(Pattern(8, 10)));
    EXPECT_EQ(store.GetLength(kRaw), 0U);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(store.GetLength(kAvailable), 0U);
    EXPECT_EQ(store.Add(Pattern(0, 1), kAll), VrErrorFailed);
}

TEST_F(TemporaryDataTest, AMovedSourceCanBeginAgain) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    TemporaryData target(std::move(store));

    ASSERT_EQ(store.Init(2), VrSuccess);  // NOLINT(bugprone-use-after-move)

    EXPECT_EQ(store.Add(Pattern(0, 5), kAll), VrSuccess);
    EXPECT_EQ(Read(store, 0, 5, kAvailable), Good(Pattern(0, 5)));
}

TEST_F(TemporaryDataTest, MoveAssignmentDeletesTheOldFilesOfTheTarget) {
    TemporaryData target(manager);
    ASSERT_EQ(target.Init(4), VrSuccess);
    ASSERT_EQ(target.Add(Pattern(100, 120), kAll), VrSuccess);
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), kAll), VrSuccess);

    target = std::move(store);

    EXPECT_EQ(SpillSizes(), std::vector<std::uint64_t>{8});
    EXPECT_EQ(Read(target, 0, 10, kAvailable), Good(Pattern(0, 10)));
}

TEST_F(TemporaryDataTest, MoveAssignmentToItselfKeepsEverything) {
    ASSERT_EQ(store.Init(4), VrSuccess);
    ASSERT_EQ(store.Add(Pattern(0, 10), kAll), VrSuccess);
    TemporaryData& same = store;

    store = std::move(same);

    EXPECT_EQ(Read(store, 0, 10, kAvailable), Good(Pattern(0, 10)));
}

TEST_F(TemporaryDataTest, StoresMoveWithAGrowingVector) {
    std::vector<TemporaryData> stores;
    for (std::uint64_t index = 0; index < 5; ++index) {
        TemporaryData& added = stores.emplace_back(manager);
        ASSERT_EQ(added.Init(4), VrSuccess);
        ASSERT_EQ(added.Add(Pattern(index, index + 10), kAll), VrSuccess);
    }

    for (std::uint64_t index = 0; index < 5; ++index) {
        EXPECT_EQ(Read(stores[index], 0, 10, kAvailable), Good(Pattern(index, index + 10)));
    }
}

// ---- ExtractRecordData

struct Extraction {
    const char* name;
    std::uint64_t endPos;  // of a block of 10 bytes
    Ranges ranges;
    bool result;
    Bytes out;
};

class ExtractRecordDataTest : public ::testing::TestWithParam<Extraction> {};

INSTANTIATE_TEST_SUITE_P(
    Cases, ExtractRecordDataTest,
    ::testing::Values(
        Extraction{"NoRangeLeavesTheOutput", 10, {}, true, {42, 43}},
        Extraction{"ClosedPiece", 10, {{0, 3}}, true, {0, 1, 2}},
        Extraction{"ClosedPieceComesFromTheFront", 10, {{4, 7}}, true, {0, 1, 2}},
        Extraction{"OpenPieceRunsToTheEnd", 10, {{0, 0}}, true, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
        Extraction{"OpenPieceComesFromTheFront", 110, {{106, 106}}, true, {0, 1, 2, 3}},
        Extraction{"PiecesFollowOneAnother", 10, {{1, 3}, {8, 8}}, true, {0, 1, 2, 3}},
        Extraction{"MalformedFirstLeavesTheOutput", 10, {{3, 2}, {0, 1}}, false, {42, 43}},
        Extraction{"MalformedSecondKeepsTheFirst", 10, {{0, 2}, {3, 2}}, false, {0, 1}},
        Extraction{"OpenAtTheEndIsNothing", 10, {{10, 10}}, true, {}},
        Extraction{"ClosedPastTheBlockIsCut", 10, {{0, 99}}, true, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
        Extraction{"OpenBeforeTheBlockIsCut", 14, {{2, 2}}, true, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
        Extraction{"SecondPieceIsCutToTheRest",
                   10,
                   {{0, 8}, {1, 9}},
                   true,
                   {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}}),
    [](const ::testing::TestParamInfo<Extraction>& tested) { return tested.param.name; });

TEST_P(ExtractRecordDataTest, CopiesTheRecordedPieces) {
    const Bytes block = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    AlignedBytes out = {42, 43};

    EXPECT_EQ(TemporaryData::ExtractRecordData(out, block, GetParam().endPos, GetParam().ranges),
              GetParam().result);

    EXPECT_EQ(out, AlignedBytes(GetParam().out.begin(), GetParam().out.end()));
}

TEST(ExtractRecordDataSizeTest, CountsIn32BitsAndWraps) {
    constexpr std::size_t kBlockBytes = (std::size_t{1} << 32) + 7;
    void* const memory =
        ::mmap(nullptr, kBlockBytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        GTEST_SKIP() << "no address space for a block of more than 4 GiB";
    }
    AlignedBytes out = {42};

    const bool wellFormed = TemporaryData::ExtractRecordData(
        out, {static_cast<const std::uint8_t*>(memory), kBlockBytes}, kBlockBytes, kAll);

    EXPECT_TRUE(wellFormed);
    EXPECT_EQ(out, AlignedBytes(7, 0));
    ::munmap(memory, kBlockBytes);
}

}  // namespace
}  // namespace vorrel::test
