#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "ManagerRig.h"
#include "support/AllocationGuard.h"
#include "support/FileCallGuard.h"

namespace vorrel::test {
namespace {

/// The device's callback may not allocate, free, touch a file or sleep, from the first buffer on.
class RealtimeTest : public ManagerRig {
protected:
    void ExpectQuiet() {
        EXPECT_EQ(allocations.Count(), 0U);
        EXPECT_EQ(allocations.Frees(), 0U);
        EXPECT_EQ(fileCalls.Count(), 0U) << FileCallGuard::Last();
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

TEST_F(RealtimeTest, AFullQueueAndItsMessageAreQuiet) {
    SelectPcm(48'000);
    StartRecording();
    std::vector<float> samples(2 * 2'400, 0.5F);
    {
        const MutexLock stall(VorrelManagerParts::TurnLock(manager));  // as a disk that stalls
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
