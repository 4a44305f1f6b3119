#include "manager/VorrelManager.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ManagerRig.h"

namespace vorrel::test {
namespace {

class VorrelManagerTest : public ManagerRig {};

TEST_F(VorrelManagerTest, InitWithoutADelegateIsRefused) {
    EXPECT_EQ(manager.Init(nullptr), VrErrorInvalidParameter);
    EXPECT_EQ(manager.State(), ManagerState::Uninitialized);
}

TEST_F(VorrelManagerTest, ASecondInitKeepsTheFirstDelegate) {
    const auto second = std::make_shared<RecordingDelegate>();
    ASSERT_EQ(manager.Init(delegate), VrSuccess);

    EXPECT_EQ(manager.Init(second), VrErrorAlreadyInitialized);
    EXPECT_EQ(manager.Init(nullptr), VrErrorInvalidParameter);

    manager.NotifyStreamPosProc(1.0);
    ASSERT_TRUE(DispatchUntil([&] { return !delegate->streamPositions.empty(); }));
    EXPECT_TRUE(second->streamPositions.empty());
}

TEST_F(VorrelManagerTest, CallsBeforeInitAreRefusedAsSuch) {
    EXPECT_EQ(manager.New(), VrErrorNotInitialized);
    EXPECT_EQ(manager.StartPreRecording(), VrErrorNotInitialized);
    EXPECT_EQ(manager.Start(), VrErrorNotInitialized);
    EXPECT_EQ(manager.Stop(true), VrErrorNotInitialized);
    EXPECT_EQ(manager.Stop(false), VrErrorNotInitialized);
    EXPECT_EQ(manager.Pause(), VrErrorNotInitialized);
    EXPECT_EQ(manager.Resume(), VrErrorNotInitialized);
    std::uint64_t length = 7;
    EXPECT_EQ(manager.GetPreviewDataLength(&length, true), VrErrorNotInitialized);
    EXPECT_EQ(length, 7U);
    EXPECT_EQ(manager.State(), ManagerState::Uninitialized);
}

TEST_F(VorrelManagerTest, CallsThatNeedADeviceAreRefusedWithoutOne) {
    Init();

    EXPECT_EQ(manager.Start(), VrErrorInvalidState);
    EXPECT_EQ(manager.StartPreRecording(), VrErrorInvalidState);
    EXPECT_EQ(manager.Stop(true), VrErrorInvalidState);
    EXPECT_EQ(manager.Stop(false), VrErrorInvalidState);
    EXPECT_EQ(manager.Pause(), VrErrorInvalidState);
    EXPECT_EQ(manager.Resume(), VrErrorInvalidState);
    EXPECT_EQ(manager.New(), VrSuccess);
    EXPECT_EQ(manager.State(), ManagerState::Initialized);
}

TEST_F(VorrelManagerTest, StartRightAfterStartIsRefused) {
    SelectPcm();
    StartGate gate(recorder);
    ASSERT_EQ(manager.Start(), VrSuccess);
    gate.AwaitReached();

    EXPECT_EQ(manager.Start(), VrErrorInvalidState);
    EXPECT_EQ(manager.StartPreRecording(), VrErrorInvalidState);
    EXPECT_EQ(manager.Pause(), VrErrorInvalidState);
    EXPECT_EQ(manager.Resume(), VrErrorInvalidState);
    EXPECT_EQ(manager.New(), VrErrorInvalidState);

    EXPECT_EQ(manager.State(), ManagerState::Starting);
    gate.Open();
    AwaitOperation(VrRecOperationDeviceStarted);
    EXPECT_EQ(manager.State(), ManagerState::Recording);
}

TEST_F(VorrelManagerTest, StopRightAfterStartRunsBehindIt) {
    SelectPcm();
    StartGate gate(recorder);
    ASSERT_EQ(manager.Start(), VrSuccess);

    EXPECT_EQ(manager.Stop(false), VrSuccess);

    EXPECT_EQ(manager.State(), ManagerState::Stopping);
    EXPECT_EQ(manager.Stop(false), VrErrorInvalidState);
    EXPECT_EQ(manager.Start(), VrErrorInvalidState);
    gate.AwaitReached();
    gate.Open();
    AwaitOperation(VrRecOperationStopped);
    EXPECT_EQ(delegate->operations,
              (std::vector{VrRecOperationDeviceStarted, VrRecOperationStopped}));
    EXPECT_EQ(manager.State(), ManagerState::Ready);
    EXPECT_FALSE(recorder.IsRunning());
}

TEST_F(VorrelManagerTest, AStopInStartingLogsItsEventBeforeTheStartResetsTheLog) {
    SelectPcm();
    StartGate gate(recorder);
    // What still arrives when the stop runs counts as recorded: the log has no stop event.
    recorder.audio->onStop = [this] { Deliver(480); };
    ASSERT_EQ(manager.Start(), VrSuccess);
    gate.AwaitReached();
    ASSERT_EQ(manager.Stop(false), VrSuccess);
    gate.Open();

    AwaitOperation(VrRecOperationStopped);

    EXPECT_EQ(RecordedFrames(), Frames({{0, 480}}));
}

TEST_F(VorrelManagerTest, StopInReadyIsRefusedAndSendsNothing) {
    SelectPcm();

    EXPECT_EQ(manager.Stop(true), VrErrorInvalidState);
    EXPECT_EQ(manager.Stop(false), VrErrorInvalidState);

    EXPECT_EQ(MainQueue::Dispatch(), 0U);
    EXPECT_TRUE(delegate->log.empty());
}

TEST_F(VorrelManagerTest, AWaitingStopReturnsInReady) {
    SelectPcm();
    StartRecording();
    Deliver(2'400);

    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(manager.State(), ManagerState::Ready);
    EXPECT_FALSE(recorder.IsRunning());
    EXPECT_EQ(Length(true), 2'400U);
    AwaitOperation(VrRecOperationStopped);
}

TEST_F(VorrelManagerTest, AllThatWasDeliveredBeforeAStopIsStoredAndConverted) {
    SelectPcm();
    StartRecording();
    for (int buffer = 0; buffer < 20; ++buffer) {
        Deliver(600);
    }

    ASSERT_EQ(manager.Stop(true), VrSuccess);

    EXPECT_EQ(PreviewFrames(false), Frames({{0, 12'000}}));
}

TEST_F(VorrelManagerTest, PauseInAPreRecordingIsRefused) {
    SelectPcm();
    StartPreRecording();

    EXPECT_EQ(manager.Pause(), VrErrorInvalidState);

    EXPECT_EQ(manager.State(), ManagerState::Paused);
}

TEST_F(VorrelManagerTest, APreRecordingKeepsEverythingAndRecordsFromTheStartOn) {
    SelectPcm();
    StartPreRecording();
    Deliver(1'000);
    AwaitStored();
    EXPECT_EQ(Length(true), 0U);

    ASSERT_EQ(manager.Start(), VrSuccess);
    EXPECT_EQ(manager.State(), ManagerState::Recording);
    MainQueue::Dispatch();
    EXPECT_FALSE(delegate->Has(VrRecOperationRecordStarted));
    Deliver(500);
    MainQueue::Dispatch();
    EXPECT_EQ(delegate->Count(VrRecOperationRecordStarted), 1U);
    Deliver(500);
    StopRecording();

    EXPECT_EQ(Length(false), 2'000U);
    EXPECT_EQ(RecordedFrames(), Frames({{1'000, 2'000}}));
    AwaitOperation(VrRecOperationStopped);
    EXPECT_EQ(delegate->operations,
              (std::vector{VrRecOperationDeviceStarted, VrRecOperationRecordStarted,
                           VrRecOperationStopped}));
}

TEST_F(VorrelManagerTest, ResumeTurnsAPreRecordingIntoARecordingWithoutANotification) {
    SelectPcm();
    StartPreRecording();
    Deliver(100);
    AwaitStored();

    ASSERT_EQ(manager.Resume(), VrSuccess);
    Deliver(100);
    StopRecording();

    AwaitOperation(VrRecOperationStopped);
    EXPECT_FALSE(delegate->Has(VrRecOperationRecordStarted));
    EXPECT_EQ(RecordedFrames(), Frames({{100, 200}}));
}

TEST_F(VorrelManagerTest, PausesAreCutOut) {
    SelectPcm();
    StartRecording();
    Deliver(480);
    AwaitStored();
    ASSERT_EQ(manager.Pause(), VrSuccess);
    EXPECT_EQ(manager.Pause(), VrErrorInvalidState);
    Deliver(480);
    AwaitStored();
    ASSERT_EQ(manager.Resume(), VrSuccess);
    EXPECT_EQ(manager.Resume(), VrErrorInvalidState);
    Deliver(480);
    StopRecording();

    EXPECT_EQ(Length(false), 1'440U);
    EXPECT_EQ(RecordedFrames(), Frames({{0, 480}, {960, 1'440}}));
    // Of PCM, events are logged in frames of the take.
    EXPECT_EQ(VorrelManagerParts::Ranges(manager).GetAvailableRange_Frames(0, 2'000),
              (std::vector<PositionRange>{{0, 480}, {960, 1'440}}));
}

TEST_F(VorrelManagerTest, StartInAPauseSendsRecordStarted) {
    SelectPcm();
    StartRecording();
    Deliver(480);
    AwaitStored();
    ASSERT_EQ(manager.Pause(), VrSuccess);
    Deliver(480);
    AwaitStored();

    ASSERT_EQ(manager.Start(), VrSuccess);
    Deliver(480);
    StopRecording();

    AwaitOperation(VrRecOperationStopped);
    EXPECT_EQ(delegate->Count(VrRecOperationRecordStarted), 1U);
    EXPECT_EQ(RecordedFrames(), Frames({{0, 480}, {960, 1'440}}));
}

TEST_F(VorrelManagerTest, AStopTakesBackARecordStartedThatWasNotSent) {
    SelectPcm();
    StartPreRecording();
    ASSERT_EQ(manager.Start(), VrSuccess);
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    delegate->operations.clear();

    StartPreRecording();
    Deliver(480);
    StopRecording();

    ASSERT_TRUE(DispatchUntil([&] { return delegate->Count(VrRecOperationStopped) == 2; }));
    EXPECT_FALSE(delegate->Has(VrRecOperationRecordStarted));
}

TEST_F(VorrelManagerTest, NewInARecordingIsRefusedAndKeepsTheData) {
    SelectPcm();
    StartRecording();
    Deliver(480);
    AwaitStored();

    EXPECT_EQ(manager.New(), VrErrorInvalidState);

    ASSERT_EQ(manager.Stop(true), VrSuccess);
    EXPECT_EQ(RecordedFrames(), Frames({{0, 480}}));
}

TEST_F(VorrelManagerTest, NewDiscardsTheTakeAndKeepsTheDevice) {
    SelectPcm();
    StartRecording();
    Deliver(480);
    StopRecording();
    ASSERT_EQ(Length(true), 480U);

    ASSERT_EQ(manager.New(), VrSuccess);

    EXPECT_EQ(Length(true), 0U);
    EXPECT_EQ(Length(false), 0U);
    EXPECT_EQ(manager.State(), ManagerState::Ready);
    EXPECT_TRUE(recorder.IsHeldByThisProcess());
}

TEST_F(VorrelManagerTest, ANewTakeBeginsEmpty) {
    SelectPcm();
    StartRecording();
    Deliver(480);
    StopRecording();
    AwaitOperation(VrRecOperationStopped);
    delegate->operations.clear();
    delivered = 0;

    StartRecording();
    Deliver(96);
    StopRecording();

    EXPECT_EQ(RecordedFrames(), Frames({{0, 96}}));
}

TEST_F(VorrelManagerTest, AFailedDeviceStartEndsInReadyWithADeviceError) {
    SelectPcm();
    recorder.audio->FailStart(kAudioHardwareUnspecifiedError);

    ASSERT_EQ(manager.Start(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return !delegate->messages.empty(); }));

    EXPECT_EQ(delegate->log, std::vector<std::string>{"message 0 "});
    EXPECT_EQ(manager.State(), ManagerState::Ready);
    recorder.audio->FailStart(kAudioHardwareNoError);
    StartRecording();  // the workers of the failed start have ended
    Deliver(48);
    StopRecording();
    EXPECT_EQ(RecordedFrames(), Frames({{0, 48}}));
}

TEST_F(VorrelManagerTest, ARefusedBufferSizeFailsTheStart) {
    SelectPcm();
    recorder.audio->FailSet(kAudioDevicePropertyBufferFrameSize, kAudioHardwareUnspecifiedError);

    ASSERT_EQ(manager.StartPreRecording(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return !delegate->messages.empty(); }));

    EXPECT_EQ(delegate->log, std::vector<std::string>{"message 0 "});
    EXPECT_EQ(manager.State(), ManagerState::Ready);
}

TEST_F(VorrelManagerTest, ADeviceWithoutChannelsFailsTheStart) {
    SelectPcm();
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput, {0});

    ASSERT_EQ(manager.Start(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return !delegate->messages.empty(); }));

    EXPECT_EQ(delegate->log, std::vector<std::string>{"message 0 "});
    EXPECT_EQ(manager.State(), ManagerState::Ready);
}

TEST_F(VorrelManagerTest, AsksForFiftyMillisecondsOfThePcmRate) {
    SelectPcm(44'100);
    StartRecording();

    EXPECT_EQ(recorder.BufferFrames(), 2'205U);
}

TEST_F(VorrelManagerTest, AsksForFiftyMillisecondsOfTheDsdRate) {
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();

    EXPECT_EQ(recorder.BufferFrames(), 4'096U);  // of 141,120, clamped by the device
}

TEST_F(VorrelManagerTest, ALostDeviceIsReportedAndTheRecordingGoesOn) {
    SelectPcm();
    StartRecording();
    Deliver(480);
    AwaitStored();

    recorder.Unplug();

    ASSERT_TRUE(DispatchUntil([&] { return !delegate->messages.empty(); }));
    EXPECT_EQ(delegate->messages,
              (std::vector<RecordingDelegate::Message>{{VrMessageDeviceError, ""}}));
    EXPECT_EQ(manager.State(), ManagerState::Recording);
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    EXPECT_EQ(manager.State(), ManagerState::Ready);
    EXPECT_EQ(RecordedFrames(), Frames({{0, 480}}));
}

TEST_F(VorrelManagerTest, AProcessorOverloadIsNotReported) {
    SelectPcm();
    StartRecording();
    delegate->log.clear();

    ASSERT_TRUE(recorder.FireOverload());

    MainQueue::Dispatch();
    EXPECT_TRUE(delegate->log.empty());
    EXPECT_EQ(manager.State(), ManagerState::Recording);
}

TEST_F(VorrelManagerTest, AMessageWithoutTextIsDeliveredAsEmptyText) {
    Init();

    manager.NotifyErrorMessageProc(VrMessageSaveFailed, nullptr);
    manager.NotifyErrorMessageProc(VrMessageFileSkipped, "/takes/\xC3\xA9.wav");

    ASSERT_TRUE(DispatchUntil([&] { return delegate->messages.size() == 2; }));
    EXPECT_EQ(delegate->messages[0], RecordingDelegate::Message(VrMessageSaveFailed, ""));
    EXPECT_EQ(delegate->messages[1],
              RecordingDelegate::Message(VrMessageFileSkipped, "/takes/\xC3\xA9.wav"));
}

TEST_F(VorrelManagerTest, ANotificationsTextOutlivesItsSender) {
    Init();
    {
        const std::string text(100, 'x');
        manager.NotifyErrorMessageProc(VrMessageSaveFailed, text.c_str());
    }

    ASSERT_TRUE(DispatchUntil([&] { return !delegate->messages.empty(); }));
    EXPECT_EQ(delegate->messages[0].second, std::string(100, 'x'));
}

TEST_F(VorrelManagerTest, LoopbackAndPlaybackAreNotSupportedInAnyState) {
    const auto expectRefused = [this] {
        EXPECT_EQ(manager.EnableLoopback(true), VrErrorNotSupported);
        EXPECT_EQ(manager.EnableLoopback(false), VrErrorNotSupported);
        EXPECT_EQ(manager.StartPlay(0.0), VrErrorNotSupported);
    };
    expectRefused();
    SelectPcm();
    expectRefused();
    StartGate gate(recorder);
    ASSERT_EQ(manager.Start(), VrSuccess);
    gate.AwaitReached();
    expectRefused();
    gate.Open();
    AwaitOperation(VrRecOperationDeviceStarted);
    expectRefused();
    ASSERT_EQ(manager.Pause(), VrSuccess);
    expectRefused();
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    expectRefused();
}

TEST_F(VorrelManagerTest, StreamAndPreviewPositionsComeInTenths) {
    SelectPcm();
    StartRecording();
    for (int buffer = 0; buffer < 4; ++buffer) {
        Deliver(2'400);
        AwaitStored();
    }
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    AwaitOperation(VrRecOperationStopped);
    EXPECT_EQ(delegate->streamPositions, (std::vector{1 * 0.1, 2 * 0.1}));
    EXPECT_EQ(delegate->convertPositions, (std::vector{1 * 0.1, 2 * 0.1}));
}

TEST_F(VorrelManagerTest, EverythingButSavingAndReadingIsRefusedWhileAStopIsPending) {
    SelectPcm();
    StartGate gate(recorder);
    ASSERT_EQ(manager.StartPreRecording(), VrSuccess);
    gate.AwaitReached();
    ASSERT_EQ(manager.Stop(false), VrSuccess);

    EXPECT_EQ(manager.Start(), VrErrorInvalidState);
    EXPECT_EQ(manager.StartPreRecording(), VrErrorInvalidState);
    EXPECT_EQ(manager.Stop(true), VrErrorInvalidState);
    EXPECT_EQ(manager.Pause(), VrErrorInvalidState);
    EXPECT_EQ(manager.Resume(), VrErrorInvalidState);
    EXPECT_EQ(manager.New(), VrErrorInvalidState);
    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorInvalidState);
    EXPECT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrErrorInvalidState);
    EXPECT_EQ(TrySet(0, 48'000, 16), VrErrorInvalidState);
    EXPECT_EQ(manager.EnableLoopback(true), VrErrorNotSupported);
    EXPECT_EQ(manager.StartPlay(0.0), VrErrorNotSupported);

    gate.Open();
    AwaitOperation(VrRecOperationStopped);
    EXPECT_EQ(delegate->Count(VrRecOperationStopped), 1U);
}

TEST_F(VorrelManagerTest, AStopThatIsRunningIsStillAStop) {
    SelectPcm();
    // What a host would be told between the start that a pending stop lets run and that stop.
    std::vector<ManagerState> seen;
    recorder.audio->onStop = [&] { seen.push_back(manager.State()); };
    StartGate gate(recorder);
    ASSERT_EQ(manager.StartPreRecording(), VrSuccess);
    gate.AwaitReached();
    ASSERT_EQ(manager.Stop(false), VrSuccess);
    gate.Open();

    AwaitOperation(VrRecOperationStopped);

    EXPECT_EQ(seen, std::vector{ManagerState::Stopping});
    EXPECT_EQ(manager.State(), ManagerState::Ready);
}

TEST_F(VorrelManagerTest, NothingThatConfiguresIsAcceptedWhileStarting) {
    SelectPcm();
    StartGate gate(recorder);
    ASSERT_EQ(manager.Start(), VrSuccess);
    gate.AwaitReached();

    EXPECT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrErrorInvalidState);
    EXPECT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrErrorInvalidState);
    EXPECT_EQ(TrySet(0, 48'000, 16), VrErrorInvalidState);

    gate.Open();
    AwaitOperation(VrRecOperationDeviceStarted);
}

TEST_F(VorrelManagerTest, AnUnknownRateFailsTheStart) {
    SelectPcm();
    // A format for any rate is set with the rate that was asked for, whatever it is.
    recorder.SetFormats({AnyRate(0.0, 1e12, 24, 2)});
    ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
    const std::uint32_t bufferFrames = recorder.BufferFrames();
    for (const std::uint64_t rateHz : {std::uint64_t{0}, std::uint64_t{100'000'000'000}}) {
        delegate->log.clear();
        Set(0, rateHz, 16);

        ASSERT_EQ(manager.Start(), VrSuccess);
        ASSERT_TRUE(DispatchUntil([&] { return !delegate->log.empty(); }));

        EXPECT_EQ(delegate->log, std::vector<std::string>{"message 0 "}) << rateHz;
        EXPECT_EQ(manager.State(), ManagerState::Ready);
        EXPECT_EQ(recorder.BufferFrames(), bufferFrames) << rateHz;  // it does not come so far
    }
}

TEST_F(VorrelManagerTest, AStartBeginsFromOneHertzOn) {
    SelectPcm();
    recorder.SetFormats({AnyRate(0.0, 1e12, 24, 2)});
    ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
    Set(0, 1, 16);

    StartRecording();

    ASSERT_EQ(manager.Stop(true), VrSuccess);
}

TEST_F(VorrelManagerTest, EventsOfADsdTakeFallOnPreviewFrames) {
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    // 400 device frames of 16 bits: 6,400 one-bit samples, 100 preview frames.
    std::vector<float> samples(2 * 400, 0.0F);
    const auto deliver = [&](std::uint64_t previewFrames) {
        ASSERT_TRUE(recorder.Deliver(2, samples));
        ASSERT_TRUE(DispatchUntil([&] { return Length(false) == previewFrames; }));
    };
    deliver(100);
    ASSERT_EQ(manager.Pause(), VrSuccess);
    deliver(200);
    ASSERT_EQ(manager.Resume(), VrSuccess);
    deliver(300);
    ASSERT_EQ(manager.Stop(true), VrSuccess);

    // 100 frames before the pause and 100 after it.
    EXPECT_EQ(Length(true), 200U);
}

TEST_F(VorrelManagerTest, TwoManagersRecordBesideEachOther) {
    FakeRecorder otherRecorder;
    const auto otherDelegate = std::make_shared<RecordingDelegate>();
    VorrelManager other(otherRecorder.Provider());
    SelectPcm();
    ASSERT_EQ(other.Init(otherDelegate), VrSuccess);
    ASSERT_EQ(other.SetTempDirectory(directory.Path().c_str()), VrSuccess);
    ASSERT_EQ(other.SetAudioDevice(kSupportedDeviceName), VrSuccess);
    StartRecording();
    ASSERT_EQ(other.Start(), VrSuccess);
    ASSERT_TRUE(DispatchUntil([&] { return otherDelegate->Has(VrRecOperationDeviceStarted); }));

    Deliver(480);
    StopRecording();
    ASSERT_EQ(other.Stop(true), VrSuccess);

    EXPECT_EQ(Length(true), 480U);
    std::uint64_t length = 1;
    ASSERT_EQ(other.GetPreviewDataLength(&length, true), VrSuccess);
    EXPECT_EQ(length, 0U);
}

TEST(VorrelManagerLifeTest, AManagerMayGoInTheMiddleOfARecording) {
    TempDirectory directory;
    FakeRecorder recorder;
    {
        VorrelManager manager(recorder.Provider());
        ASSERT_EQ(manager.Init(std::make_shared<RecordingDelegate>()), VrSuccess);
        ASSERT_EQ(manager.SetTempDirectory(directory.Path().c_str()), VrSuccess);
        ASSERT_EQ(manager.SetAudioDevice(kSupportedDeviceName), VrSuccess);
        ASSERT_EQ(manager.Start(), VrSuccess);
    }

    EXPECT_EQ(recorder.HogOwner(), -1);
    EXPECT_TRUE(recorder.audio->IoProcs().empty());
    MainQueue::Dispatch();  // what it still had to say finds its delegate
}

}  // namespace
}  // namespace vorrel::test
