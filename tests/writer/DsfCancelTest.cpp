#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "support/FileBytes.h"
#include "writer/DsfWriterRig.h"
#include "writer/PlainDsfWriter.h"
#include "writer/SaveRun.h"

namespace vorrel {
namespace {

using test::Bytes;
using test::DsdType;
using test::DsfWriterTest;
using test::ExpectSame;
using test::Id;
using test::kBlockFrames;
using test::kBlockRate;
using test::LittleEndian;
using test::Outcome;
using test::PlainSaveDsfFile;

TEST_F(DsfWriterTest, ACancelThatDeletesBeforeTheFirstBlockLeavesHeaderAndTag) {
    MakeRecording(1, 40 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 40);
    setting.tags = {{"Title", "AB"}};
    cancelState = kSaveCancelDelete;

    EXPECT_EQ(SaveFile(&setting), VrErrorCanceled);

    const Bytes bytes = Saved();
    ASSERT_EQ(bytes.size(), 92U + 27);
    EXPECT_EQ(LittleEndian(bytes, 12, 8), 92U + 40 * 4'096 + 27) << "that of the complete file";
    EXPECT_EQ(LittleEndian(bytes, 92, 3), Id("ID3"));
    EXPECT_EQ(progress.overallPosition, 0U);
}

TEST_F(DsfWriterTest, AFileWithoutBlocksIsCancelledToo) {
    MakeRecording(1, 4'096);
    for (const std::int32_t pending : {kSaveCancelDelete, kSaveCancelKeep}) {
        cancelState = pending;

        EXPECT_EQ(Save(0, 0), VrErrorCanceled);
        EXPECT_EQ(Saved().size(), 92U);
    }
}

TEST_F(DsfWriterTest, ACancelThatKeepsCompletesTheFile) {
    MakeRecording(2, 40 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 40);
    setting.tags = {{"Title", "AB"}};
    ASSERT_EQ(SaveFile(&setting), VrSuccess);
    const Bytes complete = Saved();
    cancelState = kSaveCancelKeep;

    EXPECT_EQ(SaveFile(&setting), VrErrorCanceled);

    EXPECT_EQ(complete.size(), 92U + 40 * 8'192 + 27);
    EXPECT_TRUE(Saved() == complete);
}

TEST_F(DsfWriterTest, AFailureWhileACancelIsPendingIsACancelledSave) {
    MakeRecording(1, 4'096);
    cancelState = kSaveCancelKeep;

    EXPECT_EQ(Save(0, 2), VrErrorCanceled);

    EXPECT_EQ(Saved().size(), 92U + 4'096);
}

TEST_F(DsfWriterTest, ACancelThatDeletesStopsBeforeTheNextBlock) {
    for (const std::uint16_t channels : std::to_array<std::uint16_t>({1, 2, 3, 5, 8})) {
        MakeRecording(channels, 330 * 4'096);
        VrSaveSettingInternal setting = Setting(0, 330);
        setting.tags = {{"Title", "AB"}};
        std::size_t stuckBlock = 0;

        cancelState = kSaveCancelNone;
        std::filesystem::remove(setting.path);
        const Outcome real =
            OutcomeOfHeldSave(setting, stuckBlock, [&] { cancelState = kSaveCancelDelete; });

        EXPECT_EQ(real.result, VrErrorCanceled);
        EXPECT_EQ(real.file.size(), 92U + (stuckBlock + 1) * 4'096 * channels + 27);
        cancelState = kSaveCancelNone;
        ExpectSame(real, OutcomeOf([&](SaveRun& plain) {
                       return PlainSaveDsfFile(&setting, plain, [&](std::size_t block) {
                           if (block == stuckBlock + 1) {
                               cancelState = kSaveCancelDelete;
                           }
                       });
                   }));
    }
}

TEST_F(DsfWriterTest, ACancelThatKeepsInTheMiddleCompletesTheFile) {
    MakeRecording(2, 200 * 4'096);
    VrSaveSettingInternal setting = Setting(0, 200);
    setting.tags = {{"Title", "AB"}};
    std::size_t stuckBlock = 0;

    const Outcome real =
        OutcomeOfHeldSave(setting, stuckBlock, [&] { cancelState = kSaveCancelKeep; });

    EXPECT_EQ(real.result, VrErrorCanceled);
    EXPECT_EQ(real.file.size(), 92U + 200 * 8'192 + 27);
    EXPECT_EQ(real.filePosition, 199 * kBlockFrames);
    EXPECT_EQ(real.overallPosition, 200 * kBlockFrames);
}

TEST_F(DsfWriterTest, ATakeThatBeginsInTheMiddleFailsTheFileAndIsNotMixedIn) {
    for (const std::uint16_t channels : std::to_array<std::uint16_t>({1, 2})) {
        MakeRecording(2, 330 * 4'096);
        VrSaveSettingInternal setting = Setting(0, 330);
        setting.tags = {{"Title", "AB"}};
        const Outcome whole =
            OutcomeOf([&](SaveRun& plain) { return PlainSaveDsfFile(&setting, plain); });
        std::filesystem::remove(setting.path);
        std::size_t stuckBlock = 0;

        const Outcome real = OutcomeOfHeldSave(setting, stuckBlock, [&] {
            recording.Begin(channels, kBlockRate, DsdType());
            recording.Add<std::uint8_t>(0, Bytes(330 * 4'096, 0x69));
        });

        EXPECT_EQ(real.result, VrErrorFailed);
        EXPECT_EQ(real.file.size(), 92 + (stuckBlock + 1) * 8'192) << "no tag";
        EXPECT_EQ(real.overallPosition, (stuckBlock + 2) * kBlockFrames);
        ASSERT_LT(real.file.size(), whole.file.size());
        EXPECT_TRUE(std::equal(real.file.begin(), real.file.end(), whole.file.begin()));
        std::filesystem::remove(setting.path);
    }
}

}  // namespace
}  // namespace vorrel
