#include "device/CoreAudioManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "CoreAudioManagerRig.h"
#include "support/TraceCapture.h"

namespace vorrel {
namespace {

TEST_F(CoreAudioManagerTest, WithoutADeviceEveryOperationIsAnInvalidState) {
    EXPECT_EQ(manager.ReleaseDevice(), VrErrorInvalidState);
    EXPECT_EQ(manager.GetChannels(inputs, outputs), VrErrorInvalidState);
    EXPECT_EQ(manager.GetBits(bits, containerBits), VrErrorInvalidState);
    EXPECT_EQ(manager.CanSampleRate(44'100), VrErrorInvalidState);
    EXPECT_EQ(manager.GetSampleRate(rate), VrErrorInvalidState);
    EXPECT_EQ(manager.SetSampleRate(44'100), VrErrorInvalidState);
    EXPECT_EQ(manager.GetSampleType(type), VrErrorInvalidState);
    EXPECT_EQ(manager.SetSampleType(0), VrErrorInvalidState);
    EXPECT_EQ(manager.SetSampleType(2), VrErrorInvalidState);
    EXPECT_EQ(manager.GetBufferSize(frames), VrErrorInvalidState);
    EXPECT_EQ(manager.SetBufferSize(frames), VrErrorInvalidState);
    EXPECT_EQ(manager.Start(), VrErrorInvalidState);
    EXPECT_EQ(manager.Stop(), VrErrorInvalidState);
    // Only the channel counts are set first; the rest keeps what the caller had.
    EXPECT_EQ(inputs, 0);
    EXPECT_EQ(outputs, 0);
    EXPECT_EQ(bits, 9);
    EXPECT_EQ(containerBits, 9);
    EXPECT_EQ(rate, 9);
    EXPECT_EQ(type, 9);
    EXPECT_EQ(frames, 9U);
}

TEST_F(CoreAudioManagerTest, WithoutAUsbInterfaceTheTransferModeIsNotSupported) {
    EXPECT_EQ(manager.SetDSDMethod(false), VrErrorNotSupported);
    SelectWithoutUsb();
    EXPECT_EQ(manager.SetDSDMethod(true), VrErrorNotSupported);
}

TEST_F(CoreAudioManagerTest, WhileRunningConfigurationIsAnInvalidStateAndReadingIsNot) {
    Select();
    ASSERT_EQ(manager.Start(), VrSuccess);
    recorder.audio->ClearLog();

    EXPECT_EQ(manager.SetSampleRate(48'000), VrErrorInvalidState);
    EXPECT_EQ(manager.SetSampleType(1), VrErrorInvalidState);
    EXPECT_EQ(manager.SetBufferSize(frames), VrErrorInvalidState);
    EXPECT_EQ(manager.Start(), VrErrorInvalidState);
    EXPECT_EQ(manager.ReleaseDevice(), VrErrorInvalidState);
    EXPECT_TRUE(recorder.audio->Log().empty());
    EXPECT_EQ(frames, 9U);

    EXPECT_EQ(manager.GetChannels(inputs, outputs), VrSuccess);
    EXPECT_EQ(manager.GetBits(bits, containerBits), VrSuccess);
    EXPECT_EQ(manager.CanSampleRate(48'000), VrSuccess);
    EXPECT_EQ(manager.GetSampleRate(rate), VrSuccess);
    EXPECT_EQ(manager.GetSampleType(type), VrSuccess);
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
}

// Start and stop.

TEST_F(CoreAudioManagerTest, StartsAndStopsTheDevice) {
    Select();
    EXPECT_EQ(manager.Start(), VrSuccess);
    EXPECT_TRUE(recorder.IsRunning());

    EXPECT_EQ(manager.Stop(), VrSuccess);
    EXPECT_FALSE(recorder.IsRunning());

    EXPECT_EQ(manager.Start(), VrSuccess);
}

TEST_F(CoreAudioManagerTest, StopWhenNotRunningIsAnInvalidState) {
    Select();
    EXPECT_EQ(manager.Stop(), VrErrorInvalidState);
    ASSERT_EQ(manager.Start(), VrSuccess);
    ASSERT_EQ(manager.Stop(), VrSuccess);
    EXPECT_EQ(manager.Stop(), VrErrorInvalidState);
}

TEST_F(CoreAudioManagerTest, AFailedStartIsReportedAndTheDeviceDoesNotRun) {
    Select();
    recorder.audio->FailStart(kAudioHardwareBadDeviceError);

    EXPECT_EQ(manager.Start(), VrErrorDeviceNotFound);

    EXPECT_EQ(manager.Stop(), VrErrorInvalidState);
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
}

TEST_F(CoreAudioManagerTest, AFailedStopIsReportedAndTheDeviceCountsAsStopped) {
    Select();
    ASSERT_EQ(manager.Start(), VrSuccess);
    recorder.audio->FailStop(kAudioHardwareUnspecifiedError);

    EXPECT_EQ(manager.Stop(), VrErrorFailed);

    EXPECT_EQ(manager.Stop(), VrErrorInvalidState);
    EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
}

TEST_F(CoreAudioManagerTest, TheDeviceCountsAsStoppedWhileItsLastCycleFinishes) {
    Select();
    ASSERT_EQ(manager.Start(), VrSuccess);
    VrError duringStop = VrSuccess;
    recorder.audio->onStop = [&] { duringStop = manager.Stop(); };

    EXPECT_EQ(manager.Stop(), VrSuccess);

    EXPECT_EQ(duringStop, VrErrorInvalidState);
}

TEST_F(CoreAudioManagerTest, TheSampleTypeMayBeReadInsideACycleOnTheDevicesThread) {
    Select();
    ASSERT_EQ(manager.SetSampleType(1), VrSuccess);
    ASSERT_EQ(manager.Start(), VrSuccess);
    VrError result = VrErrorFailed;
    notify.onCycle = [&] { result = manager.GetSampleType(type); };
    std::vector<float> samples(8);

    std::thread devicesThread([&] { EXPECT_TRUE(recorder.Deliver(2, samples)); });
    devicesThread.join();

    EXPECT_EQ(result, VrSuccess);
    EXPECT_EQ(type, 1);
}

TEST_F(CoreAudioManagerTest, EventsMayComeWhileADeviceIsSelectedAndReleased) {
    test::TraceCapture trace;  // an overload is said
    std::atomic<bool> done{false};
    std::thread notifications([&] {
        while (!done) {
            static_cast<void>(recorder.FireOverload());
            static_cast<void>(recorder.FireAliveChanged());
        }
    });

    for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(manager.SetAudioDevice(recorder.Found(), &notify), VrSuccess);
        EXPECT_EQ(manager.ReleaseDevice(), VrSuccess);
    }

    done = true;
    notifications.join();
}

// Codes.

TEST_F(CoreAudioManagerTest, ConvertsEachStatusOfTheAudioLayer) {
    EXPECT_EQ(CoreAudioManager::ConvertErrorCode(0), VrSuccess);
    EXPECT_EQ(CoreAudioManager::ConvertErrorCode(kAudioDeviceUnsupportedFormatError),
              VrErrorNotSupported);
    EXPECT_EQ(CoreAudioManager::ConvertErrorCode(kAudioHardwareUnsupportedOperationError),
              VrErrorNotSupported);
    EXPECT_EQ(CoreAudioManager::ConvertErrorCode(kAudioHardwareBadDeviceError),
              VrErrorDeviceNotFound);
    EXPECT_EQ(CoreAudioManager::ConvertErrorCode(kAudioHardwareBadObjectError),
              VrErrorDeviceNotFound);
    EXPECT_EQ(CoreAudioManager::ConvertErrorCode(kAudioHardwareBadStreamError),
              VrErrorDeviceNotFound);
    for (const OSStatus other :
         {kAudioHardwareUnspecifiedError, kAudioHardwareUnknownPropertyError,
          kAudioHardwareBadPropertySizeError, kAudioHardwareIllegalOperationError,
          kAudioHardwareNotRunningError, kAudioDevicePermissionsError, -1, 1}) {
        EXPECT_EQ(CoreAudioManager::ConvertErrorCode(other), VrErrorFailed) << other;
    }
}

}  // namespace
}  // namespace vorrel
