#include "pipeline/ConvertThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "pipeline/RecThread.h"
#include "support/FakeManager.h"
#include "support/TempDirectory.h"
#include "support/ThreadBaseParts.h"

namespace vorrel {
namespace {

using test::FakeManager;
using testing::ElementsAre;
using testing::IsEmpty;

class ConvertThreadTest : public testing::Test {
protected:
    void Begin(std::uint16_t channels, std::int64_t sampleType, std::uint64_t rateHz,
               std::uint64_t previewRateHz) {
        ASSERT_EQ(record.Init(channels, rateHz, GetSampleTypeInfo(sampleType), &ranges), VrSuccess);
        ASSERT_EQ(preview.Init(channels, previewRateHz, &ranges), VrSuccess);
    }

    void Store(std::uint16_t channel, const std::vector<float>& samples) {
        AlignedBytes bytes(samples.size() * sizeof(float));
        std::memcpy(bytes.data(), samples.data(), bytes.size());
        ASSERT_EQ(record.Add(channel, bytes), VrSuccess);
    }
    void StoreBytes(std::uint16_t channel, const AlignedBytes& bytes) {
        ASSERT_EQ(record.Add(channel, bytes), VrSuccess);
    }

    std::vector<std::int16_t> Preview(std::uint64_t from, std::uint64_t to) {
        std::vector<std::int16_t> samples;
        EXPECT_EQ(preview.GetData(from, to, samples, false), VrSuccess);
        return samples;
    }

    /// Wakes the worker and waits until the preview has `frames` frames.
    void WaitForPreview(std::uint64_t frames) {
        worker.AddDataNotify();
        ASSERT_TRUE(manager.WaitUntil([&] { return preview.GetLength(false) >= frames; }));
    }

    test::TempDirectory directory;
    FakeManager manager{directory.Path()};
    RecordRangeManager ranges;
    RecordData record{manager};
    PreviewData preview{manager};
    ConvertThread worker{manager};
};

TEST_F(ConvertThreadTest, StartRefusesAMissingStore) {
    EXPECT_EQ(worker.Start(nullptr, &preview), VrErrorInvalidParameter);
    EXPECT_EQ(worker.Start(&record, nullptr), VrErrorInvalidParameter);
    EXPECT_FALSE(worker.Joinable());
}

TEST_F(ConvertThreadTest, RunsAtHighPriority) {
    Begin(1, kSampleTypePcm, 48'000, 48'000);
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

    EXPECT_EQ(ThreadBaseParts::PriorityOf(worker), PriorityHigh);
}

TEST_F(ConvertThreadTest, StartRefusesARunningWorker) {
    Begin(1, kSampleTypePcm, 48'000, 48'000);
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

    EXPECT_EQ(worker.Start(&record, &preview), VrErrorFailed);
    EXPECT_TRUE(worker.Joinable());
}

TEST_F(ConvertThreadTest, ARefusedStartLeavesTheRunningWorkerAtItsStores) {
    Begin(1, kSampleTypePcm, 48'000, 48'000);
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);
    PreviewData other(manager);
    ASSERT_EQ(other.Init(1, 48'000, &ranges), VrSuccess);

    EXPECT_EQ(worker.Start(&record, &other), VrErrorFailed);

    Store(0, std::vector<float>(10, 0.5F));
    WaitForPreview(10);
    EXPECT_EQ(other.GetLength(false), 0U);
}

TEST_F(ConvertThreadTest, StopAndAddDataNotifyWithoutAStartReturnAtOnce) {
    worker.AddDataNotify();
    worker.Stop();

    EXPECT_FALSE(worker.Joinable());
}

TEST_F(ConvertThreadTest, ConvertsPcmInChunksAndReportsEachTenthOnce) {
    Begin(1, kSampleTypePcm, 48'000, 48'000);
    Store(0, std::vector<float>(10'000, 0.5F));
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

    worker.Stop();

    // 4,096 frames are 0 tenths, 8,192 are 1, 10,000 are 2.
    EXPECT_EQ(preview.GetLength(false), 10'000U);
    EXPECT_EQ(Preview(0, 10'000), std::vector<std::int16_t>(10'000, 16'384));
    EXPECT_THAT(manager.ConvertPositions(), ElementsAre(1 * 0.1, 2 * 0.1));
}

TEST_F(ConvertThreadTest, AChunkHasAtMost4096Frames) {
    Begin(1, kSampleTypePcm, 10'000, 10);  // a preview frame is a tenth: each chunk's end shows
    Store(0, std::vector<float>(4096 + 4096 + 1, 0.5F));
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

    worker.Stop();

    EXPECT_THAT(manager.ConvertPositions(), ElementsAre(4096 * 0.1, 8192 * 0.1, 8193 * 0.1));
}

TEST_F(ConvertThreadTest, InterleavesTheChannelsOfPcm) {
    Begin(2, kSampleTypePcm, 48'000, 48'000);
    Store(0, {0.0F, 0.25F, 0.5F});
    Store(1, {-1.0F, -0.5F, -0.25F});
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

    worker.Stop();

    EXPECT_THAT(Preview(0, 3), ElementsAre(0, -32768, 8192, -16384, 16384, -8192));
}

TEST_F(ConvertThreadTest, ConvertsOnlyWhatEveryChannelHas) {
    Begin(2, kSampleTypePcm, 48'000, 48'000);
    Store(0, {0.25F, 0.5F});
    Store(1, {0.5F});
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);
    WaitForPreview(1);

    Store(1, {-0.5F});
    worker.Stop();

    EXPECT_THAT(Preview(0, 2), ElementsAre(8192, 16384, 16384, -16384));
}

TEST_F(ConvertThreadTest, ConvertsWholeFramesOfDsdAndLeavesTheRestForTheNextPass) {
    Begin(1, kSampleTypeDsd, 2'822'400, 44'100);
    StoreBytes(0, AlignedBytes(13, 0x69));  // 104 one-bit samples: one frame, 40 left
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);
    WaitForPreview(1);
    EXPECT_EQ(preview.GetLength(false), 1U);

    StoreBytes(0, AlignedBytes(2, 0x69));  // 56 left: still no frame
    StoreBytes(0, AlignedBytes(1, 0x69));  // 64
    worker.Stop();

    EXPECT_EQ(preview.GetLength(false), 2U);
}

TEST_F(ConvertThreadTest, LessThanAFrameOfDsdGivesNone) {
    Begin(1, kSampleTypeDsd, 2'822'400, 44'100);
    StoreBytes(0, AlignedBytes(7, 0x69));
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

    worker.Stop();

    EXPECT_EQ(preview.GetLength(false), 0U);
    EXPECT_THAT(manager.ConvertPositions(), IsEmpty());
}

TEST_F(ConvertThreadTest, TheDsdFilterRunsOnAcrossChunksAndPasses) {
    constexpr std::size_t kFrames = 5000;
    Begin(2, kSampleTypeDsd, 2'822'400, 44'100);
    AlignedBytes bits[2] = {AlignedBytes(kFrames * 8), AlignedBytes(kFrames * 8)};
    std::uint32_t seed = 1;
    for (AlignedBytes& channel : bits) {
        for (std::uint8_t& byte : channel) {
            seed = seed * 1'664'525 + 1'013'904'223;
            byte = static_cast<std::uint8_t>(seed >> 24);
        }
    }
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);
    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        StoreBytes(channel, AlignedBytes(bits[channel].begin(), bits[channel].begin() + 4004));
    }
    WaitForPreview(500);

    for (std::uint16_t channel = 0; channel < 2; ++channel) {
        StoreBytes(channel, AlignedBytes(bits[channel].begin() + 4004, bits[channel].end()));
    }
    worker.Stop();

    const std::vector<std::int16_t> frames = Preview(0, kFrames);
    ASSERT_EQ(frames.size(), 2 * kFrames);
    for (std::size_t channel = 0; channel < 2; ++channel) {
        PreviewSamples whole(kFrames);
        DsdToPcmWorkBuffer work{};
        GetSampleTypeInfo(kSampleTypeDsd)
            ->toPreview(reinterpret_cast<std::uint8_t*>(whole.data()), bits[channel].data(),
                        kFrames, &work);
        for (std::size_t frame = 0; frame < kFrames; ++frame) {
            ASSERT_EQ(frames[2 * frame + channel], whole[frame])
                << "channel " << channel << " frame " << frame;
        }
    }
    EXPECT_THAT(manager.ConvertPositions(), ElementsAre(1 * 0.1));  // 5,000 of 44,100 a second
}

TEST_F(ConvertThreadTest, RawDataThatHasLeftTheStoreBecomesSilence) {
    Begin(1, kSampleTypePcm, 100, 100);  // a memory buffer holds 500 samples
    Store(0, std::vector<float>(3100, 0.5F));
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);
    WaitForPreview(3100);
    Store(0, {0.25F});

    worker.Stop();

    ASSERT_EQ(preview.GetLength(false), 3101U);
    EXPECT_THAT(Preview(3100, 3101), ElementsAre(8192)) << "the positions go on";
    EXPECT_THAT(Preview(3000, 3003), ElementsAre(0, 0, 0));
}

TEST_F(ConvertThreadTest, DsdThatHasLeftTheStoreBecomesItsSilence) {
    // A memory buffer holds 5 s of 6,400 one-bit samples: 4,000 bytes, 500 frames.
    Begin(1, kSampleTypeDsd, 6'400, 100);
    StoreBytes(0, AlignedBytes(3100 * 8, 0xFF));
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

    worker.Stop();

    ASSERT_EQ(preview.GetLength(false), 3100U);
    EXPECT_LT(std::abs(Preview(3050, 3051).front()), 1'000) << "no full-scale tone";
    EXPECT_EQ(Preview(100, 101).front(), 32'767) << "what was still there is kept";
}

TEST_F(ConvertThreadTest, APreviewThatCannotBeStoredIsIgnored) {
    Begin(1, kSampleTypePcm, 48'000, 48'000);
    ASSERT_EQ(preview.Init(1, 48'000, nullptr), VrSuccess);
    Store(0, std::vector<float>(10'000, 0.5F));
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

    worker.Stop();

    EXPECT_EQ(preview.GetLength(false), 0U);
    EXPECT_THAT(manager.ConvertPositions(), IsEmpty());
    EXPECT_THAT(manager.Messages(), IsEmpty());
}

TEST_F(ConvertThreadTest, StoresThatWereNeverInitialisedGiveNothing) {
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

    worker.Stop();

    EXPECT_EQ(preview.GetLength(false), 0U);
}

TEST_F(ConvertThreadTest, BeginsAnewWithEveryStart) {
    for (int round = 0; round < 2; ++round) {
        Begin(1, kSampleTypePcm, 48'000, 48'000);
        Store(0, std::vector<float>(4800, 0.5F));
        ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);

        worker.Stop();

        ASSERT_EQ(preview.GetLength(false), 4800U);
    }
    EXPECT_THAT(manager.ConvertPositions(), ElementsAre(1 * 0.1, 1 * 0.1));
}

TEST_F(ConvertThreadTest, FollowsTheRecordWorkerToTheLastBlock) {
    constexpr std::size_t kBuffers = 200;
    constexpr std::size_t kFrames = 240;
    Begin(2, kSampleTypePcm, 48'000, 48'000);
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(2), VrSuccess);
    queue.ReserveBlocks(kFrames * sizeof(float));
    manager.onAddDataNotify = [this] { worker.AddDataNotify(); };
    ASSERT_EQ(worker.Start(&record, &preview), VrSuccess);
    RecThread recorder(manager);
    ASSERT_EQ(recorder.Start(&queue, &record, 2), VrSuccess);

    for (std::size_t buffer = 0; buffer < kBuffers; ++buffer) {
        for (std::uint16_t channel = 0; channel < 2; ++channel) {
            Block block = queue.TakeBlock(kFrames * sizeof(float));
            const std::vector<float> samples(kFrames, channel == 0 ? 0.25F : -0.25F);
            std::memcpy(block.data(), samples.data(), block.size());
            ASSERT_EQ(queue.Enqueue(channel, std::move(block)), VrSuccess);
        }
        recorder.AddDataNotify();
    }
    recorder.Stop();
    worker.Stop();

    ASSERT_EQ(preview.GetLength(false), kBuffers * kFrames);
    EXPECT_THAT(Preview(kBuffers * kFrames - 2, kBuffers * kFrames),
                ElementsAre(8192, -8192, 8192, -8192));
    EXPECT_EQ(manager.ConvertPositions().back(), 10 * 0.1);
}

PreviewSamples Samples(std::initializer_list<std::int16_t> values) {
    return {values};
}

TEST(ConvertThreadInterleaveTest, OneChannelIsACopy) {
    const std::vector<PreviewSamples> channels = {Samples({1, -2, 3})};
    std::vector<std::int16_t> out;

    ConvertThread::Interleave(out, channels, 3);

    EXPECT_THAT(out, ElementsAre(1, -2, 3));
}

TEST(ConvertThreadInterleaveTest, TwoChannelsAlternate) {
    const std::vector<PreviewSamples> channels = {Samples({1, 2, 3}), Samples({-1, -2, -3})};
    std::vector<std::int16_t> out(100, 7);

    ConvertThread::Interleave(out, channels, 3);

    EXPECT_THAT(out, ElementsAre(1, -1, 2, -2, 3, -3));
}

TEST(ConvertThreadInterleaveTest, ThreeChannelsFollowInOrderAndSparesAreLeftOut) {
    const std::vector<PreviewSamples> channels = {Samples({1, 2, 9}), Samples({10, 20, 9}),
                                                  Samples({100, 200, 9})};
    std::vector<std::int16_t> out;

    ConvertThread::Interleave(out, channels, 2);

    EXPECT_THAT(out, ElementsAre(1, 10, 100, 2, 20, 200));
}

TEST(ConvertThreadInterleaveTest, NoFramesGiveAnEmptyVector) {
    const std::vector<PreviewSamples> channels(2);
    std::vector<std::int16_t> out(4, 7);

    ConvertThread::Interleave(out, channels, 0);

    EXPECT_THAT(out, IsEmpty());
}

}  // namespace
}  // namespace vorrel
