#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/AlignedBytes.h"
#include "platform/Mutex.h"
#include "platform/Realtime.h"
#include "vorrel/VrError.h"

namespace vorrel {

/// Per-channel first-in-first-out queues of blocks between the device's callback and the record
/// worker, under one mutex, with the pool that the blocks come from and go back to: between
/// `ReserveBlocks` and the next `Init` neither side allocates while the blocks keep their size.
class AsioDataQueue {
public:
    /// Drops every block, those of the pool included, and makes `channels` empty queues.
    /// 0: `VrErrorInvalidParameter`, and nothing changes.
    /// @throws std::bad_alloc  Nothing changes.
    VrError Init(std::uint16_t channels) VORREL_EXCLUDES(mutex);
    /// Makes the pool ready for blocks of `blockBytes`: as many for every channel as may wait, and
    /// those that callback and worker have in hand, up to `kMaxPooledBlocks`. The first ones of
    /// each channel are in physical memory, so that no page fault meets the first callbacks.
    /// After `Init` and before the device starts; replaces an earlier pool. Without it the queue
    /// works, and the callback allocates until enough blocks have come back. Short of memory for
    /// the blocks, it reserves those that there is memory for.
    /// @throws std::bad_alloc  Not even the lists of blocks; the queue works, without a pool.
    void ReserveBlocks(std::size_t blockBytes) VORREL_EXCLUDES(mutex);
    /// A block of `sizeBytes`, contents undefined, from the pool: the one given back last.
    /// Allocates only when the pool is empty or its block is too small.
    /// @throws std::bad_alloc  No block.
    VORREL_REALTIME Block TakeBlock(std::size_t sizeBytes) VORREL_EXCLUDES(mutex);
    /// `TakeBlock` for all of `blocks` under one lock; what they held goes back to the pool.
    /// @throws std::bad_alloc  Some of `blocks` have another size; the next call takes them back.
    VORREL_REALTIME void TakeBlocks(std::size_t sizeBytes, std::span<Block> blocks)
        VORREL_EXCLUDES(mutex);
    /// Appends a block. `VrErrorInvalidParameter` (no such channel); `VrErrorFailed` (the channel
    /// is full: size x blocks waiting would pass 10,485,759): the block is dropped. An empty
    /// channel takes a block of any size. The first form copies; the second leaves `block` empty
    /// whatever comes of it, and what it drops goes to the pool.
    /// @throws std::bad_alloc  The first form alone: no memory for the copy, nothing is appended.
    VrError Enqueue(std::uint16_t channel, const Block& block) VORREL_EXCLUDES(mutex);
    VORREL_REALTIME VrError Enqueue(std::uint16_t channel, Block&& block) VORREL_EXCLUDES(mutex);
    /// Appends one device buffer, `blocks[channel]` for each channel from 0 on, under one lock and
    /// whole or not at all: were only the full channels to lose their block, they would stay one
    /// buffer ahead of the others for the rest of the take. Blocks past the last channel go back
    /// to the pool. `VrErrorFailed` (a channel is full): all are dropped.
    VORREL_REALTIME VrError EnqueueBuffer(std::span<Block> blocks) VORREL_EXCLUDES(mutex);
    /// Moves the front block into `out`, or empties `out` when there is none. What `out` held
    /// goes back to the pool. `VrErrorInvalidParameter` (no such channel) leaves `out` alone.
    VrError Dequeue(std::uint16_t channel, Block& out) VORREL_EXCLUDES(mutex);

    /// The limit of a channel: size of the new block x blocks already waiting.
    static constexpr std::size_t kMaxWaitingBytes = 0xA00000 - 1;
    /// The pool keeps no more blocks than this for each channel.
    static constexpr std::size_t kMaxPooledBlocks = 4096;

private:
    friend struct AsioDataQueueParts;  // for tests

    /// A ring of blocks that allocates when it grows, never for a single push.
    class BlockRing {
    public:
        VORREL_REALTIME void Reserve(std::size_t slotCount);
        std::size_t Size() const { return count; }
        VORREL_REALTIME void Push(Block&& block);
        /// Makes sure that `Push` has a slot. @return false when there is no memory for one.
        VORREL_REALTIME bool MakeSlot() noexcept;
        Block Pop();

    private:
        std::vector<Block> slots;
        std::size_t front = 0, count = 0;
    };

    VORREL_REALTIME bool Accepts(const BlockRing& ring, const Block& block) const
        VORREL_REQUIRES(mutex);
    VORREL_REALTIME Block PopPooled() VORREL_REQUIRES(mutex);
    bool HasRoomInPool() const VORREL_REQUIRES(mutex) { return pool.size() < pool.capacity(); }
    VORREL_REALTIME void PushPooled(Block&& block) VORREL_REQUIRES(mutex);

    std::vector<BlockRing> channelQueues VORREL_GUARDED_BY(mutex);
    std::vector<Block> pool
        VORREL_GUARDED_BY(mutex);  // all slots reserved by `Init`; last in first out
    std::size_t poolBytes VORREL_GUARDED_BY(mutex) = 0;       // sum of the capacities in `pool`
    std::size_t poolBytesLimit VORREL_GUARDED_BY(mutex) = 0;  // what the worker gives back at most
    // Held for one push or pop of each channel, never across a file, a callback or another lock.
    // The device's thread waits for it, so who holds it inherits that thread's priority.
    Mutex mutex{kPriorityInheritance};
};

}  // namespace vorrel
