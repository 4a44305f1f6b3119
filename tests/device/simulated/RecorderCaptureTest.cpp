#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <future>

#include "device/simulated/ManualClock.h"
#include "device/simulated/SimulatedFixture.h"

namespace vorrel {
namespace {

using test::Collector;
using test::CountingListener;
using test::Global;
using testing::ElementsAre;

SimulatedRecorderConfig Counter(double speed, bool manual) {
    SimulatedRecorderConfig config;
    config.source = SimulatedSource::Counter;
    config.speed = speed;
    config.manual = manual;
    return config;
}

/// That `samples` are the counter's from its first on.
void ExpectCounter(const std::vector<float>& samples, std::uint32_t channels) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const auto channel = static_cast<std::uint32_t>(i % channels);
        ASSERT_EQ(samples[i], CounterSample(i / channels, channel, channels)) << i;
    }
}

class ManualCaptureTest : public test::SimulatedTest {
protected:
    ManualCaptureTest() : SimulatedTest(Counter(1.0, true)) {}
    Collector collector;
};

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

TEST_F(ManualCaptureTest, UnpluggedItEndsEverythingAndSaysSoOnce) {
    CountingListener alive;
    CountingListener devices;
    ASSERT_EQ(audio.AddPropertyListener(Device(), Global(kAudioDevicePropertyDeviceIsAlive),
                                        &CountingListener::Proc, &alive),
              0);
    ASSERT_EQ(
        audio.AddPropertyListener(kAudioObjectSystemObject, Global(kAudioHardwarePropertyDevices),
                                  &CountingListener::Proc, &devices),
        0);
    const std::unique_ptr<UsbInterface> usb = OpenUsb();
    const AudioDeviceIOProcID proc = StartProc(collector);

    recorder.Unplug();
    recorder.Unplug();
    backends.FlushNotifications();

    EXPECT_EQ(alive.calls, 1);
    EXPECT_EQ(devices.calls, 1);
    EXPECT_FALSE(recorder.IsRunning());
    EXPECT_FALSE(recorder.DeliverBuffer());
    UInt32 size = 1;
    EXPECT_EQ(audio.GetPropertyDataSize(kAudioObjectSystemObject,
                                        Global(kAudioHardwarePropertyDevices), &size),
              0);
    EXPECT_EQ(size, 0U);
    UInt32 value = 1;
    EXPECT_EQ(Get(Device(), Global(kAudioDevicePropertyDeviceIsAlive), value), 0);
    EXPECT_EQ(value, 0U);
    EXPECT_EQ(Get(Device(), Global(kAudioDevicePropertyBufferFrameSize), value),
              kAudioHardwareBadDeviceError);
    EXPECT_EQ(Set(Device(), Global(kAudioDevicePropertyHogMode), std::int32_t{-1}),
              kAudioHardwareBadDeviceError);
    std::string text;
    EXPECT_EQ(audio.GetPropertyString(Device(), Global(kAudioObjectPropertyName), &text),
              kAudioHardwareBadDeviceError);
    AudioStreamBasicDescription format{};
    EXPECT_EQ(Get(Stream(), Global(kAudioStreamPropertyPhysicalFormat), format),
              kAudioHardwareBadObjectError);
    std::uint8_t number = 0;
    EXPECT_EQ(usb->GetInterfaceNumber(&number), kIOReturnNoDevice);
    EXPECT_EQ(usb->ControlRequest(SwitchMode(false)), kIOReturnNoDevice);
    EXPECT_EQ(audio.Start(Device(), proc), kAudioHardwareBadDeviceError);
}

TEST_F(ManualCaptureTest, WhatWasTakenOfAGoneDeviceCanStillBeGivenBack) {
    CountingListener alive;
    const auto address = Global(kAudioDevicePropertyDeviceIsAlive);
    ASSERT_EQ(audio.AddPropertyListener(Device(), address, &CountingListener::Proc, &alive), 0);
    const AudioDeviceIOProcID proc = StartProc(collector);
    recorder.Unplug();

    EXPECT_EQ(audio.Stop(Device(), proc), kAudioHardwareBadDeviceError);
    EXPECT_EQ(audio.RemovePropertyListener(Device(), address, &CountingListener::Proc, &alive),
              kAudioHardwareBadDeviceError);
    EXPECT_EQ(audio.DestroyIOProcID(Device(), proc), kAudioHardwareBadDeviceError);

    EXPECT_EQ(backends.ListenerCount(), 0U);
    EXPECT_EQ(recorder.IoProcCount(), 0U);
}

TEST_F(ManualCaptureTest, UnplugsItselfAfterSoManyBuffers) {
    recorder.UnplugAfterBuffers(3);
    StartProc(collector);

    EXPECT_EQ(recorder.DeliverBuffers(10), 3U);
    EXPECT_FALSE(recorder.IsPlugged());
}

TEST_F(ManualCaptureTest, PluggedInAgainItIsAnotherObjectInItsFirstState) {
    const AudioObjectID formerDevice = Device();
    const std::unique_ptr<UsbInterface> formerUsb = OpenUsb();
    ASSERT_EQ(formerUsb->ControlRequest(SwitchMode(true)), 0);
    ASSERT_EQ(Set(Device(), Global(kAudioDevicePropertyBufferFrameSize), UInt32{100}), 0);
    recorder.Unplug();

    recorder.Plug();

    EXPECT_NE(Device(), formerDevice);
    EXPECT_FALSE(recorder.IsDsdMode());
    EXPECT_EQ(recorder.BufferFrames(), 512U);
    UInt32 value = 0;
    EXPECT_EQ(Get(formerDevice, Global(kAudioDevicePropertyDeviceIsAlive), value),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(formerUsb->ControlRequest(SwitchMode(true)), kIOReturnNoDevice);
    EXPECT_EQ(OpenUsb()->ControlRequest(SwitchMode(false)), 0);
    StartProc(collector);
}

TEST_F(ManualCaptureTest, PluggedInAgainItHasNoProcOfTheFormerPlugging) {
    const AudioObjectID formerDevice = Device();
    const AudioDeviceIOProcID proc = StartProc(collector);
    recorder.Unplug();

    recorder.Plug();

    EXPECT_EQ(recorder.IoProcCount(), 0U);
    EXPECT_EQ(audio.Stop(formerDevice, proc), kAudioHardwareBadObjectError);
    EXPECT_EQ(audio.DestroyIOProcID(formerDevice, proc), kAudioHardwareBadObjectError);
    Collector second;
    StartProc(second);
    recorder.DeliverBuffer();
    EXPECT_EQ(second.Count(), 1U);
    EXPECT_EQ(collector.Count(), 0U);
}

TEST_F(ManualCaptureTest, PluggingInWaitsForACallOfTheFormerPlugging) {
    std::promise<void> entered;
    std::promise<void> go;
    collector.onBuffer = [&] {
        entered.set_value();
        go.get_future().wait();
    };
    StartProc(collector);
    std::thread device([this] { recorder.DeliverBuffer(); });
    entered.get_future().wait();
    std::thread unplugger([this] { recorder.Unplug(); });
    while (recorder.IsPlugged()) {
        std::this_thread::yield();
    }

    auto plugged = std::async(std::launch::async, [this] { recorder.Plug(); });
    // Long enough that a plugging which does not wait is caught.
    EXPECT_EQ(plugged.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    go.set_value();
    plugged.get();
    unplugger.join();
    device.join();

    EXPECT_TRUE(recorder.IsPlugged());
    EXPECT_EQ(recorder.IoProcCount(), 0U);
}

TEST_F(ManualCaptureTest, AnUnpluggingDoesNotEndTheRunOfThePluggingThatFollowsAtOnce) {
    for (int round = 0; round < 500; ++round) {
        std::thread plugger([this] {
            while (recorder.IsPlugged()) {
            }
            recorder.Plug();
            StartProc(collector);
        });

        recorder.Unplug();
        plugger.join();

        ASSERT_TRUE(recorder.IsRunning()) << round;
    }
}

TEST_F(ManualCaptureTest, StalledTheStreamIsSilentAndNobodyIsTold) {
    CountingListener alive;
    ASSERT_EQ(audio.AddPropertyListener(Device(), Global(kAudioDevicePropertyDeviceIsAlive),
                                        &CountingListener::Proc, &alive),
              0);
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

TEST_F(ManualCaptureTest, TheBackEndsMayGoOutOfAListener) {
    auto going = std::make_unique<SimulatedBackends>(
        std::vector<SimulatedRecorderConfig>{Counter(1'000.0, false)});
    CountingListener listener;
    listener.onCall = [&going] { going.reset(); };
    const AudioObjectID device = going->Recorder().DeviceId();
    ASSERT_EQ(going->Audio().AddPropertyListener(device, Global(kAudioDeviceProcessorOverload),
                                                 &CountingListener::Proc, &listener),
              0);
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(going->Audio().CreateIOProcID(device, &Collector::Proc, &collector, &proc), 0);
    ASSERT_EQ(going->Audio().Start(device, proc), 0);
    ASSERT_TRUE(collector.WaitForCount(1));

    going->Recorder().RaiseOverload();
    while (listener.calls == 0) {
        std::this_thread::yield();
    }

    EXPECT_EQ(going, nullptr);
}

class SplitBuffersTest : public test::SimulatedTest {
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

/// With the capture thread, at a thousand times real time.
class ThreadedCaptureTest : public test::SimulatedTest {
protected:
    ThreadedCaptureTest() : SimulatedTest(Counter(1'000.0, false)) {}
    Collector collector;
};

TEST_F(ThreadedCaptureTest, TheThreadDeliversTheWholeStream) {
    const AudioDeviceIOProcID proc = StartProc(collector);
    ASSERT_TRUE(recorder.WaitForBuffers(50));
    ASSERT_EQ(audio.Stop(Device(), proc), 0);

    ExpectCounter(collector.Samples(), 2);
    EXPECT_EQ(collector.Count(), recorder.DeliveredBuffers());
}

TEST_F(ThreadedCaptureTest, AfterStopTheProcIsNotCalledAnyMore) {
    Collector other;
    other.keeps = false;
    const AudioDeviceIOProcID proc = CreateProc(collector);
    const AudioDeviceIOProcID otherProc = StartProc(other);
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(audio.Start(Device(), proc), 0);
        EXPECT_TRUE(collector.WaitForCount(collector.Count() + 1));
        EXPECT_EQ(audio.Stop(Device(), proc), 0);
        const std::size_t count = collector.Count();

        // Three more buffers: what was to come for the stopped one has come by then.
        EXPECT_TRUE(other.WaitForCount(other.Count() + 3));

        EXPECT_EQ(collector.Count(), count);
        EXPECT_EQ(audio.Stop(Device(), proc), kAudioHardwareNotRunningError);
    }
    EXPECT_EQ(audio.Stop(Device(), otherProc), 0);
    EXPECT_FALSE(recorder.IsRunning());
}

TEST_F(ThreadedCaptureTest, AfterTheLastStopARunOfAnotherProcDoesNotCallTheFormerOne) {
    Collector other;
    const AudioDeviceIOProcID proc = StartProc(collector);
    ASSERT_TRUE(collector.WaitForCount(2));
    ASSERT_EQ(audio.Stop(Device(), proc), 0);
    const std::size_t count = collector.Count();
    EXPECT_FALSE(recorder.IsRunning());

    const AudioDeviceIOProcID otherProc = StartProc(other);
    EXPECT_TRUE(other.WaitForCount(5));
    EXPECT_EQ(audio.Stop(Device(), otherProc), 0);

    EXPECT_EQ(collector.Count(), count);
}

TEST_F(ThreadedCaptureTest, StopWaitsForTheCallThatIsUnderWay) {
    std::atomic<int> inside{0};
    std::atomic<bool> entered{false};
    collector.onBuffer = [&] {
        ++inside;
        entered = true;
        entered.notify_all();
        // Long enough that a stop which does not wait is caught.
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(5);
        while (std::chrono::steady_clock::now() < end) {
        }
        --inside;
    };
    const AudioDeviceIOProcID proc = StartProc(collector);
    entered.wait(false);

    ASSERT_EQ(audio.Stop(Device(), proc), 0);

    EXPECT_EQ(inside, 0);
}

TEST_F(ThreadedCaptureTest, AProcMayStopItself) {
    std::atomic<AudioDeviceIOProcID> proc{nullptr};
    std::atomic<OSStatus> result{-1};
    collector.onBuffer = [&] {
        proc.wait(nullptr);
        result = audio.Stop(Device(), proc);
        result.notify_all();
    };
    proc = StartProc(collector);
    proc.notify_all();

    result.wait(-1);
    ASSERT_EQ(audio.DestroyIOProcID(Device(), proc), 0);  // waits for the call

    EXPECT_EQ(result, 0);
    EXPECT_EQ(collector.Count(), 1U);
    EXPECT_FALSE(recorder.IsRunning());
}

TEST_F(ThreadedCaptureTest, AProcMayStopAndStartAgain) {
    std::atomic<AudioDeviceIOProcID> proc{nullptr};
    collector.onBuffer = [&] {
        proc.wait(nullptr);
        if (collector.Count() == 1) {
            EXPECT_EQ(audio.Stop(Device(), proc), 0);
            EXPECT_EQ(audio.Start(Device(), proc), 0);
        }
    };
    proc = StartProc(collector);
    proc.notify_all();

    ASSERT_TRUE(collector.WaitForCount(3));
    ASSERT_EQ(audio.Stop(Device(), proc), 0);

    const auto lists = collector.Lists();
    EXPECT_EQ(lists[1][0].samples, lists[0][0].samples);
    EXPECT_NE(lists[2][0].samples, lists[1][0].samples);
}

TEST_F(ThreadedCaptureTest, AProcMayAskForPropertiesWhileAnotherThreadStopsIt) {
    collector.onBuffer = [&] {
        UInt32 frames = 0;
        EXPECT_EQ(Get(Device(), Global(kAudioDevicePropertyBufferFrameSize), frames), 0);
        EXPECT_EQ(frames, 512U);
    };
    const AudioDeviceIOProcID proc = CreateProc(collector);
    for (std::size_t round = 0; round < 100; ++round) {
        const std::size_t before = collector.Count();
        ASSERT_EQ(audio.Start(Device(), proc), 0);
        // The proc is in its question, or about to be, when the stop comes.
        ASSERT_TRUE(collector.WaitForCount(before + 1));
        ASSERT_EQ(audio.Stop(Device(), proc), 0);
    }
    EXPECT_GE(collector.Count(), 100U);
}

TEST_F(ThreadedCaptureTest, UnpluggedWhileItRunsItStopsAndTellsOnce) {
    CountingListener alive;
    ASSERT_EQ(audio.AddPropertyListener(Device(), Global(kAudioDevicePropertyDeviceIsAlive),
                                        &CountingListener::Proc, &alive),
              0);
    recorder.UnplugAfterBuffers(5);
    StartProc(collector);

    ASSERT_TRUE(collector.WaitForCount(5));
    while (recorder.IsPlugged() || recorder.IsRunning()) {
        std::this_thread::yield();
    }
    while (alive.calls == 0) {
        std::this_thread::yield();
    }
    backends.FlushNotifications();

    EXPECT_EQ(alive.calls, 1);
    EXPECT_EQ(collector.Count(), 5U);
}

TEST_F(ThreadedCaptureTest, UnplugFromTheProcItselfDoesNotHang) {
    collector.onBuffer = [&] { recorder.Unplug(); };
    StartProc(collector);

    ASSERT_TRUE(collector.WaitForCount(1));
    while (recorder.IsRunning()) {
        std::this_thread::yield();
    }
    EXPECT_EQ(collector.Count(), 1U);
}

TEST_F(ThreadedCaptureTest, StartsStopsAndUnpluggingsFromManyThreadsEnd) {
    collector.keeps = false;
    std::atomic<int> running{3};
    std::vector<std::thread> threads;
    for (int user = 0; user < 3; ++user) {
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) {
                AudioDeviceIOProcID proc = nullptr;
                const AudioObjectID device = Device();
                if (audio.CreateIOProcID(device, &Collector::Proc, &collector, &proc) != 0) {
                    continue;
                }
                std::ignore = audio.Start(device, proc);
                std::ignore = audio.Stop(device, proc);
                std::ignore = audio.DestroyIOProcID(device, proc);
            }
            --running;
        });
    }
    while (running > 0) {
        recorder.Unplug();
        recorder.Plug();
        std::this_thread::yield();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_FALSE(recorder.IsRunning());
    EXPECT_EQ(recorder.IoProcCount(), 0U);
    backends.FlushNotifications();
}

TEST_F(ThreadedCaptureTest, AskedForItsPropertiesWhileItIsReplacedAnObjectAnswersOrIsGone) {
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            // An unplugged device still answers this, so that only the plugging in takes it away.
            UInt32 alive = 0;
            const OSStatus status = Get(Device(), Global(kAudioDevicePropertyDeviceIsAlive), alive);
            ASSERT_TRUE(status == 0 || status == kAudioHardwareBadObjectError);
        }
    });

    for (int round = 0; round < 20'000; ++round) {
        recorder.Unplug();
        recorder.Plug();
    }
    done = true;
    reader.join();
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

TEST(TwoRecordersTest, EachDeliversItsOwnStreamAtItsOwnPace) {
    const auto clock = std::make_shared<test::ManualClock>();
    SimulatedRecorderConfig slow = Counter(1.0, false);
    slow.clock = clock;
    slow.bufferFrames = 24'000;
    slow.pcmRatesHz = {48'000.0};
    SimulatedRecorderConfig fast = slow;
    fast.speed = 2.0;
    fast.channels = 1;
    Collector collectors[2];
    SimulatedBackends backends({slow, fast});
    for (std::size_t i = 0; i < 2; ++i) {
        SimulatedRecorder& recorder = backends.Recorder(i);
        AudioDeviceIOProcID proc = nullptr;
        ASSERT_EQ(
            recorder.CreateIOProcID(recorder.DeviceId(), &Collector::Proc, &collectors[i], &proc),
            0);
        ASSERT_EQ(recorder.Start(recorder.DeviceId(), proc), 0);
    }
    // Half a second a buffer; at twice the speed a quarter.
    ASSERT_TRUE(clock->WaitsFor(std::chrono::milliseconds(500)));
    ASSERT_TRUE(clock->WaitsFor(std::chrono::milliseconds(250)));

    clock->Advance(std::chrono::milliseconds(1'000));
    ASSERT_TRUE(clock->WaitsFor(std::chrono::milliseconds(1'500)));
    ASSERT_TRUE(clock->WaitsFor(std::chrono::milliseconds(1'250)));

    EXPECT_EQ(collectors[0].Count(), 2U);
    EXPECT_EQ(collectors[1].Count(), 4U);
    EXPECT_EQ(collectors[0].device, backends.Recorder(0).DeviceId());
    EXPECT_EQ(collectors[1].device, backends.Recorder(1).DeviceId());
    ExpectCounter(collectors[0].Samples(), 2);
    ExpectCounter(collectors[1].Samples(), 1);
    backends.Recorder(0).Unplug();
    EXPECT_TRUE(backends.Recorder(1).IsRunning());
}

TEST(CaptureLifetimeTest, TheBackEndsMayGoWhileTheDeviceRuns) {
    Collector collector;
    {
        SimulatedBackends backends({Counter(1'000.0, false)});
        const AudioDeviceID device = backends.Recorder().DeviceId();
        AudioDeviceIOProcID proc = nullptr;
        ASSERT_EQ(backends.Audio().CreateIOProcID(device, &Collector::Proc, &collector, &proc), 0);
        ASSERT_EQ(backends.Audio().Start(device, proc), 0);
        ASSERT_TRUE(collector.WaitForCount(1));
    }

    ExpectCounter(collector.Samples(), 2);
}

/// In real time: 64 frames at 44.1 kHz, a buffer every 1.45 ms.
class RealTimeCaptureTest : public test::SimulatedTest {
protected:
    RealTimeCaptureTest() : SimulatedTest(Counter(1.0, false)) {}
};

TEST_F(RealTimeCaptureTest, NoBufferComesBeforeItsTime) {
    using Clock = std::chrono::steady_clock;
    ASSERT_EQ(Set(Device(), Global(kAudioDevicePropertyBufferFrameSize), UInt32{64}), 0);
    Collector collector;
    std::vector<Clock::time_point> times;
    times.reserve(200);
    collector.onBuffer = [&times] { times.push_back(Clock::now()); };
    const AudioDeviceIOProcID proc = CreateProc(collector);
    const Clock::time_point before = Clock::now();
    ASSERT_EQ(audio.Start(Device(), proc), 0);

    ASSERT_TRUE(collector.WaitForCount(70));
    ASSERT_EQ(audio.Stop(Device(), proc), 0);

    for (std::size_t k = 0; k < times.size(); ++k) {
        const std::chrono::duration<double> elapsed = times[k] - before;
        EXPECT_GE(elapsed.count(), static_cast<double>(k + 1) * 64 / 44'100) << k;
    }
}

TEST_F(RealTimeCaptureTest, StopDoesNotWaitForTheNextBuffer) {
    using Clock = std::chrono::steady_clock;
    ASSERT_EQ(Set(Device(), Global(kAudioDevicePropertyBufferFrameSize), UInt32{32'768}), 0);
    Collector collector;
    const AudioDeviceIOProcID proc = StartProc(collector);
    const Clock::time_point before = Clock::now();

    ASSERT_EQ(audio.Stop(Device(), proc), 0);

    // The first buffer is due after 743 ms.
    EXPECT_LT(Clock::now() - before, std::chrono::milliseconds(700));
    EXPECT_EQ(collector.Count(), 0U);
}

}  // namespace
}  // namespace vorrel
