#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/RecordingDelegate.h"
#include "support/TempDirectory.h"
#include "vorrel/Vorrel.h"

// The exported functions over the one manager of the process: ctest runs every case in a process
// of its own, which is what each of them needs.

namespace {

using vorrel::test::DispatchUntil;
using vorrel::test::RecordingDelegate;
using vorrel::test::TempDirectory;

class ApiTest : public testing::Test {
protected:
    ApiTest() {
        ::setenv("VORREL_BACKEND", "simulated", 1);
        ::setenv("VORREL_SIMULATED", "source=counter,channels=2,speed=20", 1);
    }

    void SelectRecorder() {
        ASSERT_EQ(Vorrel_Init(delegate), VrSuccess);
        ASSERT_EQ(Vorrel_SetTempDirectory(directory.Path().c_str()), VrSuccess);
        std::vector<std::string> names;
        ASSERT_EQ(Vorrel_GetAudioDevices(&names), VrSuccess);
        ASSERT_EQ(names, std::vector<std::string>{"KD-WV770"});
        ASSERT_EQ(Vorrel_SetAudioDevice(names.front().c_str()), VrSuccess);
    }

    TempDirectory directory;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

TEST_F(ApiTest, InitWithoutADelegateLeavesTheLibraryUninitialized) {
    EXPECT_EQ(Vorrel_Init(nullptr), VrErrorInvalidParameter);

    EXPECT_EQ(Vorrel_New(), VrErrorNotInitialized);
}

TEST_F(ApiTest, ASecondInitIsRefusedAndKeepsTheFirstDelegate) {
    const auto second = std::make_shared<RecordingDelegate>();
    ASSERT_EQ(Vorrel_Init(delegate), VrSuccess);

    EXPECT_EQ(Vorrel_Init(second), VrErrorAlreadyInitialized);

    const std::vector<VrSaveSetting> nothing;
    ASSERT_EQ(Vorrel_SaveFile(&nothing), VrSuccess);
    EXPECT_TRUE(DispatchUntil([&] { return delegate->Has(VrRecOperationSaveFinished); }));
    EXPECT_TRUE(second->operations.empty());
}

TEST_F(ApiTest, LoopbackAndPlaybackAreNotSupportedEvenBeforeInit) {
    EXPECT_EQ(Vorrel_EnableLoopback(true), VrErrorNotSupported);
    EXPECT_EQ(Vorrel_EnableLoopback(false), VrErrorNotSupported);
    EXPECT_EQ(Vorrel_StartPlay(0.0), VrErrorNotSupported);
    ASSERT_EQ(Vorrel_Init(delegate), VrSuccess);
    EXPECT_EQ(Vorrel_EnableLoopback(true), VrErrorNotSupported);
    EXPECT_EQ(Vorrel_StartPlay(1.0), VrErrorNotSupported);
}

TEST_F(ApiTest, CancelSucceedsBeforeInitAndWithoutASave) {
    EXPECT_EQ(Vorrel_SaveFileCancel(true), VrSuccess);
    ASSERT_EQ(Vorrel_Init(delegate), VrSuccess);
    EXPECT_EQ(Vorrel_SaveFileCancel(false), VrSuccess);
}

TEST_F(ApiTest, EveryOtherFunctionIsRefusedBeforeInit) {
    std::vector<std::string> names = {"left over"};
    std::shared_ptr<VrAudioDeviceInfo> info;
    std::shared_ptr<VrRecordSetting> reported;
    const VrRecordSetting setting{.rec_type = 0, .freq = 48'000, .bits = 16};
    std::int16_t sample = 0;
    std::uint64_t length = 0;
    std::int32_t file = 0;
    std::int32_t total = 0;
    const std::vector<VrSaveSetting> files;

    EXPECT_EQ(Vorrel_New(), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_GetAudioDevices(&names), VrErrorNotInitialized);
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(Vorrel_SetAudioDevice("KD-WV770"), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_GetAudioDeviceInfo(&info), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_SetRecordSetting(&setting), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_GetRecordSetting(&reported), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_StartPreRecording(), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_Start(), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_Stop(true), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_Stop(false), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_Pause(), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_Resume(), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_GetPreviewData(0, 1, &sample), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_GetRecordingPreviewData(0, 1, &sample), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_GetPreviewDataLength(&length), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_GetRecordingPreviewDataLength(&length), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_SaveFile(&files), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_SaveFileProgress(&file, &total), VrErrorNotInitialized);
    EXPECT_EQ(Vorrel_SetTempDirectory(directory.Path().c_str()), VrErrorNotInitialized);
}

TEST_F(ApiTest, NullArgumentsAreRefusedBeforeTheStateIsLookedAt) {
    std::int32_t progress = 0;

    EXPECT_EQ(Vorrel_GetAudioDevices(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_SetAudioDevice(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_GetAudioDeviceInfo(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_SetRecordSetting(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_GetRecordSetting(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_GetPreviewData(0, 1, nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_GetRecordingPreviewData(0, 1, nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_GetPreviewDataLength(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_GetRecordingPreviewDataLength(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_SaveFile(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_SaveFileProgress(nullptr, &progress), VrErrorInvalidParameter);
    EXPECT_EQ(Vorrel_SaveFileProgress(&progress, nullptr), VrErrorInvalidParameter);
}

TEST_F(ApiTest, ATakeGoesFromTheRecorderToAFile) {
    SelectRecorder();
    const VrRecordSetting setting{.rec_type = 0, .freq = 96'000, .bits = 24};
    ASSERT_EQ(Vorrel_SetRecordSetting(&setting), VrSuccess);
    ASSERT_EQ(Vorrel_Start(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] {
        return !delegate->streamPositions.empty() && delegate->streamPositions.back() >= 1.0;
    }));
    ASSERT_EQ(Vorrel_Stop(true), VrSuccess);

    const std::string path = directory.File("take.wav");
    const std::vector<VrSaveSetting> files = {{path, 0.0, 1.0, 0.0, {{"Title", "Take"}}}};
    ASSERT_EQ(Vorrel_SaveFile(&files), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(VrRecOperationSaveFinished); }));

    // 96,000 frames of 2 x 3 bytes and the header; behind them LIST with "Take", a zero and a pad
    // byte: 8 + 4 + (8 + 6), and "id3 ": 8 + (10 + 13 + 8) and a pad byte.
    EXPECT_EQ(std::filesystem::file_size(path), 44U + 576'000U + 26U + 40U);
    EXPECT_EQ(delegate->operations.front(), VrRecOperationDeviceStarted);
    EXPECT_TRUE(delegate->Has(VrRecOperationStopped));
    EXPECT_TRUE(delegate->messages.empty());
    std::int32_t file = -1;
    std::int32_t total = -1;
    EXPECT_EQ(Vorrel_SaveFileProgress(&file, &total), VrSuccess);
    EXPECT_EQ(file, 1000);
    EXPECT_EQ(total, 1000);
}

TEST_F(ApiTest, EachFunctionOfATakeReachesItsOwnOperation) {
    SelectRecorder();
    std::shared_ptr<VrAudioDeviceInfo> info;
    ASSERT_EQ(Vorrel_GetAudioDeviceInfo(&info), VrSuccess);
    EXPECT_EQ(info->device_name, "KD-WV770");
    const VrRecordSetting setting{.rec_type = 0, .freq = 48'000, .bits = 32};
    ASSERT_EQ(Vorrel_SetRecordSetting(&setting), VrSuccess);
    std::shared_ptr<VrRecordSetting> reported;
    ASSERT_EQ(Vorrel_GetRecordSetting(&reported), VrSuccess);
    EXPECT_EQ(reported->bits, 32);
    std::uint64_t recorded = 0;
    std::uint64_t captured = 0;
    const auto lengths = [&] {
        return Vorrel_GetPreviewDataLength(&recorded) == VrSuccess &&
               Vorrel_GetRecordingPreviewDataLength(&captured) == VrSuccess;
    };

    // A pre-recording is captured and not recorded.
    ASSERT_EQ(Vorrel_StartPreRecording(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return lengths() && captured >= 4'800; }));
    EXPECT_EQ(recorded, 0U);
    EXPECT_EQ(Vorrel_Pause(), VrErrorInvalidState);
    EXPECT_EQ(Vorrel_New(), VrErrorInvalidState);

    ASSERT_EQ(Vorrel_Start(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return lengths() && recorded > 0; }));
    ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(VrRecOperationRecordStarted); }));
    ASSERT_EQ(Vorrel_Pause(), VrSuccess);
    ASSERT_EQ(Vorrel_Resume(), VrSuccess);
    EXPECT_EQ(Vorrel_Resume(), VrErrorInvalidState);
    ASSERT_EQ(Vorrel_Stop(false), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(VrRecOperationStopped); }));

    ASSERT_TRUE(lengths());
    EXPECT_GE(captured, recorded + 4'800);
    // The count begins at 0 with the capture, and is past 16 bits' first step when it records.
    std::vector<std::int16_t> first(2, -1);
    ASSERT_EQ(Vorrel_GetRecordingPreviewData(0, 1, first.data()), VrSuccess);
    EXPECT_EQ(first[0], 0);
    ASSERT_EQ(Vorrel_GetPreviewData(0, 1, first.data()), VrSuccess);
    EXPECT_NE(first[0], 0);
    ASSERT_EQ(Vorrel_New(), VrSuccess);
    ASSERT_TRUE(lengths());
    EXPECT_EQ(recorded, 0U);
    EXPECT_EQ(captured, 0U);
}

TEST_F(ApiTest, AProcessMayEndInTheMiddleOfARecording) {
    EXPECT_EXIT(
        {
            SelectRecorder();
            std::ignore = Vorrel_Start();
            DispatchUntil([&] { return !delegate->streamPositions.empty(); });
            std::exit(7);
        },
        testing::ExitedWithCode(7), "");
}

}  // namespace
