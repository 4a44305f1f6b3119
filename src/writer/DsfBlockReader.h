#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "pipeline/ThreadBase.h"
#include "platform/AlignedBytes.h"
#include "platform/Mutex.h"
#include "writer/DsfHeader.h"
#include "writer/SaveRun.h"

namespace vorrel {

/// Blocks of each channel that are read, processed and written at a time, so that no thread is
/// woken for every single one. Nothing that a save leaves behind shows their number.
inline constexpr std::size_t kDsfBatchBlocks = 64;

/// Blocks that follow each other, of every channel.
struct DsfBatch {
    std::uint64_t position = 0;   // first frame
    std::size_t blocks = 0;       // of each channel, at most `kDsfBatchBlocks`
    std::size_t sampleBytes = 0;  // of each channel, but for the zeros that fill it up
    bool nextFailed = false;      // the block behind these cannot be had
    bool isLast = false;          // no batch is behind this one
    // `blocks` x `kDsfBlockBytes` each, bits as in the file; behind a failure perhaps more.
    std::vector<AlignedBytes> channels;
};

/// Reads the blocks of frames [startFrame, endFrame) of a run's recording, batch by batch, ahead of
/// the writing, on a thread of its own. All calls come from the thread that owns it.
class DsfBlockReader final : public ThreadBase {
public:
    DsfBlockReader(SaveRun& run, const DsfFormat& format, std::uint64_t startFrame,
                   std::uint64_t endFrame);
    ~DsfBlockReader() override;
    DsfBlockReader(const DsfBlockReader&) = delete;
    DsfBlockReader& operator=(const DsfBlockReader&) = delete;

    /// @return `VrErrorFailed`: no thread to be had.
    VrError Start();
    /// Waits for the next batch: as many blocks as it takes, or as there are before the first that
    /// fails. They are of the run's recording if that still holds now. The batch stays until it is
    /// given back. Not behind the last one; with an empty range there is one, of no blocks.
    DsfBatch& Take() VORREL_EXCLUDES(mutex);
    /// Gives the oldest of the taken batches back, to be filled again.
    void GiveBack() VORREL_EXCLUDES(mutex);

private:
    // The stores read from the disk what fits into one of their buffers, seconds of a recording, at
    // once: writing goes on meanwhile with what is here.
    static constexpr std::size_t kBatches = 16;

    void ThreadImpl() override;
    DsfBatch* WaitForFree() VORREL_EXCLUDES(mutex);
    void Read(DsfBatch& batch);
    bool ReadWholeBlocks(DsfBatch& batch);
    bool ReadBlock(DsfBatch& batch);
    void ToFileBitOrder(std::span<std::uint8_t> bytes) const;
    VrError ReadChannel(std::size_t channel, std::uint64_t frames, AlignedBytes& out);

    SaveRun& run;
    const DsfFormat format;
    const std::uint64_t end;

    // A ring. Batches [givenBack, taken) are the owner's, [taken, read) wait for it, and the one
    // behind them is the worker's.
    std::array<DsfBatch, kBatches> batches;
    Mutex mutex;  // short: no other lock under it
    ConditionVariable changed;
    std::size_t read VORREL_GUARDED_BY(mutex) = 0;
    std::size_t givenBack VORREL_GUARDED_BY(mutex) = 0;
    bool stop VORREL_GUARDED_BY(mutex) = false;
    std::size_t taken = 0;  // the owner's

    // The worker's.
    std::uint64_t position;
    AlignedBytes single;  // one block of one channel
};

}  // namespace vorrel
