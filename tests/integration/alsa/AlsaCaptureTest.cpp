#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "AlsaRig.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

/// A card taken and set up, with one IO proc.
class AlsaCaptureTest : public AlsaCardTest {
protected:
    void SetUp() override {
        card.State().speed = 8.0;
        ASSERT_EQ(Hog(), 0);
        device = Device();
        ASSERT_EQ(
            AlsaCardTest::Set(Stream(), kAudioStreamPropertyPhysicalFormat, Format(48'000, 24)), 0);
        ASSERT_EQ(AlsaCardTest::Set(device, kAudioDevicePropertyBufferFrameSize, UInt32{480}), 0);
    }
    AudioDeviceIOProcID Create(Collector& collector) {
        AudioDeviceIOProcID id = nullptr;
        EXPECT_EQ(audio->CreateIOProcID(device, &Collector::Proc, &collector, &id), 0);
        return id;
    }
    static void AwaitCalls(const Collector& collector, std::uint64_t count) {
        for (std::uint64_t now = collector.calls; now < count; now = collector.calls) {
            collector.calls.wait(now);
        }
    }
    const AlsaCapture& Capture() { return audio->Find(device)->Capture(); }

    AudioDeviceID device = kAudioObjectUnknown;
};

TEST_F(AlsaCaptureTest, DeliversExactlyTheBufferFrameSizeFromTheFirstFrameOn) {
    Collector collector(2 * 4'800);
    const AudioDeviceIOProcID id = Create(collector);

    ASSERT_EQ(audio->Start(device, id), 0);
    ASSERT_TRUE(collector.WaitForAll());
    EXPECT_EQ(audio->Stop(device, id), 0);

    EXPECT_EQ(collector.bufferBytes, 480U * 2U * sizeof(float));
    EXPECT_EQ(card.State().periodFrames, 480U);
    EXPECT_EQ(card.State().ringFrames, 48'000U);
    const std::vector<float> samples = collector.Samples();
    for (std::size_t i = 0; i < samples.size(); ++i) {
        ASSERT_EQ(samples[i], CapturedSample(i / 2, i % 2, 2, 24)) << i;
    }
}

TEST_F(AlsaCaptureTest, AfterStopTheProcIsNotCalledAndTheCardIsIdle) {
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 2);

    EXPECT_EQ(audio->Stop(device, id), 0);

    const std::uint64_t calls = collector.calls;
    EXPECT_EQ(card.State().stops, 1U);
    EXPECT_FALSE(audio->Find(device)->IsUnused());
    EXPECT_EQ(audio->Stop(device, id), kAudioHardwareNotRunningError);
    EXPECT_EQ(collector.calls, calls);
    EXPECT_EQ(Unhog(device), 0);
    EXPECT_EQ(card.State().opens, card.State().closes);
}

TEST_F(AlsaCaptureTest, TwoHundredStartsAndStopsLeaveNothingBehind) {
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);  // makes the threads that stay
    ASSERT_EQ(audio->Stop(device, id), 0);
    const std::size_t files = CountOf("/proc/self/fd");
    const std::size_t threads = CountOf("/proc/self/task");

    for (int round = 0; round < 200; ++round) {
        ASSERT_EQ(audio->Start(device, id), 0) << round;
        if (round % 3 == 0) {
            AwaitCalls(collector, collector.calls + 1);
        }
        ASSERT_EQ(audio->Stop(device, id), 0) << round;
    }

    EXPECT_EQ(CountOf("/proc/self/fd"), files);
    EXPECT_EQ(CountOf("/proc/self/task"), threads);
    EXPECT_EQ(card.State().starts, 201U);
    EXPECT_EQ(card.State().stops, 201U);
}

TEST_F(AlsaCaptureTest, AProcMayStopItself) {
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    std::atomic<OSStatus> stopped{-1};
    collector.onCall = [&] { stopped = audio->Stop(device, id); };

    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 1);
    // Waits for the end of that run, then begins another.
    while (audio->Start(device, id) == 0 && collector.calls < 3) {
        AwaitCalls(collector, collector.calls + 1);
    }
    std::ignore = audio->Stop(device, id);

    EXPECT_EQ(stopped, 0);
    EXPECT_GE(card.State().starts, 1U);
}

TEST_F(AlsaCaptureTest, AProcMayDestroyItselfAndItsCardBeLetGo) {
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    std::atomic<int> done{0};
    collector.onCall = [&] {
        EXPECT_EQ(audio->DestroyIOProcID(device, id), 0);
        done = 1;
        done.notify_all();
    };

    ASSERT_EQ(audio->Start(device, id), 0);
    done.wait(0);

    EXPECT_EQ(audio->Start(device, id), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(Unhog(device), 0);
    EXPECT_EQ(collector.calls, 1U);
}

TEST_F(AlsaCaptureTest, TwoProcsShareOneRun) {
    Collector first(1);
    Collector second(1);
    const AudioDeviceIOProcID firstId = Create(first);
    const AudioDeviceIOProcID secondId = Create(second);

    ASSERT_EQ(audio->Start(device, firstId), 0);
    AwaitCalls(first, 1);
    ASSERT_EQ(audio->Start(device, secondId), 0);
    AwaitCalls(second, 1);
    EXPECT_EQ(audio->Stop(device, firstId), 0);
    const std::uint64_t calls = first.calls;
    AwaitCalls(second, second.calls + 2);
    EXPECT_EQ(audio->Stop(device, secondId), 0);

    EXPECT_EQ(first.calls, calls);
    EXPECT_EQ(card.State().starts, 1U);
}

TEST_F(AlsaCaptureTest, ASettingIsRefusedWhileItRuns) {
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);

    EXPECT_EQ(AlsaCardTest::Set(Stream(), kAudioStreamPropertyPhysicalFormat, Format(96'000, 24)),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(AlsaCardTest::Set(device, kAudioDevicePropertyBufferFrameSize, UInt32{512}),
              kAudioHardwareIllegalOperationError);

    EXPECT_EQ(audio->Stop(device, id), 0);
}

TEST_F(AlsaCaptureTest, AStartThatTheCardRefusesFailsAndCanBeRepeated) {
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    card.State().startError = EIO;
    EXPECT_EQ(audio->Start(device, id), kAudioHardwareUnspecifiedError);
    card.State().startError = 0;
    card.State().parametersError = EINVAL;
    EXPECT_EQ(audio->Start(device, id), kAudioDeviceUnsupportedFormatError);
    card.State().parametersError = 0;

    EXPECT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 1);
    EXPECT_EQ(audio->Stop(device, id), 0);
    EXPECT_EQ(Value<UInt32>(device, kAudioDevicePropertyDeviceIsAlive), 1U);
}

TEST_F(AlsaCaptureTest, WithoutHogModeTheCardIsOpenForTheRunOnly) {
    ASSERT_EQ(Unhog(device), 0);
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);

    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 1);
    EXPECT_EQ(card.State().opens, card.State().closes + 1);
    EXPECT_EQ(audio->Stop(device, id), 0);
    const auto other = card.HeldByAnother();
    EXPECT_EQ(audio->Start(device, id), kAudioDevicePermissionsError);
}

TEST_F(AlsaCaptureTest, ARestartThatFailsForGoodEndsTheRunAndIsSaid) {
    CountingListener alive;
    CountingListener overloads;
    ASSERT_EQ(audio->AddPropertyListener(device, Address(kAudioDevicePropertyDeviceIsAlive),
                                         &CountingListener::Proc, &alive),
              0);
    ASSERT_EQ(audio->AddPropertyListener(device, Address(kAudioDeviceProcessorOverload),
                                         &CountingListener::Proc, &overloads),
              0);
    TraceCapture trace;
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 1);

    card.State().startError = EIO;
    card.State().overruns = 1;
    alive.Await(1);

    audio->FlushNotifications();
    EXPECT_EQ(alive.calls, 1);
    EXPECT_EQ(overloads.calls, 1);
    EXPECT_EQ(Capture().Overruns(), 1U);
    const std::vector<std::string> lines = trace.Lines();
    EXPECT_THAT(lines, testing::Contains(testing::HasSubstr("captures no more")));
}

TEST_F(AlsaCaptureTest, EachOverrunIsCountedAndTold) {
    CountingListener overloads;
    ASSERT_EQ(audio->AddPropertyListener(device, Address(kAudioDeviceProcessorOverload),
                                         &CountingListener::Proc, &overloads),
              0);
    TraceCapture trace;
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 3);

    card.State().overruns = 3;
    overloads.Await(3);
    AwaitCalls(collector, collector.calls + 3);
    EXPECT_EQ(audio->Stop(device, id), 0);

    audio->FlushNotifications();
    EXPECT_EQ(overloads.calls, 3);
    EXPECT_EQ(Capture().Overruns(), 3U);
    EXPECT_THAT(trace.Lines(), testing::ElementsAre(testing::HasSubstr("3 overruns")));
}

TEST_F(AlsaCaptureTest, AProcThatTakesTooLongOverrunsTheRingAndTheStreamGoesOn) {
    CountingListener overloads;
    ASSERT_EQ(audio->AddPropertyListener(device, Address(kAudioDeviceProcessorOverload),
                                         &CountingListener::Proc, &overloads),
              0);
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    const auto begin = std::chrono::steady_clock::now();
    // Longer than the ring: a second at the card's speed.
    collector.onCall = [&] {
        while (collector.calls == 1 &&
               std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(250)) {
            std::this_thread::yield();
        }
    };
    ASSERT_EQ(audio->Start(device, id), 0);

    overloads.Await(1);
    AwaitCalls(collector, 3);
    EXPECT_EQ(audio->Stop(device, id), 0);

    EXPECT_GE(card.State().lateReaders, 1U);
    EXPECT_EQ(Capture().Overruns(), card.State().lateReaders);
}

TEST_F(AlsaCaptureTest, ASuspendedCardIsStartedAgain) {
    CountingListener overloads;
    ASSERT_EQ(audio->AddPropertyListener(device, Address(kAudioDeviceProcessorOverload),
                                         &CountingListener::Proc, &overloads),
              0);
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 1);

    card.State().suspensions = 1;
    overloads.Await(1);
    AwaitCalls(collector, collector.calls + 3);

    EXPECT_EQ(audio->Stop(device, id), 0);
    EXPECT_EQ(Capture().Overruns(), 1U);
}

TEST_F(AlsaCaptureTest, AnUnplugIsToldOnceAndEndsTheRunWithoutGoingRound) {
    CountingListener alive;
    ASSERT_EQ(audio->AddPropertyListener(device, Address(kAudioDevicePropertyDeviceIsAlive),
                                         &CountingListener::Proc, &alive),
              0);
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 1);

    card.State().disconnected = 1;
    alive.Await(1);
    const std::uint32_t looks = card.State().looks;
    const std::uint64_t calls = collector.calls;
    cards->Set({});
    audio->LookAgain();  // the system tells it too

    EXPECT_EQ(audio->Stop(device, id), kAudioHardwareBadDeviceError);
    EXPECT_EQ(audio->DestroyIOProcID(device, id), kAudioHardwareBadDeviceError);
    EXPECT_EQ(audio->Start(device, id), kAudioHardwareBadDeviceError);
    audio->FlushNotifications();
    EXPECT_EQ(alive.calls, 1);
    EXPECT_EQ(card.State().looks, looks);
    EXPECT_EQ(collector.calls, calls);
    EXPECT_EQ(Unhog(device), kAudioHardwareBadDeviceError);
    EXPECT_EQ(card.State().opens, card.State().closes);
}

TEST_F(AlsaCaptureTest, AnUnplugThatTheSystemTellsFirstEndsTheRun) {
    CountingListener alive;
    ASSERT_EQ(audio->AddPropertyListener(device, Address(kAudioDevicePropertyDeviceIsAlive),
                                         &CountingListener::Proc, &alive),
              0);
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 1);

    cards->Set({});
    audio->LookAgain();
    alive.Await(1);

    EXPECT_EQ(audio->Stop(device, id), kAudioHardwareBadDeviceError);
    audio->FlushNotifications();
    EXPECT_EQ(alive.calls, 1);
}

TEST_F(AlsaCaptureTest, AListenerMayStopAndLetGoWhileTheCardGoes) {
    struct Listener {
        AlsaCaptureTest* test;
        AudioDeviceIOProcID id;
        std::atomic<int> done{0};
        static OSStatus Proc(AudioObjectID object, UInt32, const AudioObjectPropertyAddress*,
                             void* self) {
            auto& listener = *static_cast<Listener*>(self);
            std::ignore = listener.test->audio->Stop(object, listener.id);
            std::ignore = listener.test->audio->DestroyIOProcID(object, listener.id);
            std::ignore = listener.test->Unhog(object);
            listener.done = 1;
            listener.done.notify_all();
            return 0;
        }
    };
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    Listener listener{this, id};
    ASSERT_EQ(audio->AddPropertyListener(device, Address(kAudioDevicePropertyDeviceIsAlive),
                                         &Listener::Proc, &listener),
              0);
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 1);

    card.State().disconnected = 1;
    listener.done.wait(0);

    audio->FlushNotifications();
    EXPECT_EQ(card.State().opens, card.State().closes);
}

TEST_F(AlsaCaptureTest, AStopMayMeetAnUnplugAtAnyMoment) {
    for (int round = 0; round < 30; ++round) {
        Collector collector(1);
        const AudioDeviceIOProcID id = Create(collector);
        ASSERT_EQ(audio->Start(device, id), 0);
        AwaitCalls(collector, 1);
        // The card goes a little later each time, around the stop.
        const std::uint32_t looks = card.State().looks;
        card.State().unplugAtFrame = 480 * collector.calls + 48 * static_cast<std::uint64_t>(round);
        while (card.State().looks == looks) {
            std::this_thread::yield();
        }
        std::ignore = audio->Stop(device, id);
        const std::uint64_t calls = collector.calls;
        std::ignore = audio->DestroyIOProcID(device, id);
        std::ignore = Unhog(device);
        EXPECT_EQ(collector.calls, calls);
        EXPECT_EQ(card.State().opens, card.State().closes) << round;

        card.PlugIn();
        cards->Set({card.Found()});
        SetUp();
    }
}

TEST_F(AlsaCaptureTest, AProcessMayEndWhileItRuns) {
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 1);

    audio.reset();

    const std::uint64_t calls = collector.calls;
    EXPECT_EQ(card.State().opens, card.State().closes);
    EXPECT_EQ(collector.calls, calls);
}

TEST_F(AlsaCaptureTest, TheIoThreadMeasuresItself) {
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 10);
    EXPECT_EQ(audio->Stop(device, id), 0);

    const CycleTimes::Summary times = Capture().Times();

    EXPECT_GT(times.cycles, 0U);
    EXPECT_LE(times.median, times.percentile999);
    EXPECT_LE(times.percentile999, times.maximum);
}

}  // namespace
}  // namespace vorrel::test
