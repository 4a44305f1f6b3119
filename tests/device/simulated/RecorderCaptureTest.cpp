#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "device/simulated/RecorderCaptureRig.h"

namespace vorrel::test {
namespace {

using testing::ElementsAre;

TEST_F(ManualCaptureTest, NothingComesByItself) {
    StartProc(collector);
    EXPECT_EQ(collector.Count(), 0U);

    EXPECT_TRUE(recorder.DeliverBuffer());
    EXPECT_EQ(collector.Count(), 1U);
    EXPECT_EQ(recorder.DeliverBuffers(3), 3U);

    EXPECT_EQ(collector.Count(), 4U);
    EXPECT_EQ(collector.device, Device());
    EXPECT_EQ(recorder.DeliveredBuffers(), 4U);
    EXPECT_EQ(recorder.DeliveredFrames(), 4U * 512);
    EXPECT_EQ(collector.Samples().size(), 4U * 512 * 2);
    ExpectCounter(collector.Samples(), 2);
}

TEST_F(ManualCaptureTest, NothingIsDeliveredBeforeTheStartOrAfterTheStop) {
    EXPECT_FALSE(recorder.DeliverBuffer());
    const AudioDeviceIOProcID proc = StartProc(collector);
    ASSERT_EQ(audio.Stop(Device(), proc), 0);

    EXPECT_FALSE(recorder.DeliverBuffer());
    EXPECT_EQ(collector.Count(), 0U);
}

TEST_F(ManualCaptureTest, EveryStartBeginsWithTheFirstSampleAgain) {
    const AudioDeviceIOProcID proc = StartProc(collector);
    recorder.DeliverBuffers(2);
    ASSERT_EQ(audio.Stop(Device(), proc), 0);
    ASSERT_EQ(audio.Start(Device(), proc), 0);
    recorder.DeliverBuffer();

    const auto lists = collector.Lists();
    ASSERT_EQ(lists.size(), 3U);
    EXPECT_EQ(lists[2][0].samples, lists[0][0].samples);
    EXPECT_EQ(recorder.DeliveredBuffers(), 1U);
}

TEST_F(ManualCaptureTest, TheBufferSizeInForceIsDelivered) {
    ASSERT_EQ(Set(Device(), Global(kAudioDevicePropertyBufferFrameSize), UInt32{14}), 0);
    StartProc(collector);
    recorder.DeliverBuffer();

    EXPECT_EQ(collector.Samples().size(), 28U);
}

TEST_F(ManualCaptureTest, InDsdModeTheCounterIsWords) {
    ASSERT_EQ(OpenUsb()->ControlRequest(SwitchMode(true)), 0);
    ASSERT_EQ(SetFormat(176'400, 16), 0);
    StartProc(collector);
    recorder.DeliverBuffer();

    const std::vector<float> samples = collector.Samples();
    ASSERT_EQ(samples.size(), 1'024U);
    for (std::uint16_t i = 0; i < 1'024; ++i) {
        EXPECT_EQ(samples[i], i / 32'768.0F);
    }
}

TEST_F(ManualCaptureTest, ShortBuffersLoseNoFrame) {
    StartProc(collector);
    recorder.DeliverBuffer();
    recorder.SetShortBuffers(100);
    recorder.DeliverBuffers(2);
    recorder.SetShortBuffers(0);
    recorder.DeliverBuffer();

    EXPECT_EQ(collector.Samples().size(), (512U + 100 + 100 + 512) * 2);
    EXPECT_EQ(recorder.DeliveredFrames(), 512U + 100 + 100 + 512);
    ExpectCounter(collector.Samples(), 2);
}

TEST_F(ManualCaptureTest, AListCanBeWithoutBuffers) {
    StartProc(collector);
    recorder.SetEmptyLists(true);
    recorder.DeliverBuffer();
    recorder.SetEmptyLists(false);
    recorder.DeliverBuffer();

    const auto lists = collector.Lists();
    ASSERT_EQ(lists.size(), 2U);
    EXPECT_TRUE(lists[0].empty());
    ASSERT_EQ(lists[1].size(), 1U);
    EXPECT_EQ(recorder.DeliveredBuffers(), 2U);
}

TEST_F(ManualCaptureTest, BehindAListWithoutBuffersTheStreamGoesOnWithoutALoss) {
    StartProc(collector);
    recorder.DeliverBuffer();
    recorder.SetEmptyLists(true);
    recorder.DeliverBuffers(3);
    recorder.SetEmptyLists(false);
    recorder.DeliverBuffer();

    EXPECT_EQ(collector.Samples().size(), 1'024U * 2);
    ExpectCounter(collector.Samples(), 2);
    EXPECT_EQ(recorder.DeliveredFrames(), 1'024U);
}

TEST_F(ManualCaptureTest, AListOfTheTestIsPassedOnAsItIs) {
    StartProc(collector);
    float samples[] = {0.5F, -1.0F, 1.0F};
    const AudioBufferList list{1, {{3, sizeof samples, samples}}};

    EXPECT_TRUE(recorder.Deliver(list));

    const auto lists = collector.Lists();
    ASSERT_EQ(lists.size(), 1U);
    EXPECT_EQ(lists[0][0].channels, 3U);
    EXPECT_THAT(lists[0][0].samples, ElementsAre(0.5F, -1.0F, 1.0F));
}

TEST_F(ManualCaptureTest, AListOfTheTestCountsItsOwnFramesAndTakesNoneFromTheSource) {
    StartProc(collector);
    float samples[] = {0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F};
    EXPECT_TRUE(recorder.Deliver({1, {{3, sizeof samples, samples}}}));
    EXPECT_EQ(recorder.DeliveredFrames(), 2U);
    EXPECT_TRUE(recorder.Deliver({0, {}}));
    EXPECT_TRUE(recorder.Deliver({1, {{0, 0, nullptr}}}));
    EXPECT_EQ(recorder.DeliveredFrames(), 2U);

    recorder.DeliverBuffer();

    EXPECT_EQ(recorder.DeliveredFrames(), 514U);
    EXPECT_EQ(collector.Lists().back()[0].samples[1], CounterSample(0, 1, 2));
}

TEST_F(ManualCaptureTest, SeveralProcsGetTheSameBuffersUntilTheLastStops) {
    Collector other;
    const AudioDeviceIOProcID first = StartProc(collector);
    recorder.DeliverBuffer();
    const AudioDeviceIOProcID second = StartProc(other);
    EXPECT_NE(first, second);
    recorder.DeliverBuffer();
    ASSERT_EQ(audio.Stop(Device(), first), 0);
    EXPECT_TRUE(recorder.IsRunning());
    recorder.DeliverBuffer();
    ASSERT_EQ(audio.Stop(Device(), second), 0);

    EXPECT_FALSE(recorder.IsRunning());
    EXPECT_EQ(collector.Count(), 2U);
    EXPECT_EQ(other.Count(), 2U);
    EXPECT_EQ(other.Lists()[0][0].samples, collector.Lists()[1][0].samples);
}

TEST_F(ManualCaptureTest, StartAndStopRefuseWhatMakesNoSense) {
    const AudioDeviceIOProcID proc = CreateProc(collector);
    EXPECT_EQ(audio.Stop(Device(), proc), kAudioHardwareNotRunningError);
    EXPECT_EQ(audio.Start(Device(), nullptr), kAudioHardwareIllegalOperationError);
    AudioDeviceIOProcID id = nullptr;
    EXPECT_EQ(audio.CreateIOProcID(Device(), nullptr, nullptr, &id),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(audio.CreateIOProcID(Device(), &Collector::Proc, nullptr, nullptr),
              kAudioHardwareIllegalOperationError);

    EXPECT_EQ(audio.DestroyIOProcID(Device(), proc), 0);
    EXPECT_EQ(audio.DestroyIOProcID(Device(), proc), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(audio.Start(Device(), proc), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(recorder.IoProcCount(), 0U);
}

TEST_F(ManualCaptureTest, ASecondStartOfTheSameProcGoesOn) {
    const AudioDeviceIOProcID proc = StartProc(collector);
    recorder.DeliverBuffer();

    EXPECT_EQ(audio.Start(Device(), proc), 0);
    recorder.DeliverBuffer();

    ExpectCounter(collector.Samples(), 2);
    EXPECT_EQ(collector.Count(), 2U);
}

TEST_F(ManualCaptureTest, TheStartAndTheCreationOfAProcCanBeMadeToFail) {
    recorder.FailCreateIOProc(kAudioHardwareUnspecifiedError);
    AudioDeviceIOProcID id = nullptr;
    EXPECT_EQ(audio.CreateIOProcID(Device(), &Collector::Proc, &collector, &id),
              kAudioHardwareUnspecifiedError);
    const AudioDeviceIOProcID proc = CreateProc(collector);

    recorder.FailStart(kAudioHardwareUnspecifiedError);
    EXPECT_EQ(audio.Start(Device(), proc), kAudioHardwareUnspecifiedError);
    EXPECT_FALSE(recorder.IsRunning());
    EXPECT_EQ(audio.Start(Device(), proc), 0);
}

TEST_F(ManualCaptureTest, StalledTheStreamIsSilentAndNobodyIsTold) {
    CountingListener alive;
    Listen(Device(), kAudioDevicePropertyDeviceIsAlive, alive);
    const AudioDeviceIOProcID proc = StartProc(collector);
    recorder.DeliverBuffer();

    recorder.SetStalled(true);

    EXPECT_EQ(recorder.DeliverBuffers(3), 0U);
    EXPECT_EQ(collector.Count(), 1U);
    EXPECT_TRUE(recorder.IsRunning());
    backends.FlushNotifications();
    EXPECT_EQ(alive.calls, 0);
    recorder.SetStalled(false);
    EXPECT_TRUE(recorder.DeliverBuffer());
    ExpectCounter(collector.Samples(), 2);
    recorder.SetStalled(true);
    EXPECT_EQ(audio.Stop(Device(), proc), 0);
}

class SplitBuffersTest : public SimulatedTest {
protected:
    SplitBuffersTest() : SimulatedTest(Split()) {}
    static SimulatedRecorderConfig Split() {
        SimulatedRecorderConfig config = Counter(1.0, true);
        config.channels = 5;
        config.bufferChannels = {2, 2, 1};
        return config;
    }
};

TEST_F(SplitBuffersTest, TheChannelsAreSharedOutInOrder) {
    ASSERT_EQ(Set(Device(), Global(kAudioDevicePropertyBufferFrameSize), UInt32{20}), 0);
    Collector collector;
    StartProc(collector);
    recorder.DeliverBuffers(2);

    const auto lists = collector.Lists();
    ASSERT_EQ(lists.size(), 2U);
    const UInt32 widths[] = {2, 2, 1};
    for (std::size_t list = 0; list < 2; ++list) {
        ASSERT_EQ(lists[list].size(), 3U);
        std::uint32_t channel = 0;
        for (std::size_t buffer = 0; buffer < 3; ++buffer) {
            const auto& [channels, samples] = lists[list][buffer];
            ASSERT_EQ(channels, widths[buffer]);
            ASSERT_EQ(samples.size(), std::size_t{20} * channels);
            for (std::size_t i = 0; i < samples.size(); ++i) {
                const auto lane = static_cast<std::uint32_t>(i % channels);
                EXPECT_EQ(samples[i], CounterSample(list * 20 + i / channels, channel + lane, 5));
            }
            channel += channels;
        }
    }
}

TEST_F(SplitBuffersTest, TheStreamConfigurationShowsTheSameBuffers) {
    const auto bytes = GetArray<std::byte>(
        Device(), {kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput, 0});
    ASSERT_EQ(bytes.size(), offsetof(AudioBufferList, mBuffers) + 3 * sizeof(AudioBuffer));
    UInt32 count = 0;
    std::memcpy(&count, bytes.data(), sizeof count);
    EXPECT_EQ(count, 3U);
    UInt32 channels = 0;
    std::memcpy(&channels,
                bytes.data() + offsetof(AudioBufferList, mBuffers) + 2 * sizeof(AudioBuffer),
                sizeof channels);
    EXPECT_EQ(channels, 1U);
}

TEST(CaptureChannelsTest, OneAndEightChannelsArriveInOrder) {
    for (const std::uint32_t channels : {1U, 8U}) {
        SimulatedRecorderConfig config = Counter(1.0, true);
        config.channels = channels;
        SimulatedBackends backends({config});
        SimulatedRecorder& recorder = backends.Recorder();
        Collector collector;
        AudioDeviceIOProcID proc = nullptr;
        ASSERT_EQ(recorder.CreateIOProcID(recorder.DeviceId(), &Collector::Proc, &collector, &proc),
                  0);
        ASSERT_EQ(recorder.Start(recorder.DeviceId(), proc), 0);

        EXPECT_EQ(recorder.DeliverBuffers(3), 3U);

        ASSERT_EQ(collector.Samples().size(), std::size_t{3} * 512 * channels);
        EXPECT_EQ(collector.Lists()[0][0].channels, channels);
        ExpectCounter(collector.Samples(), channels);
    }
}

}  // namespace
}  // namespace vorrel::test
