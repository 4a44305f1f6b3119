#include "device/simulated/IoEngine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "device/simulated/ManualClock.h"
#include "device/simulated/SimulatedFixture.h"
#include "support/NoNewThreads.h"
#include "support/TraceCapture.h"
#include "support/WaitingCall.h"

namespace vorrel {
namespace {

using test::Collector;
using test::ManualClock;
using test::WaitingCall;
using testing::ElementsAre;
using testing::HasSubstr;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

/// Counts frames, mono.
class CountingSource final : public SampleSource {
public:
    void Read(float* out, std::size_t frames) override {
        for (std::size_t i = 0; i < frames; ++i) {
            out[i] = next++;
        }
    }

private:
    float next = 0.0F;
};

const RunSetup kSetup{1, 48'000.0, 48, 1, {}};
std::unique_ptr<SampleSource> MakeCounting() {
    return std::make_unique<CountingSource>();
}

TEST(IoEngineTest, AStartWithoutASourceFailsAndChangesNothing) {
    const auto engine = std::make_shared<IoEngine>(1.0, true, nullptr);
    Collector collector;
    const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &collector);

    EXPECT_EQ(engine->Start(id, kSetup, [] { return nullptr; }), kAudioHardwareUnspecifiedError);

    EXPECT_FALSE(engine->IsRunning());
    EXPECT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);
    engine->Close();
}

/// With a capture thread on a clock that the test advances; a buffer takes half a second.
class PacedEngineTest : public testing::Test {
protected:
    PacedEngineTest() { Make(1.0); }
    ~PacedEngineTest() override { engine->Close(); }

    void Make(double speed) {
        if (engine != nullptr) {
            engine->Close();
        }
        clock = std::make_shared<ManualClock>();
        engine = std::make_shared<IoEngine>(speed, false, nullptr, clock);
        proc = engine->Create(&Collector::Proc, &collector);
    }
    void Start() { ASSERT_EQ(engine->Start(proc, kHalfSecond, &MakeCounting), 0); }

    const RunSetup kHalfSecond{1, 1'024.0, 512, 1, {}};
    Collector collector;
    std::shared_ptr<ManualClock> clock;
    std::shared_ptr<IoEngine> engine;
    AudioDeviceIOProcID proc = nullptr;
};

TEST_F(PacedEngineTest, TheFirstBufferComesWhenItsTimeHasPassed) {
    Start();
    ASSERT_TRUE(clock->WaitsFor(500ms));
    clock->Advance(499ms);
    ASSERT_TRUE(clock->WaitsFor(500ms));
    EXPECT_EQ(collector.Count(), 0U);

    clock->Advance(1ms);

    EXPECT_TRUE(collector.WaitForCount(1));
    EXPECT_TRUE(clock->WaitsFor(1s));
    EXPECT_EQ(collector.Count(), 1U);
}

TEST_F(PacedEngineTest, TheSpeedMakesTimeRunFaster) {
    Make(4.0);
    Start();
    ASSERT_TRUE(clock->WaitsFor(125ms));

    clock->Advance(1s);

    ASSERT_TRUE(clock->WaitsFor(1'125ms));
    EXPECT_EQ(engine->DeliveredBuffers(), 8U);
}

TEST_F(PacedEngineTest, ASpeedBelowOneMakesTimeRunSlower) {
    Make(0.5);
    Start();
    ASSERT_TRUE(clock->WaitsFor(1s));

    clock->Advance(4s);

    ASSERT_TRUE(clock->WaitsFor(5s));
    EXPECT_EQ(engine->DeliveredBuffers(), 4U);
}

TEST_F(PacedEngineTest, AfterALateWakeEveryBufferIsCaughtUpAndNoneMore) {
    Start();
    ASSERT_TRUE(clock->WaitsFor(500ms));

    clock->Advance(30s + 100ms);

    ASSERT_TRUE(clock->WaitsFor(30s + 500ms));
    EXPECT_EQ(engine->DeliveredBuffers(), 60U);
    const std::vector<float> samples = collector.Samples();
    ASSERT_EQ(samples.size(), 60U * 512);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        ASSERT_EQ(samples[i], static_cast<float>(i));
    }
}

TEST_F(PacedEngineTest, ABufferThatWasDueInAFormerRunIsNotDeliveredInTheNext) {
    clock->onBufferDue = [this] {
        if (clock->dueBuffers == 1) {
            EXPECT_TRUE(engine->Stop(proc));
            Start();
        }
    };
    Start();
    ASSERT_TRUE(clock->WaitsFor(500ms));

    clock->Advance(500ms);

    // The new run began after half a second, so its first buffer is due after one.
    ASSERT_TRUE(clock->WaitsFor(1s));
    EXPECT_EQ(collector.Count(), 0U);
}

TEST_F(PacedEngineTest, ASecondRunIsPacedFromItsOwnBeginning) {
    Start();
    ASSERT_TRUE(clock->WaitsFor(500ms));
    clock->Advance(2s);
    ASSERT_TRUE(collector.WaitForCount(4));
    EXPECT_TRUE(engine->Stop(proc));
    clock->Advance(10s);

    Start();

    EXPECT_TRUE(clock->WaitsFor(12s + 500ms));
    EXPECT_EQ(collector.Count(), 4U);
}

TEST_F(PacedEngineTest, StalledItDeliversNothingAndGoesOnLaterWhereItWas) {
    Start();
    ASSERT_TRUE(clock->WaitsFor(500ms));
    clock->Advance(700ms);
    ASSERT_TRUE(clock->WaitsFor(1s));

    engine->SetStalled(true);
    EXPECT_FALSE(engine->Deliver());
    clock->Advance(20s);
    EXPECT_TRUE(engine->IsRunning());
    engine->SetStalled(false);

    // Of the second buffer, 300 ms were still to pass.
    ASSERT_TRUE(clock->WaitsFor(21s));
    EXPECT_EQ(collector.Count(), 1U);
    clock->Advance(300ms);
    ASSERT_TRUE(clock->WaitsFor(21s + 500ms));
    EXPECT_EQ(collector.Samples()[512], 512.0F);
}

TEST_F(PacedEngineTest, ARunThatBeginsStalledIsPacedFromItsRelease) {
    engine->SetStalled(true);
    clock->Advance(3s);
    Start();
    clock->Advance(2s);

    engine->SetStalled(false);

    EXPECT_TRUE(clock->WaitsFor(5s + 500ms));
    EXPECT_EQ(collector.Count(), 0U);
}

TEST_F(PacedEngineTest, AnEmptyListTakesTheTimeOfABufferAndCarriesNoFrames) {
    engine->SetEmptyLists(true);
    Start();
    ASSERT_TRUE(clock->WaitsFor(500ms));

    clock->Advance(1s);

    ASSERT_TRUE(clock->WaitsFor(1'500ms));
    EXPECT_EQ(engine->DeliveredBuffers(), 2U);
    EXPECT_EQ(engine->DeliveredFrames(), 0U);
}

TEST_F(PacedEngineTest, AListGivenByHandMovesTheScheduleByItsOwnFrames) {
    Start();
    ASSERT_TRUE(clock->WaitsFor(500ms));
    std::vector<float> samples(256);
    const AudioBufferList list{1, {{1, 256 * sizeof(float), samples.data()}}};

    EXPECT_TRUE(engine->Deliver(list));
    clock->Advance(500ms);

    EXPECT_TRUE(clock->WaitsFor(750ms));
    EXPECT_EQ(engine->DeliveredFrames(), 256U);
}

TEST_F(PacedEngineTest, WhileABufferIsGivenByHandTheCaptureThreadWaits) {
    Start();
    ASSERT_TRUE(clock->WaitsFor(500ms));
    std::uint64_t dueInside = 0;
    collector.onBuffer = [&] {
        if (collector.Count() > 1) {
            return;
        }
        clock->Advance(1s);
        // Long enough that a thread which does not wait is caught.
        const auto end = std::chrono::steady_clock::now() + 50ms;
        while (clock->dueBuffers == 0 && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
        dueInside = clock->dueBuffers;
    };

    EXPECT_TRUE(engine->Deliver());

    EXPECT_EQ(dueInside, 0U);
    EXPECT_TRUE(clock->WaitsFor(1'500ms));
    EXPECT_EQ(collector.Count(), 2U);
}

TEST_F(PacedEngineTest, ItMayBeClosedOutOfABufferGivenByHand) {
    Start();
    ASSERT_TRUE(clock->WaitsFor(500ms));
    collector.onBuffer = [&] {
        clock->Advance(1s);
        engine->Close();
    };

    engine->Deliver();

    EXPECT_FALSE(engine->IsRunning());
}

TEST(IoEngineTest, OnTheSystemsClockNoBufferComesBeforeItsTimeInAnyRun) {
    using Clock = std::chrono::steady_clock;
    const auto engine = std::make_shared<IoEngine>(1.0, false, nullptr);
    Collector collector;
    const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &collector);
    for (int run = 0; run < 20; ++run) {
        const auto before = Clock::now();
        ASSERT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);

        ASSERT_TRUE(engine->WaitForBuffers(3, std::chrono::minutes(1)));

        // Three buffers of a millisecond.
        EXPECT_GE(Clock::now() - before, 3ms);
        engine->Stop(id);
    }
    engine->Close();
}

TEST(IoEngineTest, WithoutAThreadTheStartFailsAndIsTraced) {
    test::TraceCapture trace;
    const auto engine = std::make_shared<IoEngine>(1.0, false, nullptr);
    Collector collector;
    const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &collector);
    {
        const test::NoNewThreads none;

        EXPECT_EQ(engine->Start(id, kSetup, &MakeCounting), kAudioHardwareUnspecifiedError);
    }

    EXPECT_FALSE(engine->IsRunning());
    EXPECT_THAT(trace.Lines(), ElementsAre(HasSubstr("no capture thread")));
    EXPECT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);
    engine->Close();
}

TEST(IoEngineTest, AProcThatRestartsItselfWhileItIsDestroyedLeavesNoRunBehind) {
    const auto engine = std::make_shared<IoEngine>(1.0, true, nullptr);
    Collector collector;
    const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &collector);
    std::promise<void> entered;
    std::promise<void> go;
    OSStatus restart = 0;
    collector.onBuffer = [&] {
        entered.set_value();
        go.get_future().wait();
        restart = engine->Start(id, kSetup, &MakeCounting);
    };
    ASSERT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);
    std::thread device([&] { engine->Deliver(); });
    entered.get_future().wait();
    std::thread destroyer([&] { EXPECT_TRUE(engine->Destroy(id)); });
    while (engine->IsRunning()) {
        std::this_thread::yield();
    }

    go.set_value();
    device.join();
    destroyer.join();

    EXPECT_EQ(restart, kAudioHardwareIllegalOperationError);
    EXPECT_EQ(engine->ProcCount(), 0U);
    EXPECT_FALSE(engine->IsRunning());
    engine->Close();
}

TEST(IoEngineTest, DestroyWaitsForTheCallThatIsUnderWay) {
    const auto engine = std::make_shared<IoEngine>(1.0, true, nullptr);
    Collector collector;
    const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &collector);
    std::promise<void> entered;
    std::promise<void> go;
    collector.onBuffer = [&] {
        entered.set_value();
        go.get_future().wait();
    };
    ASSERT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);
    std::thread device([&] { engine->Deliver(); });
    entered.get_future().wait();

    bool destroyed = false;
    WaitingCall destruction([&] { destroyed = engine->Destroy(id); });
    EXPECT_TRUE(destruction.Waits());
    go.set_value();

    destruction.Join();
    EXPECT_TRUE(destroyed);
    device.join();
    engine->Close();
}

TEST(IoEngineTest, ABufferThatIsUnderWayIsNotOneOfANewCountdown) {
    int ended = 0;
    const auto engine = std::make_shared<IoEngine>(1.0, true, [&ended] { ++ended; });
    Collector collector;
    collector.onBuffer = [&] {
        if (collector.Count() == 1) {
            engine->SetCountdown(2);
        }
    };
    const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &collector);
    ASSERT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);

    engine->Deliver();
    engine->Deliver();
    EXPECT_EQ(ended, 0);
    engine->Deliver();
    engine->Deliver();

    EXPECT_EQ(ended, 1);
    engine->Close();
}

TEST(IoEngineTest, ABufferIsNotDeliveredFromWithinABuffer) {
    const auto engine = std::make_shared<IoEngine>(1.0, true, nullptr);
    Collector collector;
    bool nested = true;
    collector.onBuffer = [&] { nested = engine->Deliver(); };
    const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &collector);
    ASSERT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);

    EXPECT_TRUE(engine->Deliver());

    EXPECT_FALSE(nested);
    engine->Close();
}

TEST(IoEngineTest, AProcThatIsCreatedAndStartedByAProcGetsTheSameBuffer) {
    const auto engine = std::make_shared<IoEngine>(1.0, true, nullptr);
    Collector first;
    Collector second;
    first.onBuffer = [&] {
        const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &second);
        EXPECT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);
    };
    const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &first);
    ASSERT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);

    engine->Deliver();

    EXPECT_EQ(first.Samples(), second.Samples());
    engine->Close();
}

TEST(IoEngineTest, AProcThatAnotherOneDestroysIsNotCalled) {
    const auto engine = std::make_shared<IoEngine>(1.0, true, nullptr);
    Collector first;
    Collector second;
    const AudioDeviceIOProcID firstId = engine->Create(&Collector::Proc, &first);
    const AudioDeviceIOProcID secondId = engine->Create(&Collector::Proc, &second);
    first.onBuffer = [&] { engine->Destroy(secondId); };
    ASSERT_EQ(engine->Start(firstId, kSetup, &MakeCounting), 0);
    ASSERT_EQ(engine->Start(secondId, kSetup, &MakeCounting), 0);

    engine->Deliver();

    EXPECT_EQ(first.Count(), 1U);
    EXPECT_EQ(second.Count(), 0U);
    engine->Close();
}

TEST(IoEngineTest, ClosedFromItsOwnThreadItEndsByItself) {
    const std::weak_ptr<IoEngine> weak = [] {
        auto engine = std::make_shared<IoEngine>(1'000.0, false, nullptr);
        static Collector collector;
        std::weak_ptr<IoEngine> observed = engine;
        collector.onBuffer = [observed] {
            if (const auto held = observed.lock()) {
                held->Close();
            }
        };
        const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &collector);
        EXPECT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);
        EXPECT_TRUE(collector.WaitForCount(1));
        return observed;
    }();

    while (!weak.expired()) {
        std::this_thread::yield();
    }
}

}  // namespace
}  // namespace vorrel
