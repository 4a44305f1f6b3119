#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "ManagerRig.h"
#include "support/AllocationGuard.h"
#include "support/FileCallGuard.h"
#include "support/LockGuard.h"

namespace vorrel::test {
namespace {

/// The device's callback may not allocate, free, touch a file, sleep or wait, from the first buffer
/// on, nor lock but the queue's mutex and that of the record worker's event.
class RealtimeTest : public ManagerRig {
protected:
    void ExpectQuiet() {
        EXPECT_EQ(allocations.Count(), 0U);
        EXPECT_EQ(allocations.Frees(), 0U);
        EXPECT_EQ(fileCalls.Count(), 0U) << FileCallGuard::Last();
        EXPECT_GT(locks.Count(), 0U);  // the guard sees what it is to count
        EXPECT_LE(locks.Mutexes(), 2U);
        EXPECT_EQ(locks.Waits(), 0U);
    }
    /// Delivers the same buffer again and again, waiting until each is stored.
    void DeliverStored(std::uint32_t channels, std::vector<float>& samples, int buffers,
                       std::uint64_t framesPerBuffer) {
        for (int buffer = 0; buffer < buffers; ++buffer) {
            ASSERT_TRUE(recorder.Deliver(channels, samples));
            stored += framesPerBuffer;
            ASSERT_TRUE(DispatchUntil([&] { return Length(false) == stored; }));
        }
    }

    AllocationGuard allocations;
    FileCallGuard fileCalls;
    LockGuard locks;
    std::uint64_t stored = 0;
};

TEST_F(RealtimeTest, APcmCallbackIsQuietFromTheFirstBufferOn) {
    SelectPcm(384'000);
    StartRecording();
    std::vector<float> samples(2 * 4'096, 0.5F);

    DeliverStored(2, samples, 50, 4'096);

    ExpectQuiet();
}

TEST_F(RealtimeTest, EightChannelsInTwoBuffersAreQuiet) {
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput, {6, 2});
    SelectPcm(48'000);
    StartRecording();
    std::vector<float> front(6 * 2'400, 0.5F);
    std::vector<float> rear(2 * 2'400, 0.25F);
    struct {
        UInt32 count = 2;
        AudioBuffer buffers[2];
    } list;
    list.buffers[0] = {6, static_cast<UInt32>(front.size() * sizeof(float)), front.data()};
    list.buffers[1] = {2, static_cast<UInt32>(rear.size() * sizeof(float)), rear.data()};

    for (int buffer = 0; buffer < 20; ++buffer) {
        ASSERT_TRUE(recorder.Deliver(reinterpret_cast<const AudioBufferList*>(&list)));
        stored += 2'400;
        ASSERT_TRUE(DispatchUntil([&] { return Length(false) == stored; }));
    }

    ExpectQuiet();
}

TEST_F(RealtimeTest, ADsdCallbackIsQuiet) {
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    std::vector<float> samples(2 * 4'096, 0.0F);

    DeliverStored(2, samples, 30, 1'024);

    ExpectQuiet();
}

TEST_F(RealtimeTest, EightDsdChannelsAtTheHighestRateAreQuiet) {
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput, {8});
    Select();
    Set(1, 11'289'600, 0);
    StartRecording();
    std::vector<float> samples(8 * 4'096, 0.25F);

    DeliverStored(8, samples, 30, 1'024);

    ExpectQuiet();
}

TEST_F(RealtimeTest, MoreChannelsThanASplitTakesAtOnceAreQuiet) {
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput, {40});
    SelectPcm(48'000);
    StartRecording();
    std::vector<float> samples(40 * 1'024, 0.25F);

    DeliverStored(40, samples, 20, 1'024);

    ExpectQuiet();
}

TEST_F(RealtimeTest, MoreDsdChannelsThanASplitTakesAtOnceAreQuiet) {
    recorder.audio->SetBuffers(FakeRecorder::kDevice, kAudioObjectPropertyScopeInput, {40});
    Select();
    Set(1, 2'822'400, 0);
    StartRecording();
    std::vector<float> samples(40 * 1'024, 0.25F);

    DeliverStored(40, samples, 20, 256);

    ExpectQuiet();
}

TEST_F(RealtimeTest, TheRecordStartedMessageIsQuiet) {
    SelectPcm();
    StartPreRecording();
    ASSERT_EQ(manager.Start(), VrSuccess);
    std::vector<float> samples(2 * 2'400, 0.5F);

    DeliverStored(2, samples, 1, 2'400);

    ExpectQuiet();
    AwaitOperation(VrRecOperationRecordStarted);
}

TEST_F(RealtimeTest, TheRecordStartedMessageIsQuietInADsdRecording) {
    Select();
    Set(1, 2'822'400, 0);
    StartPreRecording();
    std::vector<float> samples(2 * 4'096, 0.5F);
    DeliverStored(2, samples, 1, 1'024);
    ASSERT_EQ(manager.Start(), VrSuccess);

    DeliverStored(2, samples, 2, 1'024);

    ExpectQuiet();
    AwaitOperation(VrRecOperationRecordStarted);
}

TEST_F(RealtimeTest, RecordStartedMessagesThatNobodyTakesAreQuiet) {
    SelectPcm();
    StartPreRecording();
    std::vector<float> samples(2 * 2'400, 0.5F);

    for (int message = 0; message < 40; ++message) {  // 16 may wait at once
        ASSERT_EQ(manager.Start(), VrSuccess);
        ASSERT_TRUE(recorder.Deliver(2, samples));
        ASSERT_EQ(manager.Pause(), VrSuccess);
    }

    ExpectQuiet();
}

TEST_F(RealtimeTest, AFullQueueIsQuietInADsdRecording) {
    Select();
    Set(1, 11'289'600, 0);
    StartRecording();
    std::vector<float> samples(2 * 4'096, 0.5F);
    {
        const ExclusiveLock stall(VorrelManagerParts::TurnLock(manager));
        for (int buffer = 0; buffer < 1'400; ++buffer) {  // 10 MiB of 8,192 bytes: 1,280
            ASSERT_TRUE(recorder.Deliver(2, samples));
        }
    }

    ExpectQuiet();
    ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(VrMessageBufferOverflow); }));
}

TEST_F(RealtimeTest, PausesAndAStopInBetweenAreQuiet) {
    SelectPcm();
    std::vector<float> samples(2 * 2'400, 0.5F);
    for (int take = 0; take < 3; ++take) {
        ASSERT_EQ(manager.Start(), VrSuccess);
        ASSERT_TRUE(DispatchUntil([&] { return manager.State() == ManagerState::Recording; }));
        ASSERT_TRUE(recorder.Deliver(2, samples));
        ASSERT_EQ(manager.Pause(), VrSuccess);
        ASSERT_TRUE(recorder.Deliver(2, samples));
        ASSERT_EQ(manager.Resume(), VrSuccess);
        ASSERT_TRUE(recorder.Deliver(2, samples));
        ASSERT_EQ(manager.Stop(true), VrSuccess);
    }

    ExpectQuiet();
}

TEST_F(RealtimeTest, ABufferThatComesAfterTheStopIsQuiet) {
    SelectPcm();
    StartRecording();
    std::vector<float> samples(2 * 2'400, 0.5F);
    ASSERT_TRUE(recorder.Deliver(2, samples));
    ASSERT_EQ(manager.Stop(true), VrSuccess);
    AudioBufferList list{
        1, {{2, static_cast<UInt32>(samples.size() * sizeof(float)), samples.data()}}};

    for (int buffer = 0; buffer < 20; ++buffer) {
        manager.AudioDevice_IOProc(&list, nullptr);
    }

    ExpectQuiet();
}

TEST_F(RealtimeTest, BuffersWithoutSamplesAreQuiet) {
    SelectPcm();
    StartRecording();
    AudioBufferList silent{1, {{2, 2 * 2'400 * sizeof(float), nullptr}}};
    AudioBufferList none{0, {}};
    AudioBufferList noChannels{1, {{0, 0, nullptr}}};

    for (int buffer = 0; buffer < 5; ++buffer) {
        ASSERT_TRUE(recorder.Deliver(&silent));
        ASSERT_TRUE(recorder.Deliver(&none));
        ASSERT_TRUE(recorder.Deliver(&noChannels));
    }
    ASSERT_TRUE(DispatchUntil([&] { return Length(false) == 5 * 2'400; }));

    ExpectQuiet();
}

TEST_F(RealtimeTest, AFullQueueAndItsMessageAreQuiet) {
    SelectPcm(48'000);
    StartRecording();
    std::vector<float> samples(2 * 2'400, 0.5F);
    {
        const ExclusiveLock stall(VorrelManagerParts::TurnLock(manager));  // as a disk that stalls
        for (int buffer = 0; buffer < 1'200; ++buffer) {  // 10 MiB of 9,600 bytes: 1,093
            ASSERT_TRUE(recorder.Deliver(2, samples));
        }
    }

    ExpectQuiet();
    ASSERT_TRUE(DispatchUntil([&] { return delegate->Has(VrMessageBufferOverflow); }));
    EXPECT_EQ(delegate->Count(VrMessageBufferOverflow), 1U);
}

}  // namespace
}  // namespace vorrel::test
