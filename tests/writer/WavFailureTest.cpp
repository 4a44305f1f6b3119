#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "writer/SaveRunRig.h"
#include "writer/WavWriter.h"

namespace vorrel {
namespace {

class WavFailureTest : public test::SaveRunTest {
protected:
    WavFailureTest() {
        recording.Make(1, 1'000, 100);
        run.recording = recording.data.GetLayout();
    }
};

TEST_F(WavFailureTest, ATakeThatHasBegunMeanwhileIsNotSaved) {
    recording.Make(1, 1'000, 100);
    const VrSaveSettingInternal setting{directory.File("take.wav"), 0, 1, 0, {}};

    EXPECT_EQ(SaveWavFile(&setting, run), VrErrorFailed);

    EXPECT_FALSE(std::filesystem::exists(setting.path));
    EXPECT_EQ(progress.fileLength, 0U);
}

TEST_F(WavFailureTest, ARecordingWithoutChannelsFailsAndLeavesAnExistingFile) {
    run.recording.channels = 0;
    const VrSaveSettingInternal setting{directory.File("take.wav"), 0, 1, 0, {}};
    std::ofstream(setting.path) << "an earlier take";

    EXPECT_EQ(SaveWavFile(&setting, run), VrErrorFailed);

    EXPECT_EQ(std::filesystem::file_size(setting.path), 15U);
}

TEST_F(WavFailureTest, ACancelledFileThatFailsAtItsCloseIsCancelled) {
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "no /dev/full here";
    }
    const VrSaveSettingInternal setting{"/dev/full", 0, 1, 0, {}};
    EXPECT_EQ(SaveWavFile(&setting, run), VrErrorFailed);
    for (const std::int32_t pending : {kSaveCancelDelete, kSaveCancelKeep}) {
        cancelState = pending;

        EXPECT_EQ(SaveWavFile(&setting, run), VrErrorCanceled);
    }
}

}  // namespace
}  // namespace vorrel
