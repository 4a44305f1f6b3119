#include <gtest/gtest.h>

#include <filesystem>

#include "support/FileBytes.h"
#include "support/FileSizeLimit.h"
#include "support/NoNewThreads.h"
#include "writer/DsfWriter.h"
#include "writer/DsfWriterRig.h"
#include "writer/SaveRun.h"

namespace vorrel {
namespace {

using test::DsfWriterTest;
using test::FileSizeLimit;
using test::LittleEndian;
using test::NoNewThreads;

TEST_F(DsfWriterTest, WithoutThreadsForTheProcessorsTheSaveFailsBehindTheHeader) {
    MakeRecording(2, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Title", "AB"}};
    const NoNewThreads none;

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U);
}

TEST_F(DsfWriterTest, AFailedWriteLeavesThePartialFile) {
    MakeRecording(2, 200 * 4'096);  // 1.6 MB: more than the stream buffers
    VrSaveSettingInternal setting = Setting(0, 200);
    setting.tags = {{"Title", "AB"}};
    const FileSizeLimit limit(1'200'000);

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 1'200'000U);
    EXPECT_EQ(LittleEndian(Saved(), 12, 8), 92U + 200 * 8'192 + 27);
}

TEST_F(DsfWriterTest, AFailedHeaderIsAFailedSave) {
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "no /dev/full here";
    }
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting{"/dev/full", 0, 0, 0, {}};

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);
    cancelState = kSaveCancelKeep;
    EXPECT_EQ(SaveFile(&setting), VrErrorCanceled);
}

TEST_F(DsfWriterTest, AFailureAtTheCloseIsAFailedWrite) {
    MakeRecording(1, 4'096);
    VrSaveSettingInternal setting = Setting(0, 1);
    setting.tags = {{"Title", "AB"}};
    const FileSizeLimit limit(92 + 4'096 + 10);  // ends within the tag

    EXPECT_EQ(SaveFile(&setting), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U + 4'096 + 10);
}

TEST_F(DsfWriterTest, ARecordingThatCannotBeReadFailsTheSave) {
    MakeRecording(1, 300 * 4'096);  // far more than stays in memory
    for (const auto& entry : std::filesystem::directory_iterator(spill.Path())) {
        std::filesystem::resize_file(entry.path(), 100 * 4'096);
    }

    EXPECT_EQ(Save(0, 300), VrErrorFailed);

    EXPECT_EQ(Saved().size(), 92U + 100 * 4'096) << "the blocks before the failure";
}

TEST_F(DsfWriterTest, ATakeThatHasBegunMeanwhileIsNotSaved) {
    MakeRecording(1, 4'096);
    run.recording = recording.data.GetLayout();
    MakeRecording(1, 4'096);
    const VrSaveSettingInternal setting = Setting(0, 1);

    EXPECT_EQ(SaveDsfFile(&setting, run), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(setting.path));
}

TEST_F(DsfWriterTest, TheFirstFailureOfAFileIsItsResult) {
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "no /dev/full here";
    }
    MakeRecording(1, 4'096);
    VrSaveSettingInternal setting{"/dev/full", 0, 1, 0, {}};
    setting.tags = {{"Title", "\x80\x80"}};  // counts no character

    EXPECT_EQ(SaveFile(&setting), VrErrorInvalidParameter) << "not that of the close";
}

}  // namespace
}  // namespace vorrel
