#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

#include "CoreAudioManagerRig.h"

namespace vorrel {
namespace {

using test::AnyRate;
using test::FakeRecorder;
using test::Ranged;

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

TEST_F(CoreAudioManagerTest, WithoutAnAvailableFormatNoRateIsPossibleInEitherMode) {
    SelectWith({});
    for (const std::int64_t mode : {0, 1}) {
        ASSERT_EQ(manager.SetSampleType(mode), VrSuccess);

        EXPECT_EQ(manager.CanSampleRate(2'822'400), VrErrorNotSupported) << mode;
        EXPECT_EQ(manager.SetSampleRate(176'400), VrErrorNotSupported) << mode;
    }
    EXPECT_EQ(recorder.PhysicalFormat().mSampleRate, 44'100.0);
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

}  // namespace
}  // namespace vorrel
