#include "pipeline/AsioDataQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Realtime.h"
#include "support/AllocationGuard.h"

namespace vorrel {
namespace {

constexpr std::size_t kMebibyte = 1'048'576;

Block Bytes(std::size_t size, std::uint8_t value) {
    return Block(size, value);
}

TEST(AsioDataQueueTest, InitRefusesZeroChannelsAndKeepsTheQueues) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    ASSERT_EQ(queue.Enqueue(0, Bytes(3, 7)), VrSuccess);

    EXPECT_EQ(queue.Init(0), VrErrorInvalidParameter);

    Block out;
    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);
    EXPECT_EQ(out, Bytes(3, 7));
}

TEST(AsioDataQueueTest, InitDropsEveryBlock) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(2), VrSuccess);
    ASSERT_EQ(queue.Enqueue(0, Bytes(3, 7)), VrSuccess);

    ASSERT_EQ(queue.Init(1), VrSuccess);

    Block out;
    EXPECT_EQ(queue.Dequeue(0, out), VrSuccess);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(queue.Dequeue(1, out), VrErrorInvalidParameter);
}

TEST(AsioDataQueueTest, RefusesTheChannelWhoseIndexIsTheChannelCount) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(2), VrSuccess);
    const Block block(3);

    EXPECT_EQ(queue.Enqueue(2, block), VrErrorInvalidParameter);
    EXPECT_EQ(queue.Enqueue(2, Block(3)), VrErrorInvalidParameter);
}

TEST(AsioDataQueueTest, HasNoChannelBeforeInit) {
    AsioDataQueue queue;
    queue.ReserveBlocks(100);
    Block out = Bytes(2, 5);

    EXPECT_EQ(queue.Enqueue(0, Block(3)), VrErrorInvalidParameter);
    EXPECT_EQ(queue.Dequeue(0, out), VrErrorInvalidParameter);
    EXPECT_EQ(out, Bytes(2, 5)) << "left alone";
}

TEST(AsioDataQueueTest, RefusesTheBlockThatWouldPassTenMebibytes) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(2), VrSuccess);
    for (int count = 0; count < 10; ++count) {
        ASSERT_EQ(queue.Enqueue(0, Block(kMebibyte)), VrSuccess);
    }

    EXPECT_EQ(queue.Enqueue(0, Block(kMebibyte)), VrErrorFailed);

    EXPECT_EQ(queue.Enqueue(1, Block(kMebibyte)), VrSuccess) << "the limit is the channel's own";
    Block out;
    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);
    EXPECT_EQ(queue.Enqueue(0, Block(kMebibyte)), VrSuccess) << "a place is free again";
}

TEST(AsioDataQueueTest, TheCopyingFormKeepsTheSameLimit) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    const Block block(kMebibyte);
    for (int count = 0; count < 10; ++count) {
        ASSERT_EQ(queue.Enqueue(0, block), VrSuccess);
    }

    EXPECT_EQ(queue.Enqueue(0, block), VrErrorFailed);
}

TEST(AsioDataQueueTest, AnEmptyChannelTakesABlockOfAnySize) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);

    EXPECT_EQ(queue.Enqueue(0, Block(20 * kMebibyte)), VrSuccess);
    EXPECT_EQ(queue.Enqueue(0, Block(20 * kMebibyte)), VrErrorFailed);
}

TEST(AsioDataQueueTest, TheSizeOfTheNewBlockStandsForThatOfAllThatWait) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    ASSERT_EQ(queue.Enqueue(0, Block(1)), VrSuccess);

    EXPECT_EQ(queue.Enqueue(0, Block(10'485'760)), VrErrorFailed);
    EXPECT_EQ(queue.Enqueue(0, Block(10'485'759)), VrSuccess);
    EXPECT_EQ(queue.Enqueue(0, Block(5'242'880)), VrErrorFailed);
    EXPECT_EQ(queue.Enqueue(0, Block(5'242'879)), VrSuccess);
    EXPECT_EQ(queue.Enqueue(0, Block(1)), VrSuccess);
    EXPECT_EQ(queue.Enqueue(0, Block()), VrSuccess) << "an empty block always fits";
}

TEST(AsioDataQueueTest, DequeueOnAnEmptyChannelGivesAnEmptyBlock) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    Block out = Bytes(5, 1);

    EXPECT_EQ(queue.Dequeue(0, out), VrSuccess);

    EXPECT_TRUE(out.empty());
}

TEST(AsioDataQueueTest, EveryChannelGivesItsBlocksInTheirOrder) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(2), VrSuccess);
    Block out;
    std::uint8_t next = 0;
    // Three in, two out: the rings wrap around and grow.
    for (std::uint8_t round = 0; round < 60; ++round) {
        for (int count = 0; count < 3; ++count) {
            const auto value = static_cast<std::uint8_t>(3 * round + count);
            ASSERT_EQ(queue.Enqueue(0, Bytes(4, value)), VrSuccess);
            ASSERT_EQ(queue.Enqueue(1, Bytes(2, static_cast<std::uint8_t>(255 - value))),
                      VrSuccess);
        }
        for (int count = 0; count < 2; ++count) {
            ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);
            ASSERT_EQ(out, Bytes(4, next));
            ASSERT_EQ(queue.Dequeue(1, out), VrSuccess);
            ASSERT_EQ(out, Bytes(2, static_cast<std::uint8_t>(255 - next)));
            ++next;
        }
    }
}

TEST(AsioDataQueueTest, TheMovingFormCopiesNoSample) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    Block block(100);
    const std::uint8_t* const storage = block.data();

    ASSERT_EQ(queue.Enqueue(0, std::move(block)), VrSuccess);
    Block out;
    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);

    EXPECT_EQ(out.data(), storage);
}

TEST(AsioDataQueueTest, TheCopyingFormLeavesItsBlockAlone) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    Block block = Bytes(100, 3);

    const Block& constant = block;
    ASSERT_EQ(queue.Enqueue(0, constant), VrSuccess);
    block[0] = 4;
    Block out;
    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);

    EXPECT_EQ(block.size(), 100U);
    EXPECT_EQ(out, Bytes(100, 3));
}

TEST(AsioDataQueueTest, TakesTheBlockThatCameBackLast) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    queue.ReserveBlocks(400);
    Block block = queue.TakeBlock(400);
    const std::uint8_t* const storage = block.data();
    ASSERT_EQ(queue.Enqueue(0, std::move(block)), VrSuccess);
    Block out;
    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);

    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);  // gives `out` back

    EXPECT_TRUE(out.empty());
    const Block again = queue.TakeBlock(396);
    EXPECT_EQ(again.data(), storage);
    EXPECT_EQ(again.size(), 396U);
}

TEST(AsioDataQueueTest, ABlockOfTheFullQueueComesBackToThePool) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    queue.ReserveBlocks(kMebibyte);
    for (int count = 0; count < 10; ++count) {
        ASSERT_EQ(queue.Enqueue(0, queue.TakeBlock(kMebibyte)), VrSuccess);
    }
    Block block = queue.TakeBlock(kMebibyte);
    const std::uint8_t* const storage = block.data();

    EXPECT_EQ(queue.Enqueue(0, std::move(block)), VrErrorFailed);

    EXPECT_EQ(queue.TakeBlock(kMebibyte).data(), storage);
}

TEST(AsioDataQueueTest, ABlockForNoChannelComesBackToThePool) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    queue.ReserveBlocks(100);
    Block block = queue.TakeBlock(100);
    const std::uint8_t* const storage = block.data();

    EXPECT_EQ(queue.Enqueue(1, std::move(block)), VrErrorInvalidParameter);

    EXPECT_EQ(queue.TakeBlock(100).data(), storage);
}

TEST(AsioDataQueueTest, GivesBlocksOfAnotherSizeThanReserved) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    queue.ReserveBlocks(100);

    EXPECT_EQ(queue.TakeBlock(1).size(), 1U);
    EXPECT_EQ(queue.TakeBlock(0).size(), 0U);
    const Block large = queue.TakeBlock(5000);
    EXPECT_EQ(large.size(), 5000U);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(large.data()) % kBufferAlignment, 0U);
}

TEST(AsioDataQueueTest, WorksWithoutReservedBlocks) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    Block out;
    for (std::uint8_t value = 0; value < 100; ++value) {
        Block block = queue.TakeBlock(40);
        std::fill(block.begin(), block.end(), value);
        ASSERT_EQ(queue.Enqueue(0, std::move(block)), VrSuccess);
        ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);
        ASSERT_EQ(out, Bytes(40, value));
    }
}

TEST(AsioDataQueueTest, TakeBlocksGivesAWholeBufferAtOnce) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(3), VrSuccess);
    queue.ReserveBlocks(64);
    std::array<Block, 3> blocks;

    queue.TakeBlocks(64, blocks);

    EXPECT_EQ(blocks[0].size(), 64U);
    EXPECT_EQ(blocks[1].size(), 64U);
    EXPECT_EQ(blocks[2].size(), 64U);
    EXPECT_NE(blocks[0].data(), blocks[1].data());
    EXPECT_NE(blocks[1].data(), blocks[2].data());
}

/// Fills every channel to its limit, loses `lost` further blocks of each, and counts what waits.
std::size_t FillAndLose(AsioDataQueue& queue, std::uint16_t channels, std::size_t blockBytes,
                        std::size_t lost) {
    const RealtimeScope realtime;
    std::size_t queued = 0;
    for (std::uint16_t channel = 0; channel < channels; ++channel) {
        while (queue.Enqueue(channel, queue.TakeBlock(blockBytes)) == VrSuccess) {
            ++queued;
        }
        for (std::size_t count = 1; count < lost; ++count) {
            EXPECT_EQ(queue.Enqueue(channel, queue.TakeBlock(blockBytes)), VrErrorFailed);
        }
    }
    return queued;
}

TEST(AsioDataQueueTest, WithReservedBlocksNeitherSideAllocatesOrFreesUpToAFullQueueAndBeyond) {
    constexpr std::size_t kBlockBytes = 4096;  // 2,560 of them are 10 MiB
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(2), VrSuccess);
    queue.ReserveBlocks(kBlockBytes);
    std::array<Block, 2> inHand;
    const test::AllocationGuard guard;

    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(FillAndLose(queue, 2, kBlockBytes, 100), 2 * 2560U);
        const RealtimeScope workerToo;
        for (int count = 0; count < 2560; ++count) {
            for (std::uint16_t channel = 0; channel < 2; ++channel) {
                ASSERT_EQ(queue.Dequeue(channel, inHand[channel]), VrSuccess);
                ASSERT_EQ(inHand[channel].size(), kBlockBytes);
            }
        }
    }

    EXPECT_EQ(guard.Count(), 0U);
    EXPECT_EQ(guard.Frees(), 0U);
}

TEST(AsioDataQueueTest, OfTinyBlocksAsManyAreReservedAsThePoolKeeps) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    queue.ReserveBlocks(8);
    const test::AllocationGuard guard;
    const RealtimeScope realtime;

    for (std::size_t count = 0; count < AsioDataQueue::kMaxPooledBlocks; ++count) {
        ASSERT_EQ(queue.Enqueue(0, queue.TakeBlock(8)), VrSuccess);
    }
    EXPECT_EQ(guard.Count(), 0U);

    EXPECT_EQ(queue.Enqueue(0, queue.TakeBlock(8)), VrSuccess) << "beyond that it allocates";
    EXPECT_GT(guard.Count(), 0U);
}

TEST(AsioDataQueueTest, ReservingAnewFitsThePoolToTheNewSize) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    queue.ReserveBlocks(100);
    queue.ReserveBlocks(kMebibyte);
    const test::AllocationGuard guard;

    EXPECT_EQ(FillAndLose(queue, 1, kMebibyte, 3), 10U);

    EXPECT_EQ(guard.Count(), 0U);
    EXPECT_EQ(guard.Frees(), 0U);
}

TEST(AsioDataQueueTest, ThePoolKeepsNoMoreBytesThanMayWait) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    Block out;
    for (int count = 0; count < 30; ++count) {  // blocks that the pool has never given out
        ASSERT_EQ(queue.Enqueue(0, Block(kMebibyte)), VrSuccess);
        ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);
    }
    std::vector<Block> taken(10);
    const test::AllocationGuard guard;
    const RealtimeScope realtime;

    for (Block& block : taken) {
        block = queue.TakeBlock(kMebibyte);
    }
    EXPECT_EQ(guard.Count(), 0U) << "ten are kept";

    const Block eleventh = queue.TakeBlock(kMebibyte);
    EXPECT_EQ(guard.Count(), 1U) << "and no more";
}

TEST(AsioDataQueueTest, ADeviceBufferIsQueuedWholeOrNotAtAll) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(2), VrSuccess);
    while (queue.Enqueue(1, Block(kMebibyte)) == VrSuccess) {
    }
    std::vector<Block> buffer = {Bytes(kMebibyte, 1), Bytes(kMebibyte, 2)};

    EXPECT_EQ(queue.EnqueueBuffer(buffer), VrErrorFailed);

    EXPECT_TRUE(buffer[0].empty());
    EXPECT_TRUE(buffer[1].empty());
    Block out;
    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);
    EXPECT_TRUE(out.empty()) << "the channel with room has lost its block, too";

    ASSERT_EQ(queue.Dequeue(1, out), VrSuccess);
    buffer = {Bytes(kMebibyte, 1), Bytes(kMebibyte, 2)};
    EXPECT_EQ(queue.EnqueueBuffer(buffer), VrSuccess);
    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);
    EXPECT_EQ(out, Bytes(kMebibyte, 1));
}

TEST(AsioDataQueueTest, BlocksPastTheLastChannelOfADeviceBufferAreLeftOut) {
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(1), VrSuccess);
    std::vector<Block> buffer = {Bytes(4, 1), Bytes(4, 2)};

    EXPECT_EQ(queue.EnqueueBuffer(buffer), VrSuccess);

    Block out;
    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);
    EXPECT_EQ(out, Bytes(4, 1));
    ASSERT_EQ(queue.Dequeue(0, out), VrSuccess);
    EXPECT_TRUE(out.empty());
}

TEST(AsioDataQueueTest, CallbackAndWorkerSeeEveryBlockOnceAndInOrder) {
    constexpr std::uint16_t kChannels = 3;
    constexpr std::uint32_t kBuffers = 2000;
    AsioDataQueue queue;
    ASSERT_EQ(queue.Init(kChannels), VrSuccess);
    queue.ReserveBlocks(32);
    std::thread callback([&] {
        for (std::uint32_t buffer = 0; buffer < kBuffers; ++buffer) {
            for (std::uint16_t channel = 0; channel < kChannels; ++channel) {
                Block block = queue.TakeBlock(32);
                std::fill(block.begin(), block.end(), static_cast<std::uint8_t>(buffer + channel));
                EXPECT_EQ(queue.Enqueue(channel, std::move(block)), VrSuccess);
            }
        }
    });

    Block out;
    for (std::uint32_t buffer = 0; buffer < kBuffers; ++buffer) {
        for (std::uint16_t channel = 0; channel < kChannels; ++channel) {
            do {
                ASSERT_EQ(queue.Dequeue(channel, out), VrSuccess);
            } while (out.empty());
            ASSERT_EQ(out, Bytes(32, static_cast<std::uint8_t>(buffer + channel)));
        }
    }
    callback.join();
}

}  // namespace
}  // namespace vorrel
