#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "pipeline/ThreadBase.h"
#include "platform/AlignedBytes.h"
#include "platform/Mutex.h"
#include "writer/SaveRun.h"

namespace vorrel {

/// The blocks in which a file takes each channel's samples.
struct BlockForm {
    std::uint64_t frames = 1;     ///< Of a full block; not 0.
    std::size_t bytes = 0;        ///< Of a full block of one channel.
    std::size_t perBatch = 1;     ///< How many are handed over at a time.
    bool fillsUp = false;         ///< A short last block is filled up with zeros.
    bool earliestLowest = false;  ///< The first bit in time is the lowest of its byte.
};

/// Blocks that follow each other, of every channel.
struct BlockBatch {
    std::uint64_t position = 0;   // first frame
    std::size_t blocks = 0;       // of each channel
    std::size_t sampleBytes = 0;  // of each channel, but for the zeros that fill it up
    bool nextFailed = false;      // the block behind these cannot be had
    bool isLast = false;          // no batch is behind this one
    // The blocks, one behind the other; behind a failure perhaps more.
    std::vector<AlignedBytes> channels;
};

/// Reads the blocks of frames [startFrame, endFrame) of a run's recording, batch by batch, ahead of
/// the writing, on a thread of its own. All calls come from the thread that owns it.
class BlockReader final : public ThreadBase {
public:
    BlockReader(SaveRun& run, const BlockForm& form, std::uint64_t startFrame,
                std::uint64_t endFrame);
    ~BlockReader() override;
    BlockReader(const BlockReader&) = delete;
    BlockReader& operator=(const BlockReader&) = delete;

    /// Begins to read ahead. Where no thread is to be had, `Take` reads.
    void Start();
    /// Waits for the next batch: as many blocks as it takes, or as there are before the first that
    /// fails. They are of the run's recording if that still holds now. The batch stays until it is
    /// given back. Not behind the last one; with an empty range there is one, of no blocks.
    BlockBatch& Take() VORREL_EXCLUDES(mutex);
    /// Gives the oldest of the taken batches back, to be filled again. At most `kTaken` are held.
    void GiveBack() VORREL_EXCLUDES(mutex);

    static constexpr std::size_t kTaken = 8;

private:
    // The stores read from the disk what fits into one of their buffers, seconds of a recording, at
    // once: writing goes on meanwhile with what is here.
    static constexpr std::size_t kBatches = 16;
    static_assert(kTaken < kBatches);

    void ThreadImpl() override;
    BlockBatch* WaitForFree() VORREL_EXCLUDES(mutex);
    void Read(BlockBatch& batch);
    void ReadBlocks(BlockBatch& batch);
    bool ReadWholeBlocks(BlockBatch& batch);
    bool ReadBlock(BlockBatch& batch);
    void ToFileBitOrder(std::span<std::uint8_t> bytes) const;
    VrError ReadChannel(std::size_t channel, std::uint64_t frames, AlignedBytes& out);

    SaveRun& run;
    const BlockForm form;
    const std::uint64_t end;

    // A ring. Batches [givenBack, taken) are the owner's, [taken, read) wait for it, and the one
    // behind them is the worker's.
    std::array<BlockBatch, kBatches> batches;
    Mutex mutex;  // short: no other lock under it
    ConditionVariable changed;
    std::size_t read VORREL_GUARDED_BY(mutex) = 0;
    std::size_t givenBack VORREL_GUARDED_BY(mutex) = 0;
    bool stop VORREL_GUARDED_BY(mutex) = false;
    std::size_t taken = 0;    // the owner's
    bool readsAhead = false;  // the owner's

    // The worker's.
    std::uint64_t position;
    AlignedBytes single;  // one block of one channel
};

}  // namespace vorrel
