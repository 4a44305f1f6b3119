#include <gtest/gtest.h>

#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "ManagerRig.h"
#include "support/TraceCapture.h"

namespace vorrel::test {
namespace {

/// A device that fails or throws where it is started or stopped: a stop ends in `Ready` and says
/// so, and so does a start.
class DeviceTroubleTest : public ManagerRig {
protected:
    void ExpectTheNextTakeWorks() {
        recorder.audio->onStart = nullptr;
        recorder.audio->onStop = nullptr;
        recorder.audio->FailStart(kAudioHardwareNoError);
        recorder.audio->FailStop(kAudioHardwareNoError);
        delegate->operations.clear();
        delivered = 0;
        StartRecording();
        Deliver(96);
        StopRecording();
        AwaitOperation(VrRecOperationStopped);
        EXPECT_EQ(RecordedFrames(), Frames({{0, 96}}));
    }

    TraceCapture trace;
};

/// A device that goes on after its stop, with buffers of 64 frames of two channels.
class GoingOn {
public:
    explicit GoingOn(VorrelManager& listener) : manager(listener) {}
    void Deliver() { manager.AudioDevice_IOProc(&list, nullptr); }

private:
    VorrelManager& manager;
    std::vector<float> samples = std::vector<float>(2 * 64, 0.5F);
    const AudioBufferList list{
        1, {{2, static_cast<UInt32>(samples.size() * sizeof(float)), samples.data()}}};
};

TEST_F(DeviceTroubleTest, AStopEndsInReadyAlthoughTheDeviceThrows) {
    SelectPcm();
    for (const bool wait : {true, false}) {
        SCOPED_TRACE(wait);
        delegate->log.clear();
        delegate->operations.clear();
        delivered = 0;
        StartRecording();
        Deliver(480);
        AwaitStored();
        recorder.audio->onStop = [] { throw std::runtime_error("the bus is gone"); };

        ASSERT_EQ(manager.Stop(wait), VrSuccess);

        ASSERT_TRUE(DispatchUntil([&] { return manager.State() == ManagerState::Ready; }));
        AwaitOperation(VrRecOperationStopped);
        EXPECT_EQ(delegate->log, (std::vector<std::string>{"operation 1", "operation 2"}));
        EXPECT_EQ(RecordedFrames(), Frames({{0, 480}}));
        ExpectTheNextTakeWorks();
    }
}

TEST_F(DeviceTroubleTest, WhatTheDeviceThrowsNeedNotBeAnException) {
    SelectPcm();
    recorder.audio->onStart = [] { throw 1; };
    ASSERT_EQ(manager.Start(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return !delegate->log.empty(); }));
    EXPECT_EQ(delegate->log, std::vector<std::string>{"message 0 "});
    EXPECT_EQ(manager.State(), ManagerState::Ready);
    recorder.audio->onStart = nullptr;
    delegate->log.clear();
    StartRecording();
    recorder.audio->onStop = [] { throw 1; };

    ASSERT_EQ(manager.Stop(true), VrSuccess);

    AwaitOperation(VrRecOperationStopped);
    EXPECT_EQ(manager.State(), ManagerState::Ready);
    ExpectTheNextTakeWorks();
}

TEST_F(DeviceTroubleTest, AStartThatThrowsEndsInReadyWithADeviceError) {
    SelectPcm();
    recorder.audio->onStart = [] { throw std::runtime_error("the bus is gone"); };

    ASSERT_EQ(manager.StartPreRecording(), VrSuccess);

    ASSERT_TRUE(DispatchUntil([&] { return !delegate->log.empty(); }));
    EXPECT_EQ(delegate->log, std::vector<std::string>{"message 0 "});
    EXPECT_EQ(manager.State(), ManagerState::Ready);
    ExpectTheNextTakeWorks();
}

TEST_F(DeviceTroubleTest, AStopBehindAStartThatFailsOrThrowsEndsInReady) {
    SelectPcm();
    for (const bool throws : {false, true}) {
        SCOPED_TRACE(throws);
        delegate->log.clear();
        delegate->operations.clear();
        if (throws) {
            recorder.audio->onStart = [] { throw std::runtime_error("the bus is gone"); };
        } else {
            recorder.audio->FailStart(kAudioHardwareUnspecifiedError);
        }
        StartGate gate(recorder);
        ASSERT_EQ(manager.Start(), VrSuccess);
        gate.AwaitReached();
        ASSERT_EQ(manager.Stop(false), VrSuccess);
        gate.Open();

        AwaitOperation(VrRecOperationStopped);

        EXPECT_EQ(delegate->log, (std::vector<std::string>{"message 0 ", "operation 2"}));
        EXPECT_EQ(manager.State(), ManagerState::Ready);
        ExpectTheNextTakeWorks();
    }
}

TEST_F(DeviceTroubleTest, ADeviceThatRefusesToStopEndsTheTakeAllTheSame) {
    SelectPcm();
    StartRecording();
    Deliver(480);
    AwaitStored();
    recorder.audio->FailStop(kAudioHardwareUnspecifiedError);

    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(manager.State(), ManagerState::Ready);
    AwaitOperation(VrRecOperationStopped);
    EXPECT_EQ(delegate->log, (std::vector<std::string>{"operation 1", "operation 2"}));
    EXPECT_EQ(RecordedFrames(), Frames({{0, 480}}));
    ExpectTheNextTakeWorks();
}

TEST_F(DeviceTroubleTest, WhatADeviceDeliversAfterItsStopIsNotQueued) {
    SelectPcm();
    StartRecording();
    recorder.audio->FailStop(kAudioHardwareUnspecifiedError);
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    GoingOn device(manager);

    device.Deliver();

    Block queued;
    ASSERT_EQ(VorrelManagerParts::Queue(manager).Dequeue(0, queued), VrSuccess);
    EXPECT_TRUE(queued.empty());
    EXPECT_EQ(manager.State(), ManagerState::Ready);
}

TEST_F(DeviceTroubleTest, WhatADeviceDeliversAfterAStartThatFailedIsNotQueued) {
    SelectPcm();
    recorder.audio->onStart = [] { throw std::runtime_error("the bus is gone"); };
    ASSERT_EQ(manager.Start(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return !delegate->log.empty(); }));
    GoingOn device(manager);

    device.Deliver();

    Block queued;
    ASSERT_EQ(VorrelManagerParts::Queue(manager).Dequeue(0, queued), VrSuccess);
    EXPECT_TRUE(queued.empty());
}

TEST_F(DeviceTroubleTest, ADeviceThatNeverStopsHarmsNoTake) {
    SelectPcm();
    recorder.audio->FailStop(kAudioHardwareUnspecifiedError);
    GoingOn device(manager);
    std::jthread deviceThread([&](const std::stop_token& ended) {
        while (!ended.stop_requested()) {
            device.Deliver();
        }
    });

    // Each take has its own number of channels, for which everything is made anew.
    for (const UInt32 channels : {2U, 8U, 1U, 6U, 2U}) {
        recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput,
                                   {channels});
        delegate->operations.clear();
        ASSERT_EQ(manager.Start(), VrSuccess);
        AwaitOperation(VrRecOperationDeviceStarted);
        ASSERT_EQ(manager.Stop(true), VrSuccess);
        AwaitOperation(VrRecOperationStopped);
        EXPECT_EQ(manager.State(), ManagerState::Ready);
    }
    deviceThread.request_stop();
    deviceThread.join();

    EXPECT_FALSE(delegate->Has(VrMessageDeviceError));
    ExpectTheNextTakeWorks();
}

}  // namespace
}  // namespace vorrel::test
