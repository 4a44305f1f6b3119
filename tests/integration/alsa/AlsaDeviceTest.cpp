#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "AlsaRig.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class AlsaDeviceTest : public AlsaCardTest {};

TEST_F(AlsaDeviceTest, ACardIsADeviceWithItsNameAndIds) {
    std::string text;
    const AudioDeviceID device = Device();

    EXPECT_EQ(audio->GetPropertyString(device, Address(kAudioObjectPropertyName), &text), 0);
    EXPECT_EQ(text, kSupportedDeviceName);
    EXPECT_EQ(audio->GetPropertyString(device, Address(kAudioDevicePropertyDeviceUID), &text), 0);
    EXPECT_EQ(text, card.Found().uid);
    EXPECT_EQ(audio->GetPropertyString(device, Address(kAudioDevicePropertyModelUID), &text), 0);
    EXPECT_EQ(text, "test");
    EXPECT_EQ(Value<UInt32>(device, kAudioDevicePropertyDeviceIsAlive), 1U);
    EXPECT_EQ(card.State().opens, 0U);  // for none of this
}

TEST_F(AlsaDeviceTest, FormatsAreWhatTheCardGrantsTheWidestFirst) {
    card.SetRates({44'100, 48'000});

    const std::vector<AudioStreamRangedDescription> formats = Formats();

    ASSERT_EQ(formats.size(), 6U);
    struct {
        double rateHz;
        UInt32 bits;
        UInt32 bytesPerFrame;
    } const expected[] = {{44'100, 32, 8}, {44'100, 24, 6}, {44'100, 16, 4},
                          {48'000, 32, 8}, {48'000, 24, 6}, {48'000, 16, 4}};
    for (std::size_t i = 0; i < formats.size(); ++i) {
        const AudioStreamBasicDescription& format = formats[i].mFormat;
        EXPECT_EQ(format.mSampleRate, expected[i].rateHz) << i;
        EXPECT_EQ(format.mBitsPerChannel, expected[i].bits) << i;
        EXPECT_EQ(format.mBytesPerFrame, expected[i].bytesPerFrame) << i;
        EXPECT_EQ(format.mBytesPerPacket, expected[i].bytesPerFrame) << i;
        EXPECT_EQ(format.mFramesPerPacket, 1U);
        EXPECT_EQ(format.mChannelsPerFrame, 2U);
        EXPECT_EQ(format.mFormatID, kAudioFormatLinearPCM);
        EXPECT_EQ(format.mFormatFlags, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked);
        EXPECT_EQ(formats[i].mSampleRateRange.mMinimum, expected[i].rateHz);
        EXPECT_EQ(formats[i].mSampleRateRange.mMaximum, expected[i].rateHz);
    }
}

TEST_F(AlsaDeviceTest, BitsAreTheDescriptorsAndNotTheContainers) {
    card.SetRates({48'000});
    card.SetFormats({kS32});
    SoundCard found = card.Found();
    found.formats = {{2, 24, 4, {48'000}, 0, 0}};
    cards->Set({found});

    const std::vector<AudioStreamRangedDescription> formats = Formats();

    ASSERT_EQ(formats.size(), 1U);
    EXPECT_EQ(formats[0].mFormat.mBitsPerChannel, 24U);
    EXPECT_EQ(formats[0].mFormat.mBytesPerFrame, 8U);
    EXPECT_EQ(formats[0].mFormat.mFormatFlags,
              kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsAlignedHigh);
}

TEST_F(AlsaDeviceTest, TwentyFourBitsInTheLowEndOfFourBytesAreNeitherPackedNorHigh) {
    card.SetRates({48'000});
    card.SetFormats({kS24In4});

    const std::vector<AudioStreamRangedDescription> formats = Formats();

    ASSERT_EQ(formats.size(), 1U);
    EXPECT_EQ(formats[0].mFormat.mFormatFlags, kAudioFormatFlagIsSignedInteger);
    EXPECT_EQ(formats[0].mFormat.mBitsPerChannel, 24U);
}

TEST_F(AlsaDeviceTest, FormatsOfACardInUseAreThoseThatItDescribesUntilItAnswers) {
    SoundCard found = card.Found();
    found.formats = {{2, 24, 3, {}, 44'100, 96'000}};
    cards->Set({found});
    TraceCapture trace;
    auto other = card.HeldByAnother();

    EXPECT_EQ(Formats().size(), 4U);  // 44.1, 48, 88.2 and 96 kHz
    EXPECT_EQ(Formats().size(), 4U);
    EXPECT_THAT(trace.Lines(), ElementsAre(HasSubstr("is in use by another process"),
                                           HasSubstr("its formats are those that it describes")));
    other.reset();

    EXPECT_EQ(Formats().size(), 27U);  // nine rates, three layouts
    EXPECT_EQ(card.State().opens, card.State().closes);
}

TEST_F(AlsaDeviceTest, OneLookAtACardServesForItsPlugging) {
    EXPECT_EQ(Formats().size(), 27U);
    const std::uint32_t opens = card.State().opens;
    const auto other = card.HeldByAnother();

    EXPECT_EQ(Formats().size(), 27U);

    EXPECT_EQ(card.State().opens, opens);
}

TEST_F(AlsaDeviceTest, StreamsAndChannelsAreOfTheInputSideOnly) {
    card.State().fewestChannels = 4;
    card.State().mostChannels = 4;
    const AudioDeviceID device = Device();
    UInt32 size = 0;
    const auto streams = [&](AudioObjectPropertyScope scope) {
        EXPECT_EQ(
            audio->GetPropertyDataSize(device, Address(kAudioDevicePropertyStreams, scope), &size),
            0);
        return size / sizeof(AudioStreamID);
    };
    EXPECT_EQ(streams(kAudioObjectPropertyScopeInput), 1U);
    EXPECT_EQ(streams(kAudioObjectPropertyScopeOutput), 0U);

    AudioBufferList list{};
    size = sizeof list;
    EXPECT_EQ(audio->GetPropertyData(
                  device,
                  Address(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput),
                  &size, &list),
              0);
    EXPECT_EQ(list.mNumberBuffers, 1U);
    EXPECT_EQ(list.mBuffers[0].mNumberChannels, 4U);
    size = sizeof list;
    EXPECT_EQ(audio->GetPropertyData(
                  device,
                  Address(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeOutput),
                  &size, &list),
              0);
    EXPECT_EQ(list.mNumberBuffers, 0U);
}

TEST_F(AlsaDeviceTest, ACardWithoutACaptureStreamHasNoStream) {
    SoundCard found = card.Found();
    found.captureDevice.reset();
    cards->Set({found});
    UInt32 size = 1;

    EXPECT_EQ(
        audio->GetPropertyDataSize(
            Device(), Address(kAudioDevicePropertyStreams, kAudioObjectPropertyScopeInput), &size),
        0);

    EXPECT_EQ(size, 0U);
    EXPECT_EQ(Hog(), kAudioHardwareUnsupportedOperationError);
}

TEST_F(AlsaDeviceTest, TheBufferSizeEndsAtTheCardsLimitOr4096) {
    const AudioDeviceID device = Device();
    AudioValueRange range =
        Value<AudioValueRange>(device, kAudioDevicePropertyBufferFrameSizeRange);
    EXPECT_EQ(range.mMinimum, 8);  // 64 bytes of 8 a frame
    EXPECT_EQ(range.mMaximum, 4'096);

    ASSERT_EQ(Hog(), 0);
    EXPECT_EQ(Set(device, kAudioDevicePropertyBufferFrameSize, UInt32{4'096}), 0);
    EXPECT_EQ(Set(device, kAudioDevicePropertyBufferFrameSize, UInt32{4'097}),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(Set(device, kAudioDevicePropertyBufferFrameSize, UInt32{7}),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(Value<UInt32>(device, kAudioDevicePropertyBufferFrameSize), 4'096U);
}

TEST_F(AlsaDeviceTest, ASmallerCardLimitsTheBufferSize) {
    card.SetFormats({kS16});
    card.State().mostPeriodBytes = 4'000;

    const auto range = Value<AudioValueRange>(Device(), kAudioDevicePropertyBufferFrameSizeRange);

    EXPECT_EQ(range.mMaximum, 1'000);
}

TEST_F(AlsaDeviceTest, ALimitBetweenTwoFramesIsTheLower) {
    card.SetFormats({kS16});
    card.State().mostPeriodBytes = 4'002;

    const auto range = Value<AudioValueRange>(Device(), kAudioDevicePropertyBufferFrameSizeRange);

    EXPECT_EQ(range.mMaximum, 1'000);
}

TEST_F(AlsaDeviceTest, HogModeHoldsTheCardAndLetsItGo) {
    const AudioDeviceID device = Device();
    EXPECT_EQ(Value<SInt32>(device, kAudioDevicePropertyHogMode), -1);

    EXPECT_EQ(Hog(), 0);
    EXPECT_EQ(Value<SInt32>(device, kAudioDevicePropertyHogMode), ::getpid());
    EXPECT_EQ(card.State().opens, card.State().closes + 1);
    EXPECT_EQ(Hog(), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(Unhog(device), 0);

    EXPECT_EQ(Value<SInt32>(device, kAudioDevicePropertyHogMode), -1);
    EXPECT_EQ(card.State().opens, card.State().closes);
    EXPECT_EQ(Unhog(device), 0);
    EXPECT_EQ(Set(device, kAudioDevicePropertyHogMode, SInt32{1}),
              kAudioHardwareIllegalOperationError);
}

TEST_F(AlsaDeviceTest, ACardInUseIsRefusedAndSaid) {
    TraceCapture trace;
    const auto other = card.HeldByAnother();

    EXPECT_EQ(Hog(), kAudioDevicePermissionsError);

    EXPECT_THAT(trace.Lines(), testing::Contains(HasSubstr("is in use by another process")));
    EXPECT_EQ(Value<SInt32>(Device(), kAudioDevicePropertyHogMode), -1);
}

TEST_F(AlsaDeviceTest, EachRefusalToOpenHasItsStatus) {
    struct {
        int error;
        OSStatus status;
    } const cases[] = {{EACCES, kAudioDevicePermissionsError},
                       {EPERM, kAudioDevicePermissionsError},
                       {EAGAIN, kAudioDevicePermissionsError},
                       {EIO, kAudioHardwareUnspecifiedError},
                       {ENODEV, kAudioHardwareBadDeviceError}};
    const AudioDeviceID device = Device();
    for (const auto& refusal : cases) {
        card.State().openError = refusal.error;
        EXPECT_EQ(Hog(), refusal.status) << refusal.error;
    }
    // The last one says that the card is gone.
    EXPECT_EQ(Value<UInt32>(device, kAudioDevicePropertyDeviceIsAlive), 0U);
}

TEST_F(AlsaDeviceTest, ACardThatStandsIsNotTakenForGoneWhateverAnOpenAnswers) {
    TempDirectory system;
    SoundCard found = card.Found();
    found.systemPath = system.Path();
    cards->Set({found});
    const AudioDeviceID device = Device();
    CountingListener alive;
    Listen(device, kAudioDevicePropertyDeviceIsAlive, alive);
    for (const int error : {ENOENT, ENXIO, ENODEV}) {
        card.State().openError = error;

        EXPECT_EQ(Hog(), kAudioHardwareUnspecifiedError) << error;

        EXPECT_EQ(Value<UInt32>(device, kAudioDevicePropertyDeviceIsAlive), 1U) << error;
    }
    card.State().openError = 0;
    EXPECT_EQ(Hog(), 0);
    const AudioStreamBasicDescription wanted = Format(48'000, 24);
    card.State().parametersError = ENOENT;  // an endpoint that is not there for a moment
    EXPECT_EQ(Set(Stream(), kAudioStreamPropertyPhysicalFormat, wanted),
              kAudioHardwareUnspecifiedError);
    card.State().parametersError = 0;
    EXPECT_EQ(Set(Stream(), kAudioStreamPropertyPhysicalFormat, wanted), 0);
    EXPECT_EQ(Device(), device);
    audio->FlushNotifications();
    EXPECT_EQ(alive.calls, 0);
}

TEST_F(AlsaDeviceTest, ARunBeginsWithTheFormatsThatTheCardGrantsThoughItWasBusyAtTheFirstLook) {
    SoundCard found = card.Found();
    found.formats = {{2, 24, 3, {48'000}, 0, 0}};  // which it does not grant
    cards->Set({found});
    card.SetFormats({kS32});
    auto other = card.HeldByAnother();
    ASSERT_EQ(Formats().size(), 1U);
    other.reset();
    const AudioDeviceID device = Device();
    Collector collector(1);
    AudioDeviceIOProcID id = nullptr;
    ASSERT_EQ(audio->CreateIOProcID(device, &Collector::Proc, &collector, &id), 0);

    ASSERT_EQ(audio->Start(device, id), 0);

    Await([&] { return collector.calls > 0; });
    EXPECT_EQ(Formats().size(), 9U);  // nine rates; asked before it ran
    EXPECT_EQ(card.State().format, kS32);
    EXPECT_EQ(Hog(), 0);  // while it runs
    EXPECT_EQ(card.State().opens, 1U);
    EXPECT_EQ(audio->Stop(device, id), 0);
}

TEST_F(AlsaDeviceTest, AStartThatTheCardRefusesIsSaid) {
    ASSERT_EQ(Hog(), 0);
    const AudioDeviceID device = Device();
    ASSERT_EQ(Set(Stream(), kAudioStreamPropertyPhysicalFormat, Format(48'000, 24)), 0);
    Collector collector(1);
    AudioDeviceIOProcID id = nullptr;
    ASSERT_EQ(audio->CreateIOProcID(device, &Collector::Proc, &collector, &id), 0);
    card.State().parametersError = EIO;
    TraceCapture trace;

    EXPECT_EQ(audio->Start(device, id), kAudioHardwareUnspecifiedError);

    EXPECT_THAT(trace.Lines(),
                ElementsAre(HasSubstr("48000 Hz in 3 bytes are refused: Input/outp")));
}

TEST_F(AlsaDeviceTest, AFormatIsSetInTheCardAtOnce) {
    ASSERT_EQ(Hog(), 0);
    const AudioStreamID stream = Stream();
    const AudioStreamBasicDescription wanted = Format(176'400, 16);
    CountingListener changes;
    Listen(stream, kAudioStreamPropertyPhysicalFormat, changes);

    EXPECT_EQ(Set(stream, kAudioStreamPropertyPhysicalFormat, wanted), 0);

    EXPECT_EQ(card.State().rateHz, 176'400U);
    EXPECT_EQ(card.State().format, kS16);
    EXPECT_EQ(card.State().periodFrames, 512U);
    // As large as a second, in whole periods.
    EXPECT_EQ(card.State().ringFrames, 176'128U);
    EXPECT_EQ(
        Value<AudioStreamBasicDescription>(stream, kAudioStreamPropertyPhysicalFormat).mSampleRate,
        176'400);
    audio->FlushNotifications();
    EXPECT_EQ(changes.calls, 1);
    // And given back: a recorder that is switched to its other mode is to be idle.
    EXPECT_EQ(card.State().frees, card.State().parameterCalls);
}

TEST_F(AlsaDeviceTest, FormerParametersAreFreedBeforeNewOnes) {
    ASSERT_EQ(Hog(), 0);
    const AudioStreamID stream = Stream();
    ASSERT_EQ(Set(stream, kAudioStreamPropertyPhysicalFormat, Format(48'000, 24)), 0);
    const std::uint32_t frees = card.State().frees;

    ASSERT_EQ(Set(stream, kAudioStreamPropertyPhysicalFormat, Format(96'000, 32)), 0);

    EXPECT_GT(card.State().frees, frees);
    EXPECT_EQ(card.State().rateHz, 96'000U);
}

TEST_F(AlsaDeviceTest, WhatTheCardDoesNotGrantIsNotSupported) {
    ASSERT_EQ(Hog(), 0);
    const AudioStreamID stream = Stream();
    const AudioStreamBasicDescription before = Format(44'100, 32);
    AudioStreamBasicDescription wanted = Format(48'000, 24);
    wanted.mSampleRate = 47'999;
    EXPECT_EQ(Set(stream, kAudioStreamPropertyPhysicalFormat, wanted),
              kAudioDeviceUnsupportedFormatError);
    wanted = Format(48'000, 24);
    wanted.mFormatFlags |= kAudioFormatFlagIsBigEndian;
    EXPECT_EQ(Set(stream, kAudioStreamPropertyPhysicalFormat, wanted),
              kAudioDeviceUnsupportedFormatError);

    card.State().parametersError = EINVAL;
    EXPECT_EQ(Set(stream, kAudioStreamPropertyPhysicalFormat, Format(48'000, 24)),
              kAudioDeviceUnsupportedFormatError);
    card.State().parametersError = EIO;
    EXPECT_EQ(Set(stream, kAudioStreamPropertyPhysicalFormat, Format(48'000, 24)),
              kAudioHardwareUnspecifiedError);

    EXPECT_EQ(
        Value<AudioStreamBasicDescription>(stream, kAudioStreamPropertyPhysicalFormat).mSampleRate,
        before.mSampleRate);
}

TEST_F(AlsaDeviceTest, ACardThatGoesWhileAFormatIsSetIsGone) {
    ASSERT_EQ(Hog(), 0);
    const AudioDeviceID device = Device();
    const AudioStreamID stream = Stream();
    const AudioStreamBasicDescription wanted = Format(48'000, 24);
    CountingListener alive;
    Listen(device, kAudioDevicePropertyDeviceIsAlive, alive);
    card.State().disconnected = 1;

    EXPECT_NE(Set(stream, kAudioStreamPropertyPhysicalFormat, wanted), 0);

    audio->FlushNotifications();
    EXPECT_EQ(alive.calls, 1);
    EXPECT_EQ(Value<UInt32>(device, kAudioDevicePropertyDeviceIsAlive), 0U);
    SInt32 owner = 0;
    EXPECT_EQ(Get(device, kAudioDevicePropertyHogMode, owner), kAudioHardwareBadDeviceError);
    AudioStreamBasicDescription format{};
    EXPECT_EQ(Get(stream, kAudioStreamPropertyPhysicalFormat, format),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(Unhog(device), kAudioHardwareBadDeviceError);
    EXPECT_EQ(card.State().opens, card.State().closes);
}

TEST_F(AlsaDeviceTest, IdsLastForAPluggingAndAreNewForTheNext) {
    const AudioDeviceID first = Device();
    EXPECT_EQ(Device(), first);
    CountingListener listChanges;
    Listen(kAudioObjectSystemObject, kAudioHardwarePropertyDevices, listChanges);

    cards->Set({});
    audio->LookAgain();
    audio->FlushNotifications();
    EXPECT_EQ(listChanges.calls, 1);
    EXPECT_TRUE(Devices().empty());

    card.PlugIn();
    cards->Set({card.Found()});
    const AudioDeviceID second = Device();
    audio->FlushNotifications();
    EXPECT_EQ(listChanges.calls, 2);
    EXPECT_NE(second, first);
    UInt32 alive = 0;
    EXPECT_EQ(Get(first, kAudioDevicePropertyDeviceIsAlive, alive), kAudioHardwareBadObjectError);
}

TEST_F(AlsaDeviceTest, OtherPropertiesSizesAndObjectsAreRefusedAsTheyAre) {
    const AudioDeviceID device = Device();
    UInt32 size = 0;
    UInt32 number = 0;
    std::string text;
    EXPECT_EQ(audio->GetPropertyDataSize(999, Address(kAudioDevicePropertyHogMode), &size),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(audio->GetPropertyDataSize(device, Address(0x61626364), &size),
              kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(audio->GetPropertyDataSize(kAudioObjectSystemObject,
                                         Address(kAudioDevicePropertyHogMode), &size),
              kAudioHardwareUnknownPropertyError);
    size = 2;
    EXPECT_EQ(audio->GetPropertyData(device, Address(kAudioDevicePropertyHogMode), &size, &number),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(audio->GetPropertyString(device, Address(kAudioDevicePropertyHogMode), &text),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(audio->SetPropertyData(device, Address(kAudioDevicePropertyHogMode), 2, &number),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(Set(device, kAudioDevicePropertyDeviceIsAlive, UInt32{1}),
              kAudioHardwareUnsupportedOperationError);
    EXPECT_EQ(Set(device, kAudioObjectPropertyName, UInt32{1}),
              kAudioHardwareUnsupportedOperationError);
    EXPECT_EQ(Set(kAudioObjectSystemObject, kAudioHardwarePropertyDevices, UInt32{1}),
              kAudioHardwareUnsupportedOperationError);
    EXPECT_EQ(audio->AddPropertyListener(999, Address(kAudioDevicePropertyDeviceIsAlive),
                                         &CountingListener::Proc, nullptr),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(audio->RemovePropertyListener(device, Address(kAudioDevicePropertyDeviceIsAlive),
                                            &CountingListener::Proc, nullptr),
              kAudioHardwareIllegalOperationError);
}

}  // namespace
}  // namespace vorrel::test
