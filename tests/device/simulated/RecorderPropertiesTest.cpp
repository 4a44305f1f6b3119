#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "device/simulated/SimulatedFixture.h"

namespace vorrel {
namespace {

using test::Global;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto kScopeInput = kAudioObjectPropertyScopeInput;
constexpr auto kScopeOutput = kAudioObjectPropertyScopeOutput;
constexpr auto kHogMode = Global(kAudioDevicePropertyHogMode);
constexpr auto kBufferFrames = Global(kAudioDevicePropertyBufferFrameSize);

class RecorderPropertiesTest : public test::SimulatedTest {
protected:
    std::string Text(AudioObjectPropertySelector selector) {
        std::string text;
        EXPECT_EQ(audio.GetPropertyString(Device(), Global(selector), &text), 0);
        return text;
    }
    std::int32_t HogOwner() {
        std::int32_t owner = 0;
        EXPECT_EQ(Get(Device(), kHogMode, owner), 0);
        return owner;
    }
    UInt32 BufferFrames() {
        UInt32 frames = 0;
        EXPECT_EQ(Get(Device(), kBufferFrames, frames), 0);
        return frames;
    }
};

TEST_F(RecorderPropertiesTest, TheSystemListsTheRecorder) {
    EXPECT_THAT(
        GetArray<AudioDeviceID>(kAudioObjectSystemObject, Global(kAudioHardwarePropertyDevices)),
        ElementsAre(Device()));
}

TEST_F(RecorderPropertiesTest, HasTheModelsNameAndIdsAndIsAlive) {
    EXPECT_EQ(Text(kAudioObjectPropertyName), "KD-WV770");
    EXPECT_FALSE(Text(kAudioDevicePropertyDeviceUID).empty());
    EXPECT_FALSE(Text(kAudioDevicePropertyModelUID).empty());
    UInt32 alive = 0;
    EXPECT_EQ(Get(Device(), Global(kAudioDevicePropertyDeviceIsAlive), alive), 0);
    EXPECT_EQ(alive, 1U);
    SimulatedRegistry& registry = backends.Registry();
    io_iterator_t iterator = IO_OBJECT_NULL;
    ASSERT_EQ(registry.GetMatchingServices("IOAudioEngine", &iterator), 0);
    const io_object_t engine = registry.IteratorNext(iterator);
    const auto id = [&](const char* key) {
        return std::get<std::int64_t>(registry.SearchProperty(engine, "IOService", key));
    };
    EXPECT_EQ(id("idVendor"), kSupportedVendorId);
    EXPECT_EQ(id("idProduct"), kSupportedProductId);
    EXPECT_EQ(std::get<std::string>(
                  registry.SearchProperty(engine, "IOService", "IOAudioEngineGlobalUniqueID")),
              Text(kAudioDevicePropertyDeviceUID));
    registry.Release(engine);
    registry.Release(iterator);
}

TEST_F(RecorderPropertiesTest, HasOneInputStreamAndNoOutput) {
    const auto streams = [this](AudioObjectPropertyScope scope) {
        return GetArray<AudioStreamID>(Device(), {kAudioDevicePropertyStreams, scope, 0});
    };

    EXPECT_THAT(streams(kScopeInput), ElementsAre(Stream()));
    EXPECT_THAT(streams(kAudioObjectPropertyScopeGlobal), ElementsAre(Stream()));
    EXPECT_THAT(streams(kScopeOutput), IsEmpty());
}

TEST_F(RecorderPropertiesTest, TheStreamConfigurationCountsTheChannelsOfTheInput) {
    AudioBufferList list{};
    ASSERT_EQ(Get(Device(), {kAudioDevicePropertyStreamConfiguration, kScopeInput, 0}, list), 0);
    EXPECT_EQ(list.mNumberBuffers, 1U);
    EXPECT_EQ(list.mBuffers[0].mNumberChannels, 2U);

    ASSERT_EQ(Get(Device(), {kAudioDevicePropertyStreamConfiguration, kScopeOutput, 0}, list), 0);
    EXPECT_EQ(list.mNumberBuffers, 0U);
}

TEST_F(RecorderPropertiesTest, WithoutItsStreamThereIsNoInput) {
    recorder.SetHasStream(false);

    EXPECT_THAT(GetArray<AudioStreamID>(Device(), {kAudioDevicePropertyStreams, kScopeInput, 0}),
                IsEmpty());
    AudioStreamBasicDescription format{};
    EXPECT_EQ(Get(Stream(), Global(kAudioStreamPropertyPhysicalFormat), format),
              kAudioHardwareBadObjectError);
}

TEST_F(RecorderPropertiesTest,
       OffersSixteenTwentyFourAndThirtyTwoBitsAtEightRatesAndTheWordFormat) {
    const std::vector<AudioStreamRangedDescription> formats = Formats();

    // At each rate 32 bits, 24 bits in 4 bytes and in 3, 16 bits; and 16 bits at 705600 Hz.
    ASSERT_EQ(formats.size(), 8U * 4 + 1);
    const double rates[] = {44'100, 48'000, 88'200, 96'000, 176'400, 192'000, 352'800, 384'000};
    const std::pair<UInt32, UInt32> widths[] = {{32, 8}, {24, 8}, {24, 6}, {16, 4}};
    for (std::size_t i = 0; i < 32; ++i) {
        const AudioStreamBasicDescription& format = formats[i].mFormat;
        EXPECT_EQ(format.mSampleRate, rates[i / 4]);
        EXPECT_EQ(format.mBitsPerChannel, widths[i % 4].first);
        EXPECT_EQ(format.mBytesPerFrame, widths[i % 4].second);
        EXPECT_EQ(formats[i].mSampleRateRange.mMinimum, format.mSampleRate);
        EXPECT_EQ(formats[i].mSampleRateRange.mMaximum, format.mSampleRate);
    }
    EXPECT_EQ(formats[32].mFormat.mSampleRate, 705'600.0);
    EXPECT_EQ(formats[32].mFormat.mBitsPerChannel, 16U);
    for (const AudioStreamRangedDescription& ranged : formats) {
        EXPECT_EQ(ranged.mFormat.mFormatID, kAudioFormatLinearPCM);
        EXPECT_NE(ranged.mFormat.mFormatFlags & kAudioFormatFlagIsSignedInteger, 0U);
        EXPECT_EQ(
            ranged.mFormat.mFormatFlags & (kAudioFormatFlagIsFloat | kAudioFormatFlagIsNonMixable),
            0U);
        EXPECT_EQ(ranged.mFormat.mChannelsPerFrame, 2U);
        EXPECT_EQ(ranged.mFormat.mFramesPerPacket, 1U);
        EXPECT_EQ(ranged.mFormat.mBytesPerPacket, ranged.mFormat.mBytesPerFrame);
    }
}

TEST_F(RecorderPropertiesTest, HogModeGoesToTheFirstAndToNobodyElseUntilItIsGivenBack) {
    const std::int32_t self = ::getpid();
    EXPECT_EQ(HogOwner(), -1);

    EXPECT_EQ(Set(Device(), kHogMode, self), 0);
    EXPECT_EQ(HogOwner(), self);
    EXPECT_EQ(Set(Device(), kHogMode, self), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(HogOwner(), self);

    EXPECT_EQ(Set(Device(), kHogMode, std::int32_t{-1}), 0);
    EXPECT_EQ(HogOwner(), -1);
    EXPECT_EQ(Set(Device(), kHogMode, self), 0);
}

TEST_F(RecorderPropertiesTest, AnotherProcessesHogModeKeepsEverythingFromThisOne) {
    recorder.SetHogOwner(::getppid());
    test::Collector collector;
    const AudioDeviceIOProcID proc = CreateProc(collector);

    EXPECT_EQ(Set(Device(), kHogMode, std::int32_t{::getpid()}),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(Set(Device(), kHogMode, std::int32_t{-1}), kAudioDevicePermissionsError);
    EXPECT_EQ(SetFormat(96'000, 24), kAudioDevicePermissionsError);
    EXPECT_EQ(Set(Device(), kBufferFrames, UInt32{100}), kAudioDevicePermissionsError);
    EXPECT_EQ(audio.Start(Device(), proc), kAudioDevicePermissionsError);
    EXPECT_EQ(HogOwner(), ::getppid());
}

TEST_F(RecorderPropertiesTest, HogModeIsNotTakenForAnotherProcess) {
    EXPECT_EQ(Set(Device(), kHogMode, std::int32_t{::getppid()}),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(HogOwner(), -1);
}

TEST_F(RecorderPropertiesTest, TheBufferSizeLiesBetween14And32768Frames) {
    AudioValueRange range{};
    ASSERT_EQ(Get(Device(), Global(kAudioDevicePropertyBufferFrameSizeRange), range), 0);
    EXPECT_EQ(range.mMinimum, 14.0);
    EXPECT_EQ(range.mMaximum, 32'768.0);
    EXPECT_EQ(BufferFrames(), 512U);

    for (const UInt32 frames : {14U, 4'410U, 32'768U}) {
        EXPECT_EQ(Set(Device(), kBufferFrames, frames), 0);
        EXPECT_EQ(BufferFrames(), frames);
    }
    for (const UInt32 frames : {0U, 13U, 32'769U}) {
        EXPECT_EQ(Set(Device(), kBufferFrames, frames), kAudioHardwareIllegalOperationError);
        EXPECT_EQ(BufferFrames(), 32'768U);
    }
}

TEST_F(RecorderPropertiesTest, WrongSizesAreRefused) {
    UInt32 size = 3;
    UInt32 frames = 0;
    EXPECT_EQ(audio.GetPropertyData(Device(), kBufferFrames, &size, &frames),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(Set(Device(), kBufferFrames, std::uint16_t{100}), kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(Set(Device(), kBufferFrames, std::uint64_t{100}), kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(audio.SetPropertyData(Device(), kBufferFrames, 4, nullptr),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(BufferFrames(), 512U);
}

TEST_F(RecorderPropertiesTest, ARoomyReaderIsToldHowMuchWasWritten) {
    std::uint64_t value = 0;
    UInt32 size = sizeof value;
    ASSERT_EQ(audio.GetPropertyData(Device(), kBufferFrames, &size, &value), 0);
    EXPECT_EQ(size, 4U);
}

TEST_F(RecorderPropertiesTest, OfAnArrayAReaderGetsTheWholeElementsThatFit) {
    std::vector<AudioStreamRangedDescription> formats(3);
    UInt32 size = sizeof(AudioStreamRangedDescription) * 2 + 5;

    ASSERT_EQ(audio.GetPropertyData(Stream(), Global(kAudioStreamPropertyAvailablePhysicalFormats),
                                    &size, formats.data()),
              0);

    EXPECT_EQ(size, sizeof(AudioStreamRangedDescription) * 2);
    EXPECT_EQ(formats[1].mFormat.mBitsPerChannel, 24U);
    EXPECT_EQ(formats[2].mFormat.mBitsPerChannel, 0U);
}

TEST_F(RecorderPropertiesTest, UnknownPropertiesScopesAndElementsAreNotThere) {
    UInt32 value = 0;
    const AudioObjectPropertySelector unknown = detail::FourCharCode("abcd");
    EXPECT_EQ(Get(Device(), Global(unknown), value), kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(Get(Stream(), Global(unknown), value), kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(Get(kAudioObjectSystemObject, Global(unknown), value),
              kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(Set(Device(), Global(unknown), value), kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(Get(Device(), Global(kAudioStreamPropertyPhysicalFormat), value),
              kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(Get(Stream(), kBufferFrames, value), kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(Get(Device(), Global(kAudioDeviceProcessorOverload), value),
              kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(Get(Device(), {kAudioDevicePropertyBufferFrameSize, unknown, 0}, value),
              kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(Get(Device(), {kAudioDevicePropertyBufferFrameSize, kScopeInput, 1}, value),
              kAudioHardwareUnknownPropertyError);
}

TEST_F(RecorderPropertiesTest, UnknownObjectsAreRefusedByEveryCall) {
    constexpr AudioObjectID kNobody = 4'711;
    UInt32 value = 0;
    UInt32 size = 4;
    std::string text;
    AudioDeviceIOProcID id = nullptr;
    test::CountingListener listener;
    const auto proc = &test::CountingListener::Proc;
    EXPECT_EQ(audio.GetPropertyDataSize(kNobody, kBufferFrames, &size),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(Get(kNobody, kBufferFrames, value), kAudioHardwareBadObjectError);
    EXPECT_EQ(Set(kNobody, kBufferFrames, value), kAudioHardwareBadObjectError);
    EXPECT_EQ(audio.GetPropertyString(kNobody, Global(kAudioObjectPropertyName), &text),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(audio.AddPropertyListener(kNobody, kBufferFrames, proc, &listener),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(audio.RemovePropertyListener(kNobody, kBufferFrames, proc, &listener),
              kAudioHardwareBadObjectError);
    for (const AudioObjectID object : {kNobody, Stream()}) {
        EXPECT_EQ(audio.CreateIOProcID(object, &test::Collector::Proc, nullptr, &id),
                  kAudioHardwareBadObjectError);
        EXPECT_EQ(audio.DestroyIOProcID(object, id), kAudioHardwareBadObjectError);
        EXPECT_EQ(audio.Start(object, id), kAudioHardwareBadObjectError);
        EXPECT_EQ(audio.Stop(object, id), kAudioHardwareBadObjectError);
    }
}

TEST_F(RecorderPropertiesTest, TextsAndOtherValuesAreNotTakenForEachOther) {
    std::string text;
    UInt32 value = 0;
    EXPECT_EQ(audio.GetPropertyString(Device(), kBufferFrames, &text),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(Get(Device(), Global(kAudioObjectPropertyName), value),
              kAudioHardwareUnknownPropertyError);
}

TEST_F(RecorderPropertiesTest, WhatTheDeviceDecidesCannotBeSet) {
    const UInt32 value = 1;
    EXPECT_EQ(Set(Device(), Global(kAudioDevicePropertyDeviceIsAlive), value),
              kAudioHardwareUnsupportedOperationError);
    EXPECT_EQ(Set(Device(), Global(kAudioObjectPropertyName), value),
              kAudioHardwareUnsupportedOperationError);
    EXPECT_EQ(Set(kAudioObjectSystemObject, Global(kAudioHardwarePropertyDevices), value),
              kAudioHardwareUnsupportedOperationError);
}

TEST_F(RecorderPropertiesTest, AChangeIsToldToItsListenersAndNoChangeIsNot) {
    test::CountingListener listener;
    ASSERT_EQ(audio.AddPropertyListener(Device(), kBufferFrames, &test::CountingListener::Proc,
                                        &listener),
              0);

    Set(Device(), kBufferFrames, UInt32{512});
    backends.FlushNotifications();
    EXPECT_EQ(listener.calls, 0);

    Set(Device(), kBufferFrames, UInt32{1'024});
    backends.FlushNotifications();
    EXPECT_EQ(listener.calls, 1);
}

TEST_F(RecorderPropertiesTest, AnOverloadIsToldToItsListeners) {
    test::CountingListener listener;
    ASSERT_EQ(audio.AddPropertyListener(Device(), Global(kAudioDeviceProcessorOverload),
                                        &test::CountingListener::Proc, &listener),
              0);

    recorder.RaiseOverload();
    backends.FlushNotifications();

    EXPECT_EQ(listener.calls, 1);
    EXPECT_EQ(listener.object, Device());
}

TEST_F(RecorderPropertiesTest, ListenersCanBeRefusedOneByOne) {
    test::CountingListener listener;
    backends.FailAddListener(kAudioHardwareUnspecifiedError, 1);
    const auto add = [&](const AudioObjectPropertyAddress& address) {
        return audio.AddPropertyListener(Device(), address, &test::CountingListener::Proc,
                                         &listener);
    };

    EXPECT_EQ(add(kHogMode), 0);
    EXPECT_EQ(add(kBufferFrames), kAudioHardwareUnspecifiedError);
    EXPECT_EQ(backends.ListenerCount(), 1U);
}

TEST_F(RecorderPropertiesTest, RemovingAListenerThatIsNotThereIsRefused) {
    test::CountingListener listener;
    EXPECT_EQ(
        audio.RemovePropertyListener(Device(), kHogMode, &test::CountingListener::Proc, &listener),
        kAudioHardwareIllegalOperationError);
}

TEST_F(RecorderPropertiesTest, AFaultHitsTheCallsItIsSetForAndNoOthers) {
    recorder.Faults().Add({kAudioDevicePropertyBufferFrameSize, PropertyOperation::Read,
                           kAudioHardwareUnspecifiedError, 1, 2});
    recorder.Faults().Add({kAudioDevicePropertyBufferFrameSize, PropertyOperation::Write,
                           kAudioHardwareBadDeviceError});
    UInt32 frames = 0;
    UInt32 size = 0;

    EXPECT_EQ(Get(Device(), kBufferFrames, frames), 0);
    EXPECT_EQ(Get(Device(), kBufferFrames, frames), kAudioHardwareUnspecifiedError);
    EXPECT_EQ(audio.GetPropertyDataSize(Device(), kBufferFrames, &size), 0);
    EXPECT_EQ(Get(Device(), kBufferFrames, frames), kAudioHardwareUnspecifiedError);
    EXPECT_EQ(Get(Device(), kBufferFrames, frames), 0);
    EXPECT_EQ(Set(Device(), kBufferFrames, frames), kAudioHardwareBadDeviceError);
    EXPECT_EQ(HogOwner(), -1);

    recorder.Faults().Clear();
    EXPECT_EQ(Set(Device(), kBufferFrames, frames), 0);
}

TEST_F(RecorderPropertiesTest, FaultsReachTextsStreamsAndTheDeviceListToo) {
    recorder.Faults().Add({kAudioObjectPropertyName});
    recorder.Faults().Add({kAudioStreamPropertyPhysicalFormat});
    backends.SystemFaults().Add({kAudioHardwarePropertyDevices, PropertyOperation::Size});
    std::string text;
    AudioStreamBasicDescription format{};
    UInt32 size = 0;

    EXPECT_EQ(audio.GetPropertyString(Device(), Global(kAudioObjectPropertyName), &text),
              kAudioHardwareUnspecifiedError);
    EXPECT_EQ(Get(Stream(), Global(kAudioStreamPropertyPhysicalFormat), format),
              kAudioHardwareUnspecifiedError);
    EXPECT_EQ(audio.GetPropertyDataSize(kAudioObjectSystemObject,
                                        Global(kAudioHardwarePropertyDevices), &size),
              kAudioHardwareUnspecifiedError);
}

TEST_F(RecorderPropertiesTest, AValueCanHaveAWrongSize) {
    recorder.Faults().SetSize(kAudioDevicePropertyDeviceIsAlive, 2);
    UInt32 size = 0;
    UInt32 alive = 0;

    EXPECT_EQ(audio.GetPropertyDataSize(Device(), Global(kAudioDevicePropertyDeviceIsAlive), &size),
              0);
    EXPECT_EQ(size, 2U);
    size = 4;
    EXPECT_EQ(
        audio.GetPropertyData(Device(), Global(kAudioDevicePropertyDeviceIsAlive), &size, &alive),
        0);
    EXPECT_EQ(size, 2U);
}

TEST_F(RecorderPropertiesTest, ATextCanHaveAWrongSize) {
    recorder.Faults().SetSize(kAudioObjectPropertyName, 2);
    std::string text = "as before";

    EXPECT_EQ(audio.GetPropertyString(Device(), Global(kAudioObjectPropertyName), &text),
              kAudioHardwareBadPropertySizeError);

    EXPECT_EQ(text, "as before");
    EXPECT_FALSE(Text(kAudioDevicePropertyDeviceUID).empty());
    recorder.Faults().Clear();
    EXPECT_EQ(Text(kAudioObjectPropertyName), "KD-WV770");
}

TEST_F(RecorderPropertiesTest, ANumberCanStandWhereATextIsAsked) {
    recorder.Faults().SetNumber(kAudioObjectPropertyName, 42);
    std::string text;
    UInt32 number = 0;
    UInt32 size = 0;

    EXPECT_EQ(audio.GetPropertyString(Device(), Global(kAudioObjectPropertyName), &text),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(audio.GetPropertyDataSize(Device(), Global(kAudioObjectPropertyName), &size), 0);
    EXPECT_EQ(size, 4U);
    EXPECT_EQ(Get(Device(), Global(kAudioObjectPropertyName), number), 0);
    EXPECT_EQ(number, 42U);
}

TEST_F(RecorderPropertiesTest, ATextCanStandWhereANumberIsAsked) {
    recorder.Faults().SetText(kAudioDevicePropertyBufferFrameSize, "many");
    backends.SystemFaults().SetText(kAudioHardwarePropertyDevices, "several");
    std::string text;
    UInt32 number = 0;
    UInt32 size = 0;

    EXPECT_EQ(Get(Device(), kBufferFrames, number), kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(audio.GetPropertyDataSize(Device(), kBufferFrames, &size),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(audio.GetPropertyString(Device(), kBufferFrames, &text), 0);
    EXPECT_EQ(text, "many");
    EXPECT_EQ(audio.GetPropertyDataSize(kAudioObjectSystemObject,
                                        Global(kAudioHardwarePropertyDevices), &size),
              kAudioHardwareBadPropertySizeError);
}

TEST_F(RecorderPropertiesTest, AnUnpluggedDeviceHasNoValueOfAnyType) {
    recorder.Faults().SetText(kAudioDevicePropertyBufferFrameSize, "many");
    recorder.Faults().SetNumber(kAudioObjectPropertyName, 42);
    recorder.Unplug();
    std::string text;
    UInt32 number = 0;

    EXPECT_EQ(audio.GetPropertyString(Device(), kBufferFrames, &text),
              kAudioHardwareBadDeviceError);
    EXPECT_EQ(Get(Device(), Global(kAudioObjectPropertyName), number),
              kAudioHardwareBadDeviceError);
}

TEST_F(RecorderPropertiesTest, SomethingCanHappenBeforeACallThatIsToCome) {
    int happened = 0;
    std::uint64_t callsThen = 0;
    backends.BeforeCall(3, [&] {
        ++happened;
        callsThen = backends.CallCount();
        recorder.Unplug();
        UInt32 ignored = 0;
        std::ignore = Get(Device(), kHogMode, ignored);  // its own calls do not begin it again
        recorder.Plug();
    });
    const AudioObjectID before = Device();
    const std::uint64_t calls = backends.CallCount();

    EXPECT_EQ(HogOwner(), -1);
    EXPECT_EQ(BufferFrames(), 512U);
    EXPECT_EQ(happened, 0);
    UInt32 alive = 1;
    EXPECT_EQ(Get(before, Global(kAudioDevicePropertyDeviceIsAlive), alive),
              kAudioHardwareBadObjectError);

    EXPECT_EQ(happened, 1);
    EXPECT_EQ(callsThen, calls + 3);
    EXPECT_EQ(HogOwner(), -1);
    EXPECT_EQ(happened, 1);
}

TEST_F(RecorderPropertiesTest, WhatWasToHappenCanBeTakenBack) {
    backends.BeforeCall(1, [this] { recorder.Unplug(); });
    backends.BeforeCall(1, nullptr);

    EXPECT_EQ(HogOwner(), -1);
    EXPECT_TRUE(recorder.IsPlugged());
}

TEST_F(RecorderPropertiesTest, TheAliveFlagCanBeClearedAlone) {
    test::CountingListener listener;
    ASSERT_EQ(audio.AddPropertyListener(Device(), Global(kAudioDevicePropertyDeviceIsAlive),
                                        &test::CountingListener::Proc, &listener),
              0);
    test::Collector collector;
    const AudioDeviceIOProcID proc = CreateProc(collector);

    recorder.SetAlive(false);
    recorder.SetAlive(false);
    backends.FlushNotifications();

    UInt32 alive = 1;
    EXPECT_EQ(Get(Device(), Global(kAudioDevicePropertyDeviceIsAlive), alive), 0);
    EXPECT_EQ(alive, 0U);
    EXPECT_EQ(listener.calls, 1);
    EXPECT_EQ(audio.Start(Device(), proc), kAudioHardwareBadDeviceError);
}

class SteppedBufferTest : public test::SimulatedTest {
protected:
    SteppedBufferTest() : SimulatedTest(Stepped()) {}
    static SimulatedRecorderConfig Stepped() {
        SimulatedRecorderConfig config = Manual();
        config.bufferFramesStep = 16;
        return config;
    }
};

TEST_F(SteppedBufferTest, ADeviceMayRoundTheBufferSizeThatIsSet) {
    UInt32 frames = 0;
    ASSERT_EQ(Set(Device(), kBufferFrames, UInt32{4'410}), 0);
    ASSERT_EQ(Get(Device(), kBufferFrames, frames), 0);
    EXPECT_EQ(frames, 4'400U);  // 275 x 16

    ASSERT_EQ(Set(Device(), kBufferFrames, UInt32{15}), 0);
    ASSERT_EQ(Get(Device(), kBufferFrames, frames), 0);
    EXPECT_EQ(frames, 14U);
}

}  // namespace
}  // namespace vorrel
