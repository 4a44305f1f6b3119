#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "device/simulated/SimulatedFixture.h"

namespace vorrel {
namespace {

using test::Global;

class RecorderModeTest : public test::SimulatedTest {
protected:
    std::unique_ptr<UsbInterface> usb = OpenUsb();
};

TEST_F(RecorderModeTest, TheInterfaceKnowsItsNumber) {
    std::uint8_t number = 0;
    ASSERT_NE(usb, nullptr);

    EXPECT_EQ(usb->GetInterfaceNumber(&number), kIOReturnSuccess);
    EXPECT_EQ(number, 1);
}

TEST_F(RecorderModeTest, TheVendorRequestSwitchesTheModeThereAndBack) {
    EXPECT_FALSE(recorder.IsDsdMode());

    EXPECT_EQ(usb->ControlRequest(SwitchMode(true)), kIOReturnSuccess);
    EXPECT_TRUE(recorder.IsDsdMode());
    EXPECT_EQ(usb->ControlRequest(SwitchMode(false)), kIOReturnSuccess);
    EXPECT_FALSE(recorder.IsDsdMode());
    EXPECT_EQ(recorder.ControlRequests().size(), 2U);
}

TEST_F(RecorderModeTest, AnyOtherRequestStalls) {
    const UsbControlRequest others[] = {
        {0x40, 0, 1, 1, 0, nullptr}, {0xC1, 0, 1, 1, 0, nullptr}, {0x41, 1, 1, 1, 0, nullptr},
        {0x41, 0, 2, 1, 0, nullptr}, {0x41, 0, 1, 0, 0, nullptr}, {0x41, 0, 1, 2, 0, nullptr},
        {0x41, 0, 1, 1, 1, nullptr},
    };
    for (const UsbControlRequest& request : others) {
        EXPECT_EQ(usb->ControlRequest(request), kIOUSBPipeStalled);
    }
    EXPECT_FALSE(recorder.IsDsdMode());
}

TEST_F(RecorderModeTest, PcmModeTakesEveryOfferedFormatButTheOneAt705600Hz) {
    for (const AudioStreamRangedDescription& ranged : Formats()) {
        const bool accepted = ranged.mFormat.mSampleRate != 705'600.0;
        EXPECT_EQ(Set(Stream(), Global(kAudioStreamPropertyPhysicalFormat), ranged.mFormat),
                  accepted ? 0 : kAudioDeviceUnsupportedFormatError);
    }
}

TEST_F(RecorderModeTest, DsdModeTakesOnlySixteenBitsAtTheThreeWordRates) {
    ASSERT_EQ(usb->ControlRequest(SwitchMode(true)), kIOReturnSuccess);
    int accepted = 0;
    for (const AudioStreamRangedDescription& ranged : Formats()) {
        const AudioStreamBasicDescription& format = ranged.mFormat;
        const bool isWord = format.mBitsPerChannel == 16 &&
                            (format.mSampleRate == 176'400.0 || format.mSampleRate == 352'800.0 ||
                             format.mSampleRate == 705'600.0);
        EXPECT_EQ(Set(Stream(), Global(kAudioStreamPropertyPhysicalFormat), format),
                  isWord ? 0 : kAudioDeviceUnsupportedFormatError);
        accepted += isWord ? 1 : 0;
    }
    EXPECT_EQ(accepted, 3);
}

TEST_F(RecorderModeTest, AFormatThatIsNotInTheListIsRefusedAndTheOldOneStays) {
    ASSERT_EQ(SetFormat(96'000, 24), 0);
    AudioStreamBasicDescription format = Format(96'000, 32);
    for (const auto change : {0, 1, 2, 3}) {
        AudioStreamBasicDescription other = format;
        other.mSampleRate = change == 0 ? 64'000 : other.mSampleRate;
        other.mChannelsPerFrame = change == 1 ? 4 : other.mChannelsPerFrame;
        other.mFormatFlags = change == 2 ? kAudioFormatFlagIsFloat : other.mFormatFlags;
        other.mBitsPerChannel = change == 3 ? 20 : other.mBitsPerChannel;
        EXPECT_EQ(Set(Stream(), Global(kAudioStreamPropertyPhysicalFormat), other),
                  kAudioDeviceUnsupportedFormatError);
    }
    EXPECT_EQ(recorder.Format().mBitsPerChannel, 24U);
}

TEST_F(RecorderModeTest, ASwitchKeepsTheFormatButItStartsOnlyInItsOwnMode) {
    test::Collector collector;
    const AudioDeviceIOProcID proc = CreateProc(collector);
    ASSERT_EQ(SetFormat(96'000, 32), 0);

    ASSERT_EQ(usb->ControlRequest(SwitchMode(true)), kIOReturnSuccess);
    EXPECT_EQ(recorder.Format().mSampleRate, 96'000.0);
    EXPECT_EQ(audio.Start(Device(), proc), kAudioDeviceUnsupportedFormatError);

    ASSERT_EQ(usb->ControlRequest(SwitchMode(false)), kIOReturnSuccess);
    EXPECT_EQ(audio.Start(Device(), proc), 0);
}

TEST_F(RecorderModeTest, WhileItRunsModeFormatAndBufferSizeStay) {
    test::Collector collector;
    const AudioDeviceIOProcID proc = StartProc(collector);

    EXPECT_EQ(usb->ControlRequest(SwitchMode(true)), kIOUSBPipeStalled);
    EXPECT_EQ(SetFormat(96'000, 32), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(Set(Device(), Global(kAudioDevicePropertyBufferFrameSize), UInt32{100}),
              kAudioHardwareIllegalOperationError);

    ASSERT_EQ(audio.Stop(Device(), proc), 0);
    EXPECT_EQ(SetFormat(96'000, 32), 0);
}

TEST_F(RecorderModeTest, RequestsAndTheInterfaceNumberCanBeMadeToFail) {
    recorder.FailControlRequest(kIOUSBPipeStalled, 1, 1);
    recorder.FailInterfaceNumber(kIOReturnError);
    std::uint8_t number = 0;

    EXPECT_EQ(usb->GetInterfaceNumber(&number), kIOReturnError);
    EXPECT_EQ(usb->GetInterfaceNumber(&number), kIOReturnSuccess);
    EXPECT_EQ(usb->ControlRequest(SwitchMode(true)), kIOReturnSuccess);
    EXPECT_EQ(usb->ControlRequest(SwitchMode(false)), kIOUSBPipeStalled);
    EXPECT_TRUE(recorder.IsDsdMode());
    EXPECT_EQ(usb->ControlRequest(SwitchMode(false)), kIOReturnSuccess);
}

TEST_F(RecorderModeTest, AFormatCanBeRefusedByItsLooks) {
    recorder.RefuseFormats(
        [](const AudioStreamBasicDescription& format) { return format.mBitsPerChannel == 32; },
        kAudioHardwareUnspecifiedError);

    EXPECT_EQ(SetFormat(96'000, 32), kAudioHardwareUnspecifiedError);
    EXPECT_EQ(SetFormat(96'000, 24), 0);
    recorder.RefuseFormats(nullptr);
    EXPECT_EQ(SetFormat(96'000, 32), 0);
}

TEST_F(RecorderModeTest, WhoIsAskedAboutAFormatMayPullThePlug) {
    const AudioObjectID stream = Stream();
    const AudioStreamBasicDescription format = Format(96'000, 24);
    for (const bool refuses : {true, false}) {
        recorder.Plug();
        recorder.RefuseFormats([this, refuses](const AudioStreamBasicDescription&) {
            recorder.Unplug();
            return refuses;
        });

        EXPECT_EQ(Set(Stream(), Global(kAudioStreamPropertyPhysicalFormat), format),
                  refuses ? kAudioDeviceUnsupportedFormatError : kAudioHardwareBadObjectError);

        EXPECT_FALSE(recorder.IsPlugged());
    }
    EXPECT_NE(Stream(), stream);
}

TEST_F(RecorderModeTest, NobodyIsAskedAboutAFormatThatCannotBeSetAnyway) {
    int asked = 0;
    recorder.RefuseFormats([&asked](const AudioStreamBasicDescription&) {
        ++asked;
        return false;
    });
    const AudioStreamBasicDescription format = Format(96'000, 24);
    recorder.SetHogOwner(1);

    EXPECT_EQ(Set(Stream(), Global(kAudioStreamPropertyPhysicalFormat), format),
              kAudioDevicePermissionsError);
    EXPECT_EQ(Set(Device(), Global(kAudioStreamPropertyPhysicalFormat), format),
              kAudioHardwareUnknownPropertyError);

    EXPECT_EQ(asked, 0);
    recorder.SetHogOwner(-1);
    EXPECT_EQ(Set(Stream(), Global(kAudioStreamPropertyPhysicalFormat), format), 0);
    EXPECT_EQ(asked, 1);
}

TEST_F(RecorderModeTest, AnAnyRateFormatTakesTheRatesOfItsRange) {
    AudioStreamRangedDescription any{};
    any.mFormat = Format(96'000, 24);
    any.mFormat.mSampleRate = 0.0;
    any.mSampleRateRange = {44'100.0, 192'000.0};
    recorder.SetFormats({any});
    const auto set = [&](double rateHz) {
        AudioStreamBasicDescription wanted = any.mFormat;
        wanted.mSampleRate = rateHz;
        return Set(Stream(), Global(kAudioStreamPropertyPhysicalFormat), wanted);
    };

    EXPECT_EQ(set(44'100.0), 0);
    EXPECT_EQ(set(192'000.0), 0);
    EXPECT_EQ(set(192'001.0), kAudioDeviceUnsupportedFormatError);
}

class PcmOnlyTest : public test::SimulatedTest {
protected:
    PcmOnlyTest() : SimulatedTest(PcmOnly()) {}
    static SimulatedRecorderConfig PcmOnly() {
        SimulatedRecorderConfig config = Manual();
        config.dsd = false;
        config.pcmBits = {24};
        return config;
    }
};

TEST_F(PcmOnlyTest, WithoutDsdTheSwitchStallsAndNoWordFormatIsOffered) {
    const std::unique_ptr<UsbInterface> usb = OpenUsb();

    EXPECT_EQ(usb->ControlRequest(SwitchMode(true)), kIOUSBPipeStalled);
    EXPECT_EQ(usb->ControlRequest(SwitchMode(false)), kIOReturnSuccess);
    EXPECT_EQ(Formats().size(), 8U * 2);
    for (const AudioStreamRangedDescription& ranged : Formats()) {
        EXPECT_EQ(ranged.mFormat.mBitsPerChannel, 24U);
    }
}

class NarrowPcmTest : public test::SimulatedTest {
protected:
    NarrowPcmTest() : SimulatedTest(Narrow()) {}
    static SimulatedRecorderConfig Narrow() {
        SimulatedRecorderConfig config = Manual();
        config.pcmBits = {32};
        return config;
    }
};

TEST_F(NarrowPcmTest, WordFormatsThatPcmDoesNotHaveAreForTheDsdModeAlone) {
    const std::unique_ptr<UsbInterface> usb = OpenUsb();
    ASSERT_EQ(Formats().size(), 8U + 3);

    EXPECT_EQ(SetFormat(176'400, 16), kAudioDeviceUnsupportedFormatError);
    ASSERT_EQ(usb->ControlRequest(SwitchMode(true)), kIOReturnSuccess);
    EXPECT_EQ(SetFormat(176'400, 16), 0);
}

}  // namespace
}  // namespace vorrel
