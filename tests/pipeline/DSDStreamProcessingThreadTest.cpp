#include "pipeline/DSDStreamProcessingThread.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "convert/BitReversal.h"
#include "convert/PlainGain.h"
#include "support/ThreadBaseParts.h"

namespace vorrel {

/// What tests see of a gain worker's inside.
struct DSDStreamProcessingThreadParts {
    static bool IsBusy(const DSDStreamProcessingThread& worker) { return worker.busy; }
};

namespace {

using test::RandomBits;
using Bytes = std::vector<std::uint8_t>;

constexpr std::int32_t kRateHz = 2'822'400;
constexpr std::size_t kBlockBytes = 4096;

std::uint32_t Length(const Bytes& bytes) {
    return static_cast<std::uint32_t>(bytes.size());
}

/// What a processor makes of `bytes` without a thread.
Bytes Processed(Bytes bytes, std::int32_t lsbFirst, float decibels) {
    DSDStreamProcessing processing;
    std::ignore = processing.Init(kRateHz, lsbFirst);
    std::ignore = processing.SetGain(decibels);
    std::ignore = processing.Process(bytes.data(), bytes.size());
    return bytes;
}

TEST(DSDStreamProcessingThreadTest, ProcessesABufferInPlace) {
    DSDStreamProcessingThread worker;
    ASSERT_EQ(worker.Start(kRateHz, 1, -6.0F), VrSuccess);
    const Bytes source = RandomBits(kBlockBytes, 1);
    Bytes bytes = source;

    worker.RunProcess(bytes.data(), Length(bytes));
    worker.WaitProcess();

    EXPECT_EQ(bytes, Processed(source, 1, -6.0F));
}

TEST(DSDStreamProcessingThreadTest, AtZeroDecibelsABufferIsDoneWhenItIsHandedOver) {
    DSDStreamProcessingThread worker;
    ASSERT_EQ(worker.Start(kRateHz, 1, 0.0F), VrSuccess);
    const Bytes source = RandomBits(kBlockBytes, 1);
    Bytes bytes = source;

    worker.RunProcess(bytes.data(), Length(bytes));

    EXPECT_FALSE(DSDStreamProcessingThreadParts::IsBusy(worker));
    EXPECT_EQ(bytes, source);
    worker.WaitProcess();
}

TEST(DSDStreamProcessingThreadTest, RunsAtHighPriority) {
    DSDStreamProcessingThread worker;
    ASSERT_EQ(worker.Start(kRateHz, 1, -6.0F), VrSuccess);

    EXPECT_EQ(ThreadBaseParts::PriorityOf(worker), PriorityHigh);
}

TEST(DSDStreamProcessingThreadTest, BlocksOfOneStreamGoOnFromEachOther) {
    DSDStreamProcessingThread worker;
    ASSERT_EQ(worker.Start(kRateHz, 1, 2.0F), VrSuccess);
    const Bytes source = RandomBits(4 * kBlockBytes, 2);
    Bytes bytes = source;

    for (std::size_t block = 0; block < 4; ++block) {
        worker.RunProcess(bytes.data() + block * kBlockBytes, kBlockBytes);
        worker.WaitProcess();
    }

    EXPECT_EQ(bytes, Processed(source, 1, 2.0F));
}

TEST(DSDStreamProcessingThreadTest, ChannelsRunSideBySideAndDoNotMix) {
    constexpr std::size_t kChannels = 6;
    std::vector<std::unique_ptr<DSDStreamProcessingThread>> workers;
    std::vector<Bytes> sources;
    for (std::size_t channel = 0; channel < kChannels; ++channel) {
        workers.push_back(std::make_unique<DSDStreamProcessingThread>());
        ASSERT_EQ(workers.back()->Start(kRateHz, 1, -6.0F), VrSuccess);
        sources.push_back(RandomBits(2 * kBlockBytes, static_cast<std::uint32_t>(10 + channel)));
    }
    std::vector<Bytes> streams = sources;

    for (std::size_t block = 0; block < 2; ++block) {
        for (std::size_t channel = 0; channel < kChannels; ++channel) {
            workers[channel]->RunProcess(streams[channel].data() + block * kBlockBytes,
                                         kBlockBytes);
        }
        for (std::size_t channel = 0; channel < kChannels; ++channel) {
            workers[channel]->WaitProcess();
        }
    }

    for (std::size_t channel = 0; channel < kChannels; ++channel) {
        EXPECT_EQ(streams[channel], Processed(sources[channel], 1, -6.0F)) << channel;
    }
}

TEST(DSDStreamProcessingThreadTest, ZeroDecibelsPassTheStreamBitForBit) {
    DSDStreamProcessingThread worker;
    ASSERT_EQ(worker.Start(kRateHz, 1, 0.0F), VrSuccess);
    const Bytes source = RandomBits(kBlockBytes, 3);
    Bytes bytes = source;

    worker.RunProcess(bytes.data(), Length(bytes));
    worker.WaitProcess();

    EXPECT_EQ(bytes, source);
}

TEST(DSDStreamProcessingThreadTest, StartWhileRunningIsRefusedAndKeepsTheStream) {
    DSDStreamProcessingThread worker;
    ASSERT_EQ(worker.Start(kRateHz, 1, -6.0F), VrSuccess);

    EXPECT_EQ(worker.Start(kRateHz, 0, 0.0F), VrErrorFailed);

    const Bytes source = RandomBits(kBlockBytes, 4);
    Bytes bytes = source;
    worker.RunProcess(bytes.data(), Length(bytes));
    worker.WaitProcess();
    EXPECT_EQ(bytes, Processed(source, 1, -6.0F));
}

TEST(DSDStreamProcessingThreadTest, ACallWhileBusyIsDropped) {
    DSDStreamProcessingThread worker;
    ASSERT_EQ(worker.Start(kRateHz, 1, -6.0F), VrSuccess);
    const Bytes source = RandomBits(kBlockBytes, 5);
    Bytes first = source;
    Bytes second = source;

    worker.RunProcess(first.data(), Length(first));
    worker.RunProcess(second.data(), Length(second));
    worker.WaitProcess();
    worker.WaitProcess();

    EXPECT_EQ(first, Processed(source, 1, -6.0F));
    EXPECT_EQ(second, source);
}

TEST(DSDStreamProcessingThreadTest, AMissingBufferOrLengthIsDoneWithoutProcessing) {
    DSDStreamProcessingThread worker;
    ASSERT_EQ(worker.Start(kRateHz, 1, -6.0F), VrSuccess);
    const Bytes source = RandomBits(kBlockBytes, 6);
    Bytes bytes = source;

    worker.RunProcess(nullptr, kBlockBytes);
    worker.WaitProcess();
    worker.RunProcess(bytes.data(), 0);
    worker.WaitProcess();

    EXPECT_EQ(bytes, source);
    // Nothing has entered the filter either.
    worker.RunProcess(bytes.data(), Length(bytes));
    worker.WaitProcess();
    EXPECT_EQ(bytes, Processed(source, 1, -6.0F));
}

TEST(DSDStreamProcessingThreadTest, WaitWithoutWorkReturnsAtOnce) {
    DSDStreamProcessingThread worker;
    worker.WaitProcess();
    ASSERT_EQ(worker.Start(kRateHz, 1, -6.0F), VrSuccess);

    worker.WaitProcess();

    EXPECT_TRUE(worker.Joinable());
}

TEST(DSDStreamProcessingThreadTest, BeforeStartAndAfterStopABufferIsNotTaken) {
    DSDStreamProcessingThread worker;
    const Bytes source = RandomBits(kBlockBytes, 7);
    Bytes bytes = source;

    worker.RunProcess(bytes.data(), Length(bytes));
    worker.WaitProcess();
    ASSERT_EQ(worker.Start(kRateHz, 1, -6.0F), VrSuccess);
    worker.Stop();
    worker.RunProcess(bytes.data(), Length(bytes));
    worker.WaitProcess();

    EXPECT_EQ(bytes, source);
    EXPECT_FALSE(worker.Joinable());
}

TEST(DSDStreamProcessingThreadTest, StopWithoutStartReturnsAtOnce) {
    DSDStreamProcessingThread worker;

    worker.Stop();

    EXPECT_FALSE(worker.Joinable());
}

TEST(DSDStreamProcessingThreadTest, AStartAfterStopBeginsANewStream) {
    DSDStreamProcessingThread worker;
    const Bytes source = RandomBits(kBlockBytes, 8);
    for (const float decibels : {-6.0F, 3.0F}) {
        ASSERT_EQ(worker.Start(kRateHz, 1, decibels), VrSuccess);
        Bytes bytes = source;
        worker.RunProcess(bytes.data(), Length(bytes));
        worker.WaitProcess();
        worker.Stop();

        EXPECT_EQ(bytes, Processed(source, 1, decibels)) << decibels;
    }
}

TEST(DSDStreamProcessingThreadTest, AStopWhileBusyLeavesNoWorkBehind) {
    DSDStreamProcessingThread worker;
    const Bytes source = RandomBits(kBlockBytes, 9);
    for (int round = 0; round < 50; ++round) {
        ASSERT_EQ(worker.Start(kRateHz, 1, -6.0F), VrSuccess);
        Bytes bytes = source;
        worker.RunProcess(bytes.data(), Length(bytes));
        worker.Stop();

        // Done or not begun, depending on which came first; never half.
        if (bytes != source) {
            ASSERT_EQ(bytes, Processed(source, 1, -6.0F));
        }

        ASSERT_EQ(worker.Start(kRateHz, 1, -6.0F), VrSuccess);
        EXPECT_FALSE(DSDStreamProcessingThreadParts::IsBusy(worker));
        bytes = source;
        worker.RunProcess(bytes.data(), Length(bytes));
        worker.WaitProcess();
        ASSERT_EQ(bytes, Processed(source, 1, -6.0F));
        worker.Stop();
    }
}

TEST(DSDStreamProcessingThreadTest, DestructionStopsTheWorker) {
    Bytes bytes = RandomBits(kBlockBytes, 10);
    auto worker = std::make_unique<DSDStreamProcessingThread>();
    ASSERT_EQ(worker->Start(kRateHz, 1, -6.0F), VrSuccess);
    worker->RunProcess(bytes.data(), Length(bytes));
    worker->WaitProcess();

    worker.reset();
}

}  // namespace
}  // namespace vorrel
