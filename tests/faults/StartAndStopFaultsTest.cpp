#include <gtest/gtest.h>

#include "faults/FaultRig.h"

namespace vorrel::test {
namespace {

// At this rate a buffer is so large that the capture queue's pool is a small part of what a start
// asks memory for.
constexpr std::uint64_t kFastHz = 384'000;

class StartAndStopFaultsTest : public ::testing::Test {
protected:
    /// A start that meets the fault either says so, at once or by its one message, or runs.
    std::uint64_t StartWith(const Fault& fault, bool preRecording = false) {
        rig.Forget();
        ArmedFault armed(fault);
        const VrError result = AsHost([&] {
            return preRecording ? rig.take.manager.StartPreRecording() : rig.take.manager.Start();
        });
        const bool settled = result != VrSuccess || SettlesUntil([&] { return Settled(); });
        armed.Disarm();
        EXPECT_TRUE(settled);
        MainQueue::Dispatch();
        if (settled && !::testing::Test::HasFailure()) {
            CheckStart(result, preRecording);
        }
        return armed.Met();
    }

    bool Settled() const {
        return rig.take.delegate->Has(VrRecOperationDeviceStarted) ||
               rig.take.delegate->Has(VrMessageDeviceError);
    }

    void CheckStart(VrError result, bool preRecording) {
        const RecordingDelegate& told = *rig.take.delegate;
        if (told.Has(VrRecOperationDeviceStarted)) {
            EXPECT_EQ(told.log, (std::vector<std::string>{"operation 1"}));
            EXPECT_EQ(rig.take.manager.State(),
                      preRecording ? ManagerState::Paused : ManagerState::Recording);
            rig.Deliver(2);
            rig.Stop();
            rig.ExpectRecorded(preRecording ? 0 : rig.Delivered());
            return;
        }
        EXPECT_EQ(told.log, result == VrSuccess ? std::vector<std::string>{"message 0 "}
                                                : std::vector<std::string>{});
        EXPECT_EQ(rig.take.manager.State(), ManagerState::Ready);
        EXPECT_FALSE(rig.take.Recorder().IsRunning());
        rig.ExpectTheNextTakeWorks();
    }

    /// A stop that meets the fault ends the take, or is refused and leaves it as it was.
    std::uint64_t StopWith(const Fault& fault, bool wait) {
        rig.Start();
        rig.Deliver(3);
        ArmedFault armed(fault);
        const VrError result = AsHost([&] { return rig.take.manager.Stop(wait); });
        if (result == VrSuccess) {
            EXPECT_TRUE(
                SettlesUntil([&] { return rig.take.delegate->Has(VrRecOperationStopped); }));
            armed.Disarm();
        } else {
            armed.Disarm();
            EXPECT_EQ(result, VrErrorFailed);
            EXPECT_EQ(rig.take.manager.State(), ManagerState::Recording);
            rig.Deliver(2);
            rig.Stop();
        }
        EXPECT_EQ(rig.take.delegate->log, (std::vector<std::string>{"operation 1", "operation 2"}));
        rig.ExpectRecorded(rig.Delivered());
        return armed.Met();
    }

    FaultRig rig{kFastHz, Take::Pcm, 2, 1.0};
};

TEST_F(StartAndStopFaultsTest, AStartWithoutMemoryAtAnyPointSaysSoOrRuns) {
    Sweep("start", {.call = Call::Memory}, [&](const Fault& fault) { return StartWith(fault); });
}

TEST_F(StartAndStopFaultsTest, AStartWithoutMemoryFromAnyPointOnSaysSoOrRuns) {
    Sweep("start", {.call = Call::Memory, .forGood = true},
          [&](const Fault& fault) { return StartWith(fault); });
}

TEST_F(StartAndStopFaultsTest, APreRecordingWithoutMemoryAtAnyPointSaysSoOrRuns) {
    Sweep("start of a pre-recording", {.call = Call::Memory},
          [&](const Fault& fault) { return StartWith(fault, true); });
}

TEST_F(StartAndStopFaultsTest, AStartWithoutAThreadSaysSo) {
    Sweep("start", {.call = Call::Thread}, [&](const Fault& fault) { return StartWith(fault); });
}

TEST_F(StartAndStopFaultsTest, TheFirstStartOfAnEngineWithoutMemoryOrThreadSaysSoOrRuns) {
    for (const Call call : {Call::Memory, Call::Thread}) {
        Sweep("first start", {.call = call}, [&](const Fault& fault) {
            FaultRig fresh(kFastHz, Take::Pcm, 1, 1.0);
            fresh.Forget();
            ArmedFault armed(fault);
            const VrError result = AsHost([&] { return fresh.take.manager.Start(); });
            EXPECT_TRUE(result != VrSuccess || SettlesUntil([&] {
                            return fresh.take.delegate->Has(VrRecOperationDeviceStarted) ||
                                   fresh.take.delegate->Has(VrMessageDeviceError);
                        }));
            armed.Disarm();
            EXPECT_LE(fresh.take.delegate->log.size(), result == VrSuccess ? 1U : 0U);
            if (fresh.take.manager.State() == ManagerState::Recording) {
                fresh.Stop();
            }
            fresh.ExpectTheNextTakeWorks();
            return armed.Met();
        });
    }
}

TEST_F(StartAndStopFaultsTest, AStopWithoutMemoryEndsTheTakeOrLeavesItGoingOn) {
    Sweep("stop", {.call = Call::Memory},
          [&](const Fault& fault) { return StopWith(fault, true); });
    Sweep("stop", {.call = Call::Memory, .forGood = true},
          [&](const Fault& fault) { return StopWith(fault, true); });
}

TEST_F(StartAndStopFaultsTest, AnAsynchronousStopWithoutMemoryEndsTheTakeOrLeavesItGoingOn) {
    Sweep("asynchronous stop", {.call = Call::Memory},
          [&](const Fault& fault) { return StopWith(fault, false); });
    Sweep("asynchronous stop", {.call = Call::Memory, .forGood = true},
          [&](const Fault& fault) { return StopWith(fault, false); });
}

TEST_F(StartAndStopFaultsTest, APauseOrAResumeWithoutMemoryIsDoneOrChangesNothing) {
    Sweep("pause and resume", {.call = Call::Memory}, [&](const Fault& fault) {
        rig.Start();
        rig.Deliver(2);
        EXPECT_EQ(rig.take.manager.Pause(), VrSuccess);
        ArmedFault armed(fault);
        const VrError resumed = AsHost([&] { return rig.take.manager.Resume(); });
        const ManagerState after = rig.take.manager.State();
        armed.Disarm();
        EXPECT_EQ(after, resumed == VrSuccess ? ManagerState::Recording : ManagerState::Paused);
        if (resumed != VrSuccess) {
            EXPECT_EQ(rig.take.manager.Resume(), VrSuccess);
        }
        rig.Deliver(2);
        rig.Stop();
        // Nothing came between the pause and the resume.
        rig.ExpectRecorded(rig.Delivered());
        return armed.Met();
    });
}

}  // namespace
}  // namespace vorrel::test
