#include "pipeline/RecThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Realtime.h"
#include "support/AllocationGuard.h"
#include "support/FakeManager.h"
#include "support/TempDirectory.h"
#include "support/ThreadBaseParts.h"

namespace vorrel {
namespace {

using test::FakeManager;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr std::uint64_t kRateHz = 44'100;

class RecThreadTest : public testing::Test {
protected:
    void Begin(std::uint16_t channels, std::uint64_t rateHz = kRateHz) {
        ASSERT_EQ(queue.Init(channels), VrSuccess);
        ASSERT_EQ(data.Init(channels, rateHz, GetSampleTypeInfo(kSampleTypePcm), &ranges),
                  VrSuccess);
    }

    /// A block of `samples` float samples, each of them `value`.
    static Block Samples(std::size_t samples, float value) {
        Block block(samples * sizeof(float));
        for (std::size_t n = 0; n < samples; ++n) {
            std::memcpy(block.data() + n * sizeof(float), &value, sizeof value);
        }
        return block;
    }

    void Enqueue(std::uint16_t channel, std::size_t samples, float value = 0) {
        ASSERT_EQ(queue.Enqueue(channel, Samples(samples, value)), VrSuccess);
    }

    std::vector<float> Stored(std::uint16_t channel, std::uint64_t from, std::uint64_t to,
                              bool available) {
        AlignedBytes bytes;
        EXPECT_EQ(data.GetData(channel, from, to, bytes, available), VrSuccess);
        std::vector<float> samples(bytes.size() / sizeof(float));
        if (!samples.empty()) {
            std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
        }
        return samples;
    }

    /// Wakes the worker and waits until it has drained the queue.
    void Pass() {
        const int before = manager.DataNotifications();
        worker.AddDataNotify();
        ASSERT_TRUE(manager.WaitUntil([&] { return manager.DataNotifications() > before; }));
    }

    test::TempDirectory directory;
    FakeManager manager{directory.Path()};
    RecordRangeManager ranges;
    AsioDataQueue queue;
    RecordData data{manager};
    RecThread worker{manager};
};

TEST_F(RecThreadTest, StartRefusesAMissingQueueStoreOrChannel) {
    Begin(1);

    EXPECT_EQ(worker.Start(nullptr, &data, 1), VrErrorInvalidParameter);
    EXPECT_EQ(worker.Start(&queue, nullptr, 1), VrErrorInvalidParameter);
    EXPECT_EQ(worker.Start(&queue, &data, 0), VrErrorInvalidParameter);
    EXPECT_FALSE(worker.Joinable());
}

TEST_F(RecThreadTest, RunsAtHighPriority) {
    Begin(1);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);

    EXPECT_EQ(ThreadBaseParts::PriorityOf(worker), PriorityHigh);
}

TEST_F(RecThreadTest, StartRefusesARunningWorker) {
    Begin(1);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);

    EXPECT_EQ(worker.Start(&queue, &data, 1), VrErrorFailed);
    EXPECT_TRUE(worker.Joinable());
}

TEST_F(RecThreadTest, ARefusedStartLeavesTheRunningWorkerAtItsQueue) {
    Begin(1);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);
    AsioDataQueue otherQueue;
    ASSERT_EQ(otherQueue.Init(1), VrSuccess);
    RecordData otherData(manager);

    EXPECT_EQ(worker.Start(&otherQueue, &otherData, 1), VrErrorFailed);

    Enqueue(0, 10);
    Pass();
    EXPECT_EQ(data.GetLength(false), 10U);
}

TEST_F(RecThreadTest, AddDataNotifyAndStopWithoutAStartDoNothing) {
    worker.AddDataNotify();
    worker.Stop();

    EXPECT_FALSE(worker.Joinable());
    EXPECT_EQ(manager.DataNotifications(), 0);
}

TEST_F(RecThreadTest, StopStoresEveryBlockQueuedBefore) {
    Begin(2);
    for (int count = 0; count < 100; ++count) {
        Enqueue(0, 10, 1.0F);
        Enqueue(1, 10, 2.0F);
    }
    ASSERT_EQ(worker.Start(&queue, &data, 2), VrSuccess);

    worker.Stop();

    EXPECT_EQ(data.GetLength(false), 1000U);
    EXPECT_EQ(Stored(0, 0, 1000, false), std::vector<float>(1000, 1.0F));
    EXPECT_EQ(Stored(1, 0, 1000, false), std::vector<float>(1000, 2.0F));
}

TEST_F(RecThreadTest, StopStoresABlockQueuedWhileAPassIsEnding) {
    for (int round = 0; round < 100; ++round) {
        Begin(1);
        ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);
        Enqueue(0, 10);
        worker.AddDataNotify();
        Enqueue(0, 10);

        worker.Stop();

        ASSERT_EQ(data.GetLength(false), 20U);
    }
}

TEST_F(RecThreadTest, StopStoresWhatAChannelHasLeftOfATurnThatNeverBecameWhole) {
    Begin(2);
    Enqueue(0, 10, 1.0F);
    Enqueue(1, 10, 2.0F);
    Enqueue(0, 10, 3.0F);  // its fellow of channel 1 was lost
    ASSERT_EQ(worker.Start(&queue, &data, 2), VrSuccess);

    worker.Stop();

    EXPECT_EQ(data.GetLength(false), 10U);
    EXPECT_EQ(Stored(0, 10, 20, false), std::vector<float>(10, 3.0F));
}

TEST_F(RecThreadTest, APassThatEndsBetweenTwoChannelsIsTakenUpThere) {
    Begin(2);
    ASSERT_EQ(worker.Start(&queue, &data, 2), VrSuccess);
    Enqueue(0, 10, 1.0F);
    Pass();
    EXPECT_EQ(data.GetLength(false), 0U);

    Enqueue(1, 10, 2.0F);
    Enqueue(0, 10, 3.0F);
    Enqueue(1, 10, 4.0F);
    Pass();

    std::vector<float> first(20, 1.0F);
    std::fill(first.begin() + 10, first.end(), 3.0F);
    std::vector<float> second(20, 2.0F);
    std::fill(second.begin() + 10, second.end(), 4.0F);
    EXPECT_EQ(Stored(0, 0, 20, false), first);
    EXPECT_EQ(Stored(1, 0, 20, false), second);
}

TEST_F(RecThreadTest, AnEmptyBlockEndsAPassAndTheNextTakesWhatIsBehindIt) {
    Begin(1);
    Enqueue(0, 10, 1.0F);
    ASSERT_EQ(queue.Enqueue(0, Block()), VrSuccess);
    Enqueue(0, 10, 2.0F);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);

    Pass();
    EXPECT_EQ(data.GetLength(false), 10U);
    Pass();
    EXPECT_EQ(data.GetLength(false), 20U);
}

TEST_F(RecThreadTest, EveryWakeUpWakesTheConvertWorkerAlsoWithoutData) {
    Begin(1);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);

    Pass();
    Pass();
    worker.Stop();

    EXPECT_EQ(manager.DataNotifications(), 3);
}

TEST_F(RecThreadTest, SendsThePositionOnlyWhenTheTenthChanges) {
    Begin(2);
    ranges.AddRecordEvent(0, kRecordEventRecord);
    for (int count = 0; count < 40; ++count) {  // 40 x 882 frames = 35,280 = 0.8 s
        Enqueue(0, 882);
        Enqueue(1, 882);
    }
    ASSERT_EQ(worker.Start(&queue, &data, 2), VrSuccess);

    worker.Stop();

    EXPECT_THAT(manager.StreamPositions(), ElementsAre(1 * 0.1, 2 * 0.1, 3 * 0.1, 4 * 0.1, 5 * 0.1,
                                                       6 * 0.1, 7 * 0.1, 8 * 0.1));
}

TEST_F(RecThreadTest, SkipsTheTenthsThatALongBlockPasses) {
    Begin(1);
    ranges.AddRecordEvent(0, kRecordEventRecord);
    Enqueue(0, 4409);    // a frame short of 0.1 s
    Enqueue(0, 13'230);  // 17,639 frames: a frame short of 0.4 s
    Enqueue(0, 1);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);

    worker.Stop();

    EXPECT_THAT(manager.StreamPositions(), ElementsAre(3 * 0.1, 4 * 0.1));
}

TEST_F(RecThreadTest, ThePositionCountsOnlyWhatIsRecorded) {
    Begin(1);
    Enqueue(0, 44'100);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);
    Pass();
    EXPECT_THAT(manager.StreamPositions(), IsEmpty());

    ranges.AddRecordEvent(44'100, kRecordEventRecord);
    Enqueue(0, 4410);
    worker.Stop();

    EXPECT_THAT(manager.StreamPositions(), ElementsAre(1 * 0.1));
}

TEST_F(RecThreadTest, AFailedStoreIsAWriteFailureWhileTheTemporaryDirectoryExists) {
    Begin(1, 100);  // five seconds of memory: 2,000 bytes
    ranges.AddRecordEvent(0, kRecordEventRecord);
    std::filesystem::remove_all(directory.Path());
    Enqueue(0, 600);
    Enqueue(0, 600);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);

    worker.AddDataNotify();
    worker.WaitFinished();

    EXPECT_THAT(manager.Messages(), ElementsAre(Pair(VrMessageRecordWriteFailed, "")));
    EXPECT_EQ(manager.DataNotifications(), 1) << "the convert worker still gets what was stored";
    EXPECT_TRUE(worker.Joinable());
    EXPECT_EQ(worker.Start(&queue, &data, 1), VrErrorFailed) << "not joined yet";
    worker.Stop();
    EXPECT_FALSE(worker.Joinable());
    EXPECT_EQ(worker.Start(&queue, &data, 1), VrSuccess);
}

TEST_F(RecThreadTest, AFailedStoreIsAMissingDirectoryWhenTheTemporaryDirectoryIsGone) {
    Begin(1, 100);
    ranges.AddRecordEvent(0, kRecordEventRecord);
    std::filesystem::remove_all(directory.Path());
    manager.tempDirectoryExists = false;
    Enqueue(0, 600);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);

    worker.AddDataNotify();
    worker.WaitFinished();
    worker.AddDataNotify();
    worker.Stop();

    EXPECT_THAT(manager.Messages(), ElementsAre(Pair(VrMessageTempDirectoryMissing, "")));
    EXPECT_FALSE(worker.Joinable());
}

TEST_F(RecThreadTest, AFailureInTheLastTurnIsReportedOnce) {
    Begin(2);
    ASSERT_EQ(data.Init(1, kRateHz, GetSampleTypeInfo(kSampleTypePcm), &ranges), VrSuccess);
    Enqueue(0, 10);
    Enqueue(1, 10);  // a channel that the store does not have
    ASSERT_EQ(worker.Start(&queue, &data, 2), VrSuccess);

    worker.Stop();

    EXPECT_THAT(manager.Messages(), ElementsAre(Pair(VrMessageRecordWriteFailed, "")));
    EXPECT_EQ(data.GetLength(false), 10U);
}

TEST_F(RecThreadTest, ANotificationThatThrowsEndsTheWorkerLikeAFailedStore) {
    Begin(1);
    manager.onStreamPosition = [] { throw std::bad_alloc(); };
    ranges.AddRecordEvent(0, kRecordEventRecord);
    Enqueue(0, 44'100);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);

    worker.AddDataNotify();
    worker.WaitFinished();

    EXPECT_THAT(manager.Messages(), ElementsAre(Pair(VrMessageRecordWriteFailed, "")));
    EXPECT_EQ(data.GetLength(false), 44'100U) << "what was stored stays";
    worker.Stop();
}

TEST_F(RecThreadTest, AfterAFailureLaterBlocksStayInTheQueue) {
    Begin(1);
    ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);
    Enqueue(0, 10, 1.0F);
    RecordRangeManager* const none = nullptr;
    ASSERT_EQ(data.Init(1, kRateHz, GetSampleTypeInfo(kSampleTypePcm), none), VrSuccess);
    Enqueue(0, 10, 2.0F);

    worker.Stop();

    Block left;
    ASSERT_EQ(queue.Dequeue(0, left), VrSuccess);
    EXPECT_EQ(left, Samples(10, 2.0F));
}

TEST_F(RecThreadTest, StartsAgainAfterStop) {
    for (int round = 0; round < 3; ++round) {
        Begin(1);
        ASSERT_EQ(worker.Start(&queue, &data, 1), VrSuccess);
        Enqueue(0, 10);

        worker.Stop();

        ASSERT_EQ(data.GetLength(false), 10U);
    }
}

TEST_F(RecThreadTest, TheCallbackAllocatesNothingWhileTheWorkerFollows) {
    constexpr std::size_t kBlockBytes = 441 * sizeof(float);
    Begin(2);
    queue.ReserveBlocks(kBlockBytes);
    ASSERT_EQ(worker.Start(&queue, &data, 2), VrSuccess);
    const test::AllocationGuard guard;

    for (int buffer = 0; buffer < 300; ++buffer) {
        const RealtimeScope realtime;
        for (std::uint16_t channel = 0; channel < 2; ++channel) {
            Block block = queue.TakeBlock(kBlockBytes);
            std::memset(block.data(), 0, block.size());
            ASSERT_EQ(queue.Enqueue(channel, std::move(block)), VrSuccess);
        }
        worker.AddDataNotify();
    }
    worker.Stop();

    EXPECT_EQ(guard.Count(), 0U);
    EXPECT_EQ(guard.Frees(), 0U);
    EXPECT_EQ(data.GetLength(false), 300 * 441U);
}

TEST_F(RecThreadTest, NoEventFallsBetweenTwoChannelsOfOneBuffer) {
    constexpr std::uint16_t kChannels = 4;
    constexpr int kBuffers = 400;
    constexpr std::size_t kFrames = 32;
    Begin(kChannels);
    ASSERT_EQ(worker.Start(&queue, &data, kChannels), VrSuccess);
    std::atomic<bool> done{false};
    std::thread events([&] {
        int event = kRecordEventRecord;
        AlignedBytes bytes;
        while (!done) {
            {
                const ExclusiveLock lock(data.TurnLock());
                const std::uint64_t length = data.GetLength(false);
                for (std::uint16_t channel = 0; channel < kChannels; ++channel) {
                    EXPECT_NE(data.GetData(channel, length, length + 1, bytes, false), VrSuccess)
                        << "channel " << channel << " is ahead of the others";
                }
                ranges.AddRecordEvent(length, event);
            }
            event = event == kRecordEventPause ? kRecordEventResume : kRecordEventPause;
            std::this_thread::yield();
        }
    });

    for (int buffer = 0; buffer < kBuffers; ++buffer) {
        for (std::uint16_t channel = 0; channel < kChannels; ++channel) {
            Enqueue(channel, kFrames, static_cast<float>(buffer));
        }
        worker.AddDataNotify();
        std::this_thread::yield();
    }
    worker.Stop();
    done = true;
    events.join();

    EXPECT_EQ(data.GetLength(false), kBuffers * kFrames);
    const std::uint64_t recorded = data.GetLength(true);
    if (recorded > 0) {
        const std::vector<float> first = Stored(0, 0, recorded, true);
        for (std::uint16_t channel = 1; channel < kChannels; ++channel) {
            EXPECT_EQ(Stored(channel, 0, recorded, true), first);
        }
    }
}

}  // namespace
}  // namespace vorrel
