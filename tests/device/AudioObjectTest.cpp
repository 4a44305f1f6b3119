#include "device/AudioObject.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "device/AudioDevice.h"
#include "device/AudioHardware.h"
#include "device/AudioStream.h"
#include "support/FakeRecorder.h"

namespace vorrel {
namespace {

using test::FakeRecorder;

static_assert(std::is_base_of_v<AudioObject, AudioDevice>);
static_assert(std::is_base_of_v<AudioObject, AudioHardware>);
static_assert(std::is_base_of_v<AudioObject, AudioStream>);
static_assert(std::has_virtual_destructor_v<AudioObject>);
static_assert(std::has_virtual_destructor_v<AudioDevice>);
static_assert(std::has_virtual_destructor_v<AudioHardware>);
static_assert(std::has_virtual_destructor_v<AudioStream>);

constexpr auto kName = GlobalProperty(kAudioObjectPropertyName);
constexpr auto kFrames = GlobalProperty(kAudioDevicePropertyBufferFrameSize);

TEST(AudioObjectTest, ReadsATextAndAValueOfFixedSize) {
    const FakeRecorder recorder;
    const AudioObject device(recorder.audio, FakeRecorder::kDevice);
    std::string name;
    UInt32 frames = 0;

    EXPECT_EQ(device.GetProperty(kName, name), kAudioHardwareNoError);
    EXPECT_EQ(device.GetProperty(kFrames, frames), kAudioHardwareNoError);

    EXPECT_EQ(name, "KD-WV770");
    EXPECT_EQ(frames, 512U);
}

TEST(AudioObjectTest, AFailedReadLeavesTheOutputsAsTheyWere) {
    const FakeRecorder recorder;
    const AudioObject device(recorder.audio, FakeRecorder::kDevice);
    recorder.audio->FailGet(kAudioObjectPropertyName, kAudioHardwareBadDeviceError);
    recorder.audio->FailGet(kAudioDevicePropertyBufferFrameSize, kAudioHardwareBadDeviceError);
    std::string name = "before";
    UInt32 frames = 7;
    std::vector<UInt32> list = {1, 2};

    EXPECT_EQ(device.GetProperty(kName, name), kAudioHardwareBadDeviceError);
    EXPECT_EQ(device.GetProperty(kFrames, frames), kAudioHardwareBadDeviceError);
    EXPECT_EQ(device.GetProperties(kFrames, list), kAudioHardwareBadDeviceError);

    EXPECT_EQ(name, "before");
    EXPECT_EQ(frames, 7U);
    EXPECT_EQ(list, (std::vector<UInt32>{1, 2}));
}

TEST(AudioObjectTest, RefusesAFixedValueOfAnotherSize) {
    const FakeRecorder recorder;
    const AudioObject device(recorder.audio, FakeRecorder::kDevice);
    UInt64 frames = 7;

    EXPECT_EQ(device.GetProperty(kFrames, frames), kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(frames, 7U);
}

TEST(AudioObjectTest, RefusesATextWhereANumberIsAndANumberWhereATextIs) {
    const FakeRecorder recorder;
    const AudioObject device(recorder.audio, FakeRecorder::kDevice);
    std::string text;
    UInt32 number = 0;

    EXPECT_NE(device.GetProperty(kFrames, text), kAudioHardwareNoError);
    EXPECT_NE(device.GetProperty(kName, number), kAudioHardwareNoError);
}

TEST(AudioObjectTest, ReadsAnArrayOfTheSizeThatItReports) {
    const FakeRecorder recorder;
    recorder.audio->SetValues<UInt32>(90, kAudioDevicePropertyStreams, {5, 6, 7});
    const AudioObject object(recorder.audio, 90);
    std::vector<UInt32> values;

    EXPECT_EQ(object.GetProperties(GlobalProperty(kAudioDevicePropertyStreams), values),
              kAudioHardwareNoError);

    EXPECT_EQ(values, (std::vector<UInt32>{5, 6, 7}));
}

TEST(AudioObjectTest, AnArrayThatShrankBetweenTheCallsIsReadAsFarAsItGoes) {
    const FakeRecorder recorder;
    recorder.audio->SetValues<UInt32>(90, kAudioDevicePropertyStreams, {5, 6});
    recorder.audio->ReportSize(kAudioDevicePropertyStreams, 12);
    std::vector<UInt32> values;

    EXPECT_EQ(AudioObject(recorder.audio, 90)
                  .GetProperties(GlobalProperty(kAudioDevicePropertyStreams), values),
              kAudioHardwareNoError);

    EXPECT_EQ(values, (std::vector<UInt32>{5, 6}));
}

TEST(AudioObjectTest, RefusesAnArrayThatIsNotAWholeNumberOfElements) {
    const FakeRecorder recorder;
    recorder.audio->SetValues<UInt8>(90, kAudioDevicePropertyStreams, {1, 2, 3, 4, 5});
    std::vector<UInt32> values = {9};

    EXPECT_EQ(AudioObject(recorder.audio, 90)
                  .GetProperties(GlobalProperty(kAudioDevicePropertyStreams), values),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(values, (std::vector<UInt32>{9}));
}

TEST(AudioObjectTest, AnEmptyArrayIsReadAsEmpty) {
    const FakeRecorder recorder;
    recorder.audio->SetValues<UInt32>(90, kAudioDevicePropertyStreams, {});
    std::vector<UInt32> values = {9};

    EXPECT_EQ(AudioObject(recorder.audio, 90)
                  .GetProperties(GlobalProperty(kAudioDevicePropertyStreams), values),
              kAudioHardwareNoError);
    EXPECT_TRUE(values.empty());
}

TEST(AudioObjectTest, WritesAValue) {
    const FakeRecorder recorder;
    const AudioObject device(recorder.audio, FakeRecorder::kDevice);

    EXPECT_EQ(device.SetProperty(kFrames, UInt32{256}), kAudioHardwareNoError);

    EXPECT_EQ(recorder.BufferFrames(), 256U);
}

TEST(AudioObjectTest, ACopyNamesTheSameObject) {
    const FakeRecorder recorder;
    const AudioDevice device(recorder.audio, FakeRecorder::kDevice);

    const AudioDevice copy = device;  // NOLINT(performance-unnecessary-copy-initialization)

    EXPECT_EQ(copy.Id(), FakeRecorder::kDevice);
    EXPECT_EQ(copy.SetProperty(kFrames, UInt32{128}), kAudioHardwareNoError);
}

TEST(AudioObjectTest, WithoutABackEndEveryCallReportsABadObject) {
    const AudioDevice device;
    std::string text;
    UInt32 number = 0;
    std::vector<UInt32> list;
    std::vector<AudioStream> streams;
    AudioDeviceIOProcID ioProcId = nullptr;

    EXPECT_EQ(device.Id(), kAudioObjectUnknown);
    EXPECT_EQ(device.GetProperty(kName, text), kAudioHardwareBadObjectError);
    EXPECT_EQ(device.GetProperty(kFrames, number), kAudioHardwareBadObjectError);
    EXPECT_EQ(device.GetProperties(kFrames, list), kAudioHardwareBadObjectError);
    EXPECT_EQ(device.SetProperty(kFrames, number), kAudioHardwareBadObjectError);
    EXPECT_EQ(device.AddPropertyListener(kName, nullptr, nullptr), kAudioHardwareBadObjectError);
    EXPECT_EQ(device.RemovePropertyListener(kName, nullptr, nullptr), kAudioHardwareBadObjectError);
    EXPECT_EQ(device.GetStreams(kAudioObjectPropertyScopeInput, streams),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(device.GetChannels(kAudioObjectPropertyScopeInput, number),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(device.CreateIOProcID(nullptr, nullptr, ioProcId), kAudioHardwareBadObjectError);
    EXPECT_EQ(device.DestroyIOProcID(nullptr), kAudioHardwareBadObjectError);
    EXPECT_EQ(device.Start(nullptr), kAudioHardwareBadObjectError);
    EXPECT_EQ(device.Stop(nullptr), kAudioHardwareBadObjectError);
}

TEST(AudioHardwareTest, GivesTheDevicesInTheSystemsOrder) {
    const FakeRecorder recorder;
    recorder.audio->SetValues<AudioDeviceID>(kAudioObjectSystemObject,
                                             kAudioHardwarePropertyDevices, {9, 3, 5});
    std::vector<AudioDevice> devices;

    EXPECT_EQ(AudioHardware(recorder.audio).GetDevices(devices), kAudioHardwareNoError);

    ASSERT_EQ(devices.size(), 3U);
    EXPECT_EQ(devices[0].Id(), 9U);
    EXPECT_EQ(devices[1].Id(), 3U);
    EXPECT_EQ(devices[2].Id(), 5U);
}

TEST(AudioDeviceTest, GivesTheStreamsOfTheScopeThatIsAsked) {
    const FakeRecorder recorder;
    const AudioDevice device(recorder.audio, FakeRecorder::kDevice);
    std::vector<AudioStream> inputs;
    std::vector<AudioStream> outputs;

    EXPECT_EQ(device.GetStreams(kAudioObjectPropertyScopeInput, inputs), kAudioHardwareNoError);
    EXPECT_EQ(device.GetStreams(kAudioObjectPropertyScopeOutput, outputs), kAudioHardwareNoError);

    ASSERT_EQ(inputs.size(), 1U);
    EXPECT_EQ(inputs[0].Id(), FakeRecorder::kInputStream);
    EXPECT_TRUE(outputs.empty());
}

TEST(AudioDeviceTest, AddsUpTheChannelsOfAllBuffers) {
    const FakeRecorder recorder;
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput, {2, 1, 4});
    UInt32 channels = 0;

    EXPECT_EQ(AudioDevice(recorder.audio, FakeRecorder::kDevice)
                  .GetChannels(kAudioObjectPropertyScopeInput, channels),
              kAudioHardwareNoError);

    EXPECT_EQ(channels, 7U);
}

TEST(AudioDeviceTest, RefusesAListOfBuffersThatIsCutShort) {
    const FakeRecorder recorder;
    const AudioDevice device(recorder.audio, FakeRecorder::kDevice);
    std::vector<std::byte> cut(offsetof(AudioBufferList, mBuffers) + sizeof(AudioBuffer));
    cut[0] = std::byte{2};  // two buffers announced, room for one
    UInt32 channels = 9;

    for (const std::size_t length : {cut.size(), std::size_t{4}, std::size_t{3}, std::size_t{0}}) {
        cut.resize(length);
        recorder.audio->SetValues(FakeRecorder::kDevice, kAudioDevicePropertyStreamConfiguration,
                                  cut, kAudioObjectPropertyScopeInput);
        EXPECT_EQ(device.GetChannels(kAudioObjectPropertyScopeInput, channels),
                  kAudioHardwareBadPropertySizeError)
            << length;
    }
    EXPECT_EQ(channels, 9U);
}

TEST(AudioStreamTest, ReadsAndWritesThePhysicalFormat) {
    const FakeRecorder recorder;
    const AudioStream stream(recorder.audio, FakeRecorder::kInputStream);
    AudioStreamBasicDescription format{};
    std::vector<AudioStreamRangedDescription> formats;

    EXPECT_EQ(stream.GetPhysicalFormat(format), kAudioHardwareNoError);
    EXPECT_EQ(format.mSampleRate, 44'100.0);
    format.mSampleRate = 48'000.0;
    EXPECT_EQ(stream.SetPhysicalFormat(format), kAudioHardwareNoError);
    EXPECT_EQ(stream.GetAvailablePhysicalFormats(formats), kAudioHardwareNoError);

    EXPECT_EQ(recorder.PhysicalFormat().mSampleRate, 48'000.0);
    EXPECT_EQ(formats.size(), 8U * 3U + 1U);
}

}  // namespace
}  // namespace vorrel
