#include "pipeline/AsioDataQueue.h"

#include <algorithm>
#include <new>
#include <utility>

namespace vorrel {

namespace {

constexpr std::size_t kBlocksInHand = 2;    // one with the callback, one with the record worker
constexpr std::size_t kTouchedBlocks = 10;  // half a second of buffers until the first come back
constexpr std::size_t kFirstSlots = 16;     // of a ring whose block size nobody has announced
constexpr std::size_t kPageBytes = 4096;    // the smallest page of any machine this runs on

/// Writes to every page of the block's storage.
void Touch(Block& block) {
    for (std::size_t offset = 0; offset < block.size(); offset += kPageBytes) {
        block[offset] = 0;
    }
    if (!block.empty()) {
        block.back() = 0;
    }
}

/// Sizes a block from the pool. A new one where it is too small: growing it would copy its bytes.
Block Sized(Block block, std::size_t sizeBytes) {
    if (block.capacity() < sizeBytes) {
        return Block(sizeBytes);
    }
    block.resize(sizeBytes);
    return block;
}

}  // namespace

void AsioDataQueue::BlockRing::Reserve(std::size_t slotCount) {
    if (slotCount <= slots.size()) {
        return;
    }
    std::vector<Block> larger(slotCount);
    for (std::size_t n = 0; n < count; ++n) {
        larger[n] = std::move(slots[(front + n) % slots.size()]);
    }
    slots = std::move(larger);
    front = 0;
}

bool AsioDataQueue::BlockRing::MakeSlot() noexcept {
    try {
        if (count == slots.size()) {
            Reserve(std::max(2 * count, kFirstSlots));
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void AsioDataQueue::BlockRing::Push(Block&& block) {
    if (count == slots.size()) {
        Reserve(std::max(2 * count, kFirstSlots));
    }
    std::size_t back = front + count;
    if (back >= slots.size()) {
        back -= slots.size();
    }
    slots[back] = std::move(block);
    ++count;
}

Block AsioDataQueue::BlockRing::Pop() {
    Block block = std::move(slots[front]);
    ++front;
    if (front == slots.size()) {
        front = 0;
    }
    --count;
    return block;
}

VrError AsioDataQueue::Init(std::uint16_t channels) {
    if (channels == 0) {
        return VrErrorInvalidParameter;
    }
    // Made before the lock and freed after it.
    std::vector<BlockRing> newQueues(channels);
    for (BlockRing& ring : newQueues) {
        ring.Reserve(kFirstSlots);
    }
    std::vector<Block> newPool;
    newPool.reserve(channels * kMaxPooledBlocks);
    const MutexLock lock(mutex);
    channelQueues.swap(newQueues);
    pool.swap(newPool);
    poolBytes = 0;
    poolBytesLimit = channels * (kMaxWaitingBytes + 1);
    return VrSuccess;
}

void AsioDataQueue::ReserveBlocks(std::size_t blockBytes) {
    std::size_t channels = 0;
    {
        const MutexLock lock(mutex);
        channels = channelQueues.size();
    }
    if (channels == 0 || blockBytes == 0) {
        return;
    }
    const std::size_t waiting = kMaxWaitingBytes / blockBytes + 1;
    const std::size_t perChannel = std::min(waiting + kBlocksInHand, kMaxPooledBlocks);
    const std::size_t total = channels * perChannel;

    std::vector<Block> blocks;
    blocks.reserve(channels * kMaxPooledBlocks);
    std::size_t bytes = 0;
    try {
        while (blocks.size() < total) {
            // The touched ones come last, where they are taken first.
            Block block(blockBytes);
            if (total - blocks.size() <= channels * kTouchedBlocks) {
                Touch(block);
            }
            block.clear();
            bytes += block.capacity();
            blocks.push_back(std::move(block));
        }
    } catch (const std::bad_alloc&) {
        // What is missing is allocated when it is needed, or lost then, as a full queue loses it.
    }
    const MutexLock lock(mutex);
    pool.swap(blocks);
    poolBytes = bytes;
    poolBytesLimit = std::max(channels * (kMaxWaitingBytes + 1), total * blockBytes);
    for (BlockRing& ring : channelQueues) {
        ring.Reserve(std::min(waiting, kMaxPooledBlocks));
    }
}

Block AsioDataQueue::PopPooled() {
    if (pool.empty()) {
        return {};
    }
    Block block = std::move(pool.back());
    pool.pop_back();
    poolBytes -= block.capacity();
    return block;
}

void AsioDataQueue::PushPooled(Block&& block) {
    poolBytes += block.capacity();
    pool.push_back(std::move(block));
}

Block AsioDataQueue::TakeBlock(std::size_t sizeBytes) {
    Block block;
    {
        const MutexLock lock(mutex);
        block = PopPooled();
    }
    return Sized(std::move(block), sizeBytes);
}

void AsioDataQueue::TakeBlocks(std::size_t sizeBytes, std::span<Block> blocks) {
    {
        const MutexLock lock(mutex);
        for (Block& block : blocks) {
            // What a refused buffer may have left in hand: back to the pool, not freed here.
            if (block.capacity() > 0 && HasRoomInPool()) {
                PushPooled(std::move(block));
            }
            block = PopPooled();
        }
    }
    for (Block& block : blocks) {
        block = Sized(std::move(block), sizeBytes);
    }
}

VrError AsioDataQueue::Enqueue(std::uint16_t channel, const Block& block) {
    Block copy = TakeBlock(block.size());
    std::copy(block.begin(), block.end(), copy.begin());
    return Enqueue(channel, std::move(copy));
}

VrError AsioDataQueue::Enqueue(std::uint16_t channel, Block&& block) {
    // Outlives the lock; holds storage at its end only where the pool has no slot left.
    Block dropped = std::move(block);
    const MutexLock lock(mutex);
    VrError error = VrErrorInvalidParameter;
    if (channel < channelQueues.size()) {
        BlockRing& ring = channelQueues[channel];
        if (Accepts(ring, dropped)) {
            try {
                ring.Push(std::move(dropped));
                return VrSuccess;
            } catch (const std::bad_alloc&) {
                // The ring could not grow: the block is lost as in a full channel.
            }
        }
        error = VrErrorFailed;
    }
    // Whatever its size: freeing may wait, and this is the callback.
    if (dropped.capacity() > 0 && HasRoomInPool()) {
        PushPooled(std::move(dropped));
    }
    return error;
}

bool AsioDataQueue::Accepts(const BlockRing& ring, const Block& block) const {
    // The block's size stands for that of all that wait; divided, so that it cannot overflow.
    return block.empty() || ring.Size() <= kMaxWaitingBytes / block.size();
}

VrError AsioDataQueue::EnqueueBuffer(std::span<Block> blocks) {
    const MutexLock lock(mutex);
    const std::size_t count = std::min(blocks.size(), channelQueues.size());
    bool accepted = true;
    for (std::size_t channel = 0; channel < count; ++channel) {
        BlockRing& ring = channelQueues[channel];
        accepted = accepted && Accepts(ring, blocks[channel]) && ring.MakeSlot();
    }
    for (std::size_t channel = 0; channel < blocks.size(); ++channel) {
        if (accepted && channel < count) {
            channelQueues[channel].Push(std::move(blocks[channel]));
        } else if (blocks[channel].capacity() > 0 && HasRoomInPool()) {
            // Whatever its size: freeing may wait, and this is the callback.
            PushPooled(std::move(blocks[channel]));
        }
    }
    return accepted ? VrSuccess : VrErrorFailed;
}

VrError AsioDataQueue::Dequeue(std::uint16_t channel, Block& out) {
    Block spare;  // outlives the lock: what the pool does not keep is freed after it
    const MutexLock lock(mutex);
    if (channel >= channelQueues.size()) {
        return VrErrorInvalidParameter;
    }
    spare = std::move(out);
    out = Block();
    if (spare.capacity() > 0 && HasRoomInPool() &&
        spare.capacity() <= poolBytesLimit - std::min(poolBytes, poolBytesLimit)) {
        PushPooled(std::move(spare));
    }
    if (channelQueues[channel].Size() > 0) {
        out = channelQueues[channel].Pop();
    }
    return VrSuccess;
}

}  // namespace vorrel
