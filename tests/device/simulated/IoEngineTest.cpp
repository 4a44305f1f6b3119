#include "device/simulated/IoEngine.h"

#include <gtest/gtest.h>

#include "device/simulated/SimulatedFixture.h"

namespace vorrel {
namespace {

using test::Collector;

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

TEST(IoEngineTest, AfterALateWakeEveryBufferIsCaughtUp) {
    const auto engine = std::make_shared<IoEngine>(1.0, false, nullptr);
    Collector collector;
    std::atomic<bool> slow{true};
    // The first call takes as long as thirty buffers of a millisecond.
    collector.onBuffer = [&slow] {
        const auto pause = std::chrono::milliseconds(slow.exchange(false) ? 30 : 0);
        const auto end = std::chrono::steady_clock::now() + pause;
        while (std::chrono::steady_clock::now() < end) {
        }
    };
    const AudioDeviceIOProcID id = engine->Create(&Collector::Proc, &collector);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(engine->Start(id, kSetup, &MakeCounting), 0);

    ASSERT_TRUE(engine->WaitForBuffers(60, std::chrono::minutes(1)));
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    engine->Close();

    EXPECT_GE(elapsed, std::chrono::milliseconds(60));
    const std::vector<float> samples = collector.Samples();
    for (std::size_t i = 0; i < samples.size(); ++i) {
        ASSERT_EQ(samples[i], static_cast<float>(i));
    }
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
