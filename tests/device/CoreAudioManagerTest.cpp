#include "device/CoreAudioManager.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "support/FakeDeviceNotify.h"
#include "support/FakeRecorder.h"

namespace vorrel {
namespace {

using test::AnyRate;
using test::FakeDeviceNotify;
using test::FakeRecorder;
using test::Ranged;

class CoreAudioManagerTest : public testing::Test {
protected:
    void Select() { ASSERT_EQ(manager.SetAudioDevice(recorder.Found(), &notify), VrSuccess); }
    void SelectWith(const std::vector<AudioStreamRangedDescription>& formats) {
        recorder.SetFormats(formats);
        Select();
    }
    void SelectWithoutUsb() {
        FoundDeviceInfo found = recorder.Found();
        found.excludedRateMask = 0;
        ASSERT_EQ(manager.SetAudioDevice(found, &notify), VrSuccess);
    }

    FakeRecorder recorder;
    FakeDeviceNotify notify;
    CoreAudioManager manager{recorder.Provider()};

    std::uint16_t inputs = 9;
    std::uint16_t outputs = 9;
    std::uint16_t bits = 9;
    std::uint16_t containerBits = 9;
    double rate = 9;
    std::int64_t type = 9;
    std::uint32_t frames = 9;
};

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

// Channels.

TEST_F(CoreAudioManagerTest, ChannelsAreTheSumOverTheBuffersOfEachSide) {
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput, {2, 1});
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeOutput, {4, 4, 2});
    Select();

    EXPECT_EQ(manager.GetChannels(inputs, outputs), VrSuccess);

    EXPECT_EQ(inputs, 3);
    EXPECT_EQ(outputs, 10);
}

TEST_F(CoreAudioManagerTest, ASideWhoseChannelsCannotBeReadStaysZero) {
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeOutput, {6});
    Select();
    recorder.audio->FailGet(kAudioDevicePropertyStreamConfiguration, kAudioHardwareBadDeviceError,
                            kAudioObjectPropertyScopeInput);

    EXPECT_EQ(manager.GetChannels(inputs, outputs), VrErrorDeviceNotFound);
    EXPECT_EQ(inputs, 0);
    EXPECT_EQ(outputs, 6);
}

TEST_F(CoreAudioManagerTest, OfTwoFailedReadsOfChannelsTheLastIsReported) {
    Select();
    recorder.audio->FailGet(kAudioDevicePropertyStreamConfiguration, kAudioHardwareBadDeviceError,
                            kAudioObjectPropertyScopeInput);
    recorder.audio->FailGet(kAudioDevicePropertyStreamConfiguration,
                            kAudioHardwareUnsupportedOperationError,
                            kAudioObjectPropertyScopeOutput);

    EXPECT_EQ(manager.GetChannels(inputs, outputs), VrErrorNotSupported);
    EXPECT_EQ(inputs, 0);
    EXPECT_EQ(outputs, 0);
}

// Bits.

TEST_F(CoreAudioManagerTest, BitsAreThoseOfTheBestFormatAtAnyRate) {
    SelectWith({Ranged(44'100, 16, 2), Ranged(192'000, 24, 2), Ranged(96'000, 16, 8)});

    EXPECT_EQ(manager.GetBits(bits, containerBits), VrSuccess);

    EXPECT_EQ(bits, 24);
    EXPECT_EQ(containerBits, 24);
}

TEST_F(CoreAudioManagerTest, TheContainerOfASampleMayBeWiderThanItsBits) {
    AudioStreamRangedDescription format = Ranged(96'000, 24, 2);
    format.mFormat.mBytesPerFrame = 8;  // two samples of 24 bits in 4 bytes each
    SelectWith({format});

    EXPECT_EQ(manager.GetBits(bits, containerBits), VrSuccess);

    EXPECT_EQ(bits, 24);
    EXPECT_EQ(containerBits, 32);
}

TEST_F(CoreAudioManagerTest, AFormatWithoutChannelsHasNoContainer) {
    SelectWith({Ranged(96'000, 24, 0)});

    EXPECT_EQ(manager.GetBits(bits, containerBits), VrSuccess);

    EXPECT_EQ(bits, 24);
    EXPECT_EQ(containerBits, 0);
}

TEST_F(CoreAudioManagerTest, BitsAreNotSupportedWithoutAnAvailableFormat) {
    SelectWith({});

    EXPECT_EQ(manager.GetBits(bits, containerBits), VrErrorNotSupported);
}

TEST_F(CoreAudioManagerTest, BitsAreNotSupportedWithoutAnEligibleFormat) {
    AudioStreamRangedDescription nonMixable = Ranged(96'000, 24, 2);
    nonMixable.mFormat.mFormatFlags |= kAudioFormatFlagIsNonMixable;
    SelectWith({nonMixable});

    EXPECT_EQ(manager.GetBits(bits, containerBits), VrErrorNotSupported);
    EXPECT_EQ(bits, 9);
}

// Rates.

TEST_F(CoreAudioManagerTest, APcmRateIsPossibleWithAnyEligibleFormat) {
    SelectWith({Ranged(96'000, 16, 2), Ranged(48'000, 32, 2)});

    EXPECT_EQ(manager.CanSampleRate(96'000), VrSuccess);
    EXPECT_EQ(manager.CanSampleRate(48'000), VrSuccess);
    EXPECT_EQ(manager.CanSampleRate(44'100), VrErrorNotSupported);
}

TEST_F(CoreAudioManagerTest, ADsdRateNeedsAFormatOfExactly16BitsAtASixteenthOfIt) {
    SelectWith({Ranged(176'400, 24, 2), Ranged(352'800, 16, 2), Ranged(352'800, 24, 2)});
    ASSERT_EQ(manager.SetSampleType(1), VrSuccess);

    EXPECT_EQ(manager.CanSampleRate(2'822'400), VrErrorNotSupported);
    EXPECT_EQ(manager.CanSampleRate(5'644'800), VrSuccess);
    EXPECT_EQ(manager.CanSampleRate(11'289'600), VrErrorNotSupported);
    EXPECT_EQ(manager.CanSampleRate(352'800), VrErrorNotSupported);
}

TEST_F(CoreAudioManagerTest, SetSampleRatePicks32BitsOver24AtThatRate) {
    SelectWith({Ranged(96'000, 24, 2), Ranged(96'000, 32, 2), Ranged(192'000, 32, 2)});

    EXPECT_EQ(manager.SetSampleRate(96'000), VrSuccess);

    EXPECT_EQ(recorder.PhysicalFormat().mBitsPerChannel, 32U);
    EXPECT_EQ(recorder.PhysicalFormat().mSampleRate, 96'000.0);
    EXPECT_EQ(manager.GetSampleRate(rate), VrSuccess);
    EXPECT_EQ(rate, 96'000.0);
}

TEST_F(CoreAudioManagerTest, SetSampleRatePicks24BitsWhereThereAreOnly16And24) {
    SelectWith({Ranged(96'000, 16, 2), Ranged(96'000, 24, 2)});

    EXPECT_EQ(manager.SetSampleRate(96'000), VrSuccess);

    EXPECT_EQ(recorder.PhysicalFormat().mBitsPerChannel, 24U);
}

TEST_F(CoreAudioManagerTest, ADsdRateWithOnly24BitFormatsIsNotSupported) {
    SelectWith({Ranged(176'400, 24, 2)});
    ASSERT_EQ(manager.SetSampleType(1), VrSuccess);

    EXPECT_EQ(manager.SetSampleRate(2'822'400), VrErrorNotSupported);

    EXPECT_EQ(recorder.PhysicalFormat().mSampleRate, 44'100.0);
}

TEST_F(CoreAudioManagerTest, OfEqualFormatsTheFirstInTheDevicesListIsSet) {
    AudioStreamRangedDescription first = Ranged(96'000, 24, 2);
    AudioStreamRangedDescription second = first;
    first.mFormat.mBytesPerFrame = 6;
    second.mFormat.mBytesPerFrame = 8;
    SelectWith({first, second});

    EXPECT_EQ(manager.SetSampleRate(96'000), VrSuccess);

    EXPECT_EQ(recorder.PhysicalFormat().mBytesPerFrame, 6U);
}

TEST_F(CoreAudioManagerTest, AnEntryForAnyRateIsSetWithTheRateThatIsWanted) {
    SelectWith({AnyRate(44'100, 384'000, 24, 2), AnyRate(44'100, 384'000, 16, 2)});

    EXPECT_EQ(manager.SetSampleRate(384'000), VrSuccess);
    EXPECT_EQ(recorder.PhysicalFormat().mSampleRate, 384'000.0);
    EXPECT_EQ(recorder.PhysicalFormat().mBitsPerChannel, 24U);
    EXPECT_EQ(manager.SetSampleRate(384'001), VrErrorNotSupported);

    ASSERT_EQ(manager.SetSampleType(1), VrSuccess);
    EXPECT_EQ(manager.SetSampleRate(5'644'800), VrSuccess);
    EXPECT_EQ(recorder.PhysicalFormat().mSampleRate, 352'800.0);
    EXPECT_EQ(recorder.PhysicalFormat().mBitsPerChannel, 16U);
}

TEST_F(CoreAudioManagerTest, TheSampleRateInDsdModeIsSixteenTimesThePhysicalOne) {
    Select();
    ASSERT_EQ(manager.SetSampleType(1), VrSuccess);
    ASSERT_EQ(manager.SetSampleRate(2'822'400), VrSuccess);
    ASSERT_EQ(recorder.PhysicalFormat().mSampleRate, 176'400.0);

    EXPECT_EQ(manager.GetSampleRate(rate), VrSuccess);

    EXPECT_EQ(rate, 2'822'400.0);
}

TEST_F(CoreAudioManagerTest, ARefusedFormatIsReportedAndTheOldOneStaysInForce) {
    const struct {
        OSStatus status;
        VrError expected;
    } cases[] = {{kAudioDeviceUnsupportedFormatError, VrErrorNotSupported},
                 {kAudioHardwareBadStreamError, VrErrorDeviceNotFound},
                 {kAudioHardwareUnspecifiedError, VrErrorFailed}};
    Select();
    for (const auto& refusal : cases) {
        recorder.audio->FailSet(kAudioStreamPropertyPhysicalFormat, refusal.status);

        EXPECT_EQ(manager.SetSampleRate(96'000), refusal.expected);
        EXPECT_EQ(manager.GetSampleRate(rate), VrSuccess);
        EXPECT_EQ(rate, 44'100.0);
    }
}

TEST_F(CoreAudioManagerTest, SetSampleRateFailsWhenTheInputStreamHasGone) {
    Select();
    recorder.audio->SetValues<AudioStreamID>(FakeRecorder::kDevice, kAudioDevicePropertyStreams, {},
                                             kAudioObjectPropertyScopeInput);
    EXPECT_EQ(manager.SetSampleRate(96'000), VrErrorFailed);

    recorder.audio->FailGet(kAudioDevicePropertyStreams, kAudioHardwareBadDeviceError);
    EXPECT_EQ(manager.SetSampleRate(96'000), VrErrorDeviceNotFound);
}

// Sample type and transfer mode.

TEST_F(CoreAudioManagerTest, TheSampleTypeSwitchesTheTransferModeFirst) {
    Select();

    EXPECT_EQ(manager.SetSampleType(1), VrSuccess);
    EXPECT_EQ(manager.GetSampleType(type), VrSuccess);
    EXPECT_EQ(type, 1);
    EXPECT_EQ(manager.SetSampleType(0), VrSuccess);
    EXPECT_EQ(manager.GetSampleType(type), VrSuccess);
    EXPECT_EQ(type, 0);

    const auto requests = recorder.registry->UsbRequests();
    ASSERT_EQ(requests.size(), 3U);  // the first at the selection
    EXPECT_EQ(requests[1].value, 1);
    EXPECT_EQ(requests[2].value, 0);
}

TEST_F(CoreAudioManagerTest, DsdWithoutTheUsbInterfaceIsNotSupported) {
    SelectWithoutUsb();

    EXPECT_EQ(manager.SetSampleType(1), VrErrorNotSupported);

    EXPECT_EQ(manager.GetSampleType(type), VrSuccess);
    EXPECT_EQ(type, 0);
}

TEST_F(CoreAudioManagerTest, PcmWithoutTheUsbInterfaceIsAccepted) {
    SelectWithoutUsb();

    EXPECT_EQ(manager.SetSampleType(0), VrSuccess);
}

TEST_F(CoreAudioManagerTest, OtherSampleTypesAreNotSupported) {
    Select();

    EXPECT_EQ(manager.SetSampleType(2), VrErrorNotSupported);
    EXPECT_EQ(manager.SetSampleType(-1), VrErrorNotSupported);
    EXPECT_EQ(manager.SetSampleType(std::int64_t{1} << 32), VrErrorNotSupported);

    EXPECT_EQ(recorder.registry->UsbRequests().size(), 1U);
}

TEST_F(CoreAudioManagerTest, ARefusedSwitchIsReportedAndTheOldTypeStaysInForce) {
    Select();
    recorder.registry->FailUsbRequest(kIOUSBPipeStalled);
    EXPECT_EQ(manager.SetSampleType(1), VrErrorFailed);
    recorder.registry->FailUsbRequest(kIOReturnNoDevice);
    EXPECT_EQ(manager.SetSampleType(1), VrErrorDeviceNotFound);

    EXPECT_EQ(manager.GetSampleType(type), VrSuccess);
    EXPECT_EQ(type, 0);
}

TEST_F(CoreAudioManagerTest, TheTransferModeIsAVendorRequestToTheInterfaceWithoutData) {
    Select();

    EXPECT_EQ(manager.SetDSDMethod(true), VrSuccess);

    const UsbControlRequest request = recorder.registry->UsbRequests().back();
    EXPECT_EQ(request.requestType, 0x41);  // host to device, vendor, to an interface
    EXPECT_EQ(request.request, 0);
    EXPECT_EQ(request.value, 1);
    EXPECT_EQ(request.index, 3);  // the interface number
    EXPECT_EQ(request.length, 0);
    EXPECT_EQ(request.data, nullptr);
}

TEST_F(CoreAudioManagerTest, TheTransferModeOfADeviceThatIsGoneIsDeviceNotFound) {
    Select();
    recorder.registry->FailUsbRequest(kIOReturnNoDevice);
    EXPECT_EQ(manager.SetDSDMethod(true), VrErrorDeviceNotFound);
    recorder.registry->FailUsbRequest(kIOReturnSuccess);
    recorder.registry->FailUsbInterfaceNumber(kIOReturnNoDevice);
    const std::size_t sent = recorder.registry->UsbRequests().size();

    EXPECT_EQ(manager.SetDSDMethod(true), VrErrorDeviceNotFound);

    EXPECT_EQ(recorder.registry->UsbRequests().size(), sent);
}

TEST_F(CoreAudioManagerTest, AnyOtherUsbFailureIsAFailure) {
    Select();
    recorder.registry->FailUsbRequest(kIOUSBPipeStalled);
    EXPECT_EQ(manager.SetDSDMethod(false), VrErrorFailed);
    recorder.registry->FailUsbRequest(kIOReturnSuccess);
    recorder.registry->FailUsbInterfaceNumber(kIOReturnError);
    EXPECT_EQ(manager.SetDSDMethod(false), VrErrorFailed);
}

// Buffer size.

TEST_F(CoreAudioManagerTest, ABufferSizeAboveTheRangeBecomesItsMaximum) {
    Select();
    frames = 7056;

    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);

    EXPECT_EQ(frames, 4096U);
    EXPECT_EQ(recorder.BufferFrames(), 4096U);
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 4096U);
}

TEST_F(CoreAudioManagerTest, ABufferSizeBelowTheRangeBecomesItsMinimum) {
    Select();
    frames = 0;

    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);

    EXPECT_EQ(frames, 14U);
}

TEST_F(CoreAudioManagerTest, ABufferSizeInTheRangeIsTakenWithBothEnds) {
    Select();
    for (const std::uint32_t wanted : {14U, 2205U, 4096U}) {
        frames = wanted;
        EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
        EXPECT_EQ(frames, wanted);
    }
}

TEST_F(CoreAudioManagerTest, FractionsOfTheBufferSizeRangeAreDropped) {
    Select();
    recorder.audio->SetValue(FakeRecorder::kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                             AudioValueRange{14.9, 4096.9});
    frames = 1;
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 14U);
    frames = 4097;
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 4096U);
}

TEST_F(CoreAudioManagerTest, ABufferSizeRangeThatNoCountCanHoldIsHarmless) {
    Select();
    recorder.audio->SetValue(FakeRecorder::kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                             AudioValueRange{-5.0, 1e12});
    frames = 4'000'000'000U;
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 4'000'000'000U);

    recorder.audio->SetValue(FakeRecorder::kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                             AudioValueRange{1e12, 1e12});
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 4'294'967'295U);

    recorder.audio->SetValue(FakeRecorder::kDevice, kAudioDevicePropertyBufferFrameSizeRange,
                             AudioValueRange{-5.0, -1.0});
    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 0U);
}

TEST_F(CoreAudioManagerTest, TheBufferSizeIsWhatTheDeviceReportsBack) {
    Select();
    recorder.audio->onSet = [](AudioObjectID, AudioObjectPropertySelector selector,
                               std::vector<std::byte>& bytes) {
        if (selector == kAudioDevicePropertyBufferFrameSize) {
            UInt32 rounded = 0;
            std::memcpy(&rounded, bytes.data(), sizeof(rounded));
            rounded = rounded / 64 * 64;
            std::memcpy(bytes.data(), &rounded, sizeof(rounded));
        }
        return kAudioHardwareNoError;
    };
    frames = 2205;

    EXPECT_EQ(manager.SetBufferSize(frames), VrSuccess);

    EXPECT_EQ(frames, 2176U);  // 34 x 64
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 2176U);
}

TEST_F(CoreAudioManagerTest, AnUnreadableBufferSizeRangeLeavesTheArgument) {
    Select();
    recorder.audio->FailGet(kAudioDevicePropertyBufferFrameSizeRange, kAudioHardwareBadDeviceError);
    frames = 7056;

    EXPECT_EQ(manager.SetBufferSize(frames), VrErrorDeviceNotFound);

    EXPECT_EQ(frames, 7056U);
}

TEST_F(CoreAudioManagerTest, ARefusedBufferSizeLeavesTheClampedArgumentAndTheOldSizeInForce) {
    Select();
    recorder.audio->FailSet(kAudioDevicePropertyBufferFrameSize, kAudioHardwareUnspecifiedError);
    frames = 7056;

    EXPECT_EQ(manager.SetBufferSize(frames), VrErrorFailed);

    EXPECT_EQ(frames, 4096U);
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 512U);
}

TEST_F(CoreAudioManagerTest, ABufferSizeThatCannotBeReadBackIsReported) {
    Select();
    recorder.audio->FailGet(kAudioDevicePropertyBufferFrameSize, kAudioHardwareBadDeviceError);
    frames = 1024;

    EXPECT_EQ(manager.SetBufferSize(frames), VrErrorDeviceNotFound);

    EXPECT_EQ(frames, 1024U);
    EXPECT_EQ(manager.GetBufferSize(frames), VrSuccess);
    EXPECT_EQ(frames, 512U);
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
