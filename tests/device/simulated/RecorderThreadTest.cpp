#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "device/simulated/ManualClock.h"
#include "device/simulated/RecorderCaptureRig.h"

namespace vorrel {
namespace {

using test::Collector;
using test::Counter;
using test::CountingListener;
using test::ExpectCounter;
using test::Global;

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

/// A hundred times slower.
class SlowCaptureTest : public test::SimulatedTest {
protected:
    SlowCaptureTest() : SimulatedTest(Counter(0.01, false)) {}
};

TEST_F(SlowCaptureTest, StopDoesNotWaitForTheNextBuffer) {
    using Clock = std::chrono::steady_clock;
    ASSERT_EQ(Set(Device(), Global(kAudioDevicePropertyBufferFrameSize), UInt32{32'768}), 0);
    Collector collector;
    const AudioDeviceIOProcID proc = StartProc(collector);
    const Clock::time_point before = Clock::now();

    ASSERT_EQ(audio.Stop(Device(), proc), 0);

    // The first buffer is due after 74 s.
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(60));
    EXPECT_EQ(collector.Count(), 0U);
}

}  // namespace
}  // namespace vorrel
