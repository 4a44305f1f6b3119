#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "AlsaCaptureRig.h"
#include "support/TraceCapture.h"
#include "support/WaitingCall.h"

namespace vorrel::test {
namespace {

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
    // Who waits for a thread's end is woken before the system has taken it off its list.
    Await([&] { return CountOf("/proc/self/task") == threads; });
    EXPECT_EQ(card.State().starts, 201U);
    EXPECT_EQ(card.State().stops, 201U);
}

TEST_F(AlsaCaptureTest, AProcThatStopsItselfIsNotCalledAgainUntilItIsStarted) {
    Collector collector(1);
    const AudioDeviceIOProcID id = Create(collector);
    std::atomic<OSStatus> stopped{-1};
    collector.onCall = [&] { stopped = audio->Stop(device, id); };

    for (std::uint32_t run = 1; run <= 3; ++run) {
        stopped = -1;
        ASSERT_EQ(audio->Start(device, id), 0);  // waits for the end of the run before
        AwaitCalls(collector, run);
        Await([&] { return card.State().stops == run; });

        EXPECT_EQ(stopped, 0);
        EXPECT_EQ(collector.calls, run);
        EXPECT_EQ(card.State().starts, run);
    }
    EXPECT_EQ(audio->Stop(device, id), kAudioHardwareNotRunningError);
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

TEST_F(AlsaCaptureTest, AnUnplugIsToldOnceAndEndsTheRunWithoutGoingRound) {
    CountingListener alive;
    Listen(device, kAudioDevicePropertyDeviceIsAlive, alive);
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
    Listen(device, kAudioDevicePropertyDeviceIsAlive, alive);
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
        Await([&] { return card.State().looks != looks || card.State().disconnected != 0; });
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
    collector.onCall = [&] {
        if (collector.calls == 5) {
            Compute(std::chrono::milliseconds(40));
        }
    };
    ASSERT_EQ(audio->Start(device, id), 0);
    AwaitCalls(collector, 200);
    EXPECT_EQ(audio->Stop(device, id), 0);

    const CycleTimes::Summary times = Capture().Times();

    EXPECT_GT(times.cycles, 4U);
    EXPECT_LE(times.cycles, Capture().DeliveredBuffers());
    EXPECT_LT(times.median.count(), 40'000);
    EXPECT_GE(times.maximum.count(), 40'000);
}

/// A proc that starts itself over and over, until it is let off.
struct Restarter {
    std::shared_ptr<AlsaCapture> capture;
    AudioDeviceIOProcID id = nullptr;
    std::atomic<bool> goesOn{true};
    std::atomic<int> calls{0};
    static OSStatus Proc(AudioObjectID, const AudioTimeStamp*, const AudioBufferList*,
                         const AudioTimeStamp*, AudioBufferList*, const AudioTimeStamp*,
                         void* self) {
        auto& restarter = *static_cast<Restarter*>(self);
        ++restarter.calls;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
        while (restarter.goesOn && std::chrono::steady_clock::now() < end) {
            std::ignore = restarter.capture->Join(restarter.id);
        }
        return 0;
    }
};

TEST(AlsaCaptureBeginTest, AStartThatFailedIsToldWhenTheCardHasBeenGivenBack) {
    TestCard card;
    std::unique_ptr<AlsaPcm> opened;
    ASSERT_EQ(AlsaPcm::Open(card.Number(), 0, opened), 0);
    const std::shared_ptr<AlsaPcm> pcm = std::move(opened);
    ASSERT_EQ(pcm->Configure({48'000, SampleLayout::Int24In3, 2}, 480), 0);
    const auto capture = std::make_shared<AlsaCapture>(std::make_shared<PropertyListeners>(),
                                                       [](AlsaCapture::Ending) {});
    Collector collector(1);
    const AudioDeviceIOProcID id = capture->Create(&Collector::Proc, &collector);
    const std::uint32_t frees = card.State().frees;
    card.State().startError = EIO;
    card.State().heldFrees = 1;

    std::optional<OSStatus> begun;
    WaitingCall begin([&] { begun = capture->Begin(id, {2, pcm, 2, 480}); });
    Await([&] { return card.State().frees != frees; });

    EXPECT_TRUE(begin.Waits());
    card.State().heldFrees = 0;
    begin.Join();
    EXPECT_EQ(begun, kAudioHardwareUnspecifiedError);
    EXPECT_FALSE(capture->IsRunning());
    EXPECT_EQ(pcm.use_count(), 1);  // and can be set up anew
    capture->Close();
}

TEST(AlsaCaptureCloseTest, AProcThatStartsItselfDoesNotHoldUpTheEnd) {
    for (int round = 0; round < 50 && !testing::Test::HasFailure(); ++round) {
        TestCard card;
        card.State().speed = 8.0;
        std::unique_ptr<AlsaPcm> opened;
        ASSERT_EQ(AlsaPcm::Open(card.Number(), 0, opened), 0);
        const std::shared_ptr<AlsaPcm> pcm = std::move(opened);
        ASSERT_EQ(pcm->Configure({48'000, SampleLayout::Int24In3, 2}, 480), 0);
        Restarter restarter;
        restarter.capture = std::make_shared<AlsaCapture>(std::make_shared<PropertyListeners>(),
                                                          [](AlsaCapture::Ending) {});
        restarter.id = restarter.capture->Create(&Restarter::Proc, &restarter);
        ASSERT_EQ(restarter.capture->Begin(restarter.id, {2, pcm, 2, 480}), 0);
        Await([&] { return restarter.calls > 0; });

        std::atomic<bool> closed{false};
        std::thread closer([&] {
            restarter.capture->Close();
            closed = true;
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        Await([&] { return closed || std::chrono::steady_clock::now() > deadline; });

        EXPECT_TRUE(closed) << round;
        restarter.goesOn = false;
        restarter.capture->EndRun();
        closer.join();
    }
}

}  // namespace
}  // namespace vorrel::test
