#include "writer/BlockReader.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "convert/BitReversal.h"

namespace vorrel {
namespace {

// What memory gives takes far less.
constexpr std::chrono::milliseconds kSlowRead{20};
constexpr std::chrono::milliseconds kRest{20};

}  // namespace

BlockReader::BlockReader(SaveRun& saveRun, const BlockForm& blockForm, std::uint64_t startFrame,
                         std::uint64_t endFrame)
    : run(saveRun), form(blockForm), end(endFrame), position(startFrame) {
    for (BlockBatch& batch : batches) {
        batch.channels.resize(run.recording.channels);
        for (AlignedBytes& channel : batch.channels) {
            channel.reserve(form.perBatch * form.bytes);
        }
    }
}

BlockReader::~BlockReader() {
    {
        const MutexLock lock(mutex);
        stop = true;
        changed.NotifyOne();
    }
    Join();
}

void BlockReader::Start() {
    readsAhead = Create(PriorityNormal);
}

BlockBatch& BlockReader::Take() {
    BlockBatch& batch = batches[taken++ % kBatches];
    if (!readsAhead) {
        Read(batch);
        return batch;
    }
    const MutexLock lock(mutex);
    while (read < taken) {
        changed.Wait(mutex);
    }
    return batch;
}

void BlockReader::GiveBack() {
    const MutexLock lock(mutex);
    ++givenBack;
    changed.NotifyOne();  // of the two, only one ever waits
}

void BlockReader::ThreadImpl() {
    for (bool more = true; more;) {
        BlockBatch* const batch = WaitForFree();
        if (batch == nullptr) {
            return;
        }
        Read(*batch);
        more = !batch->isLast;
        const MutexLock lock(mutex);
        ++read;
        changed.NotifyOne();
    }
}

/// Waits for a batch to read into. @return Null when there is none to be read any more.
BlockBatch* BlockReader::WaitForFree() {
    const MutexLock lock(mutex);
    while (!stop && read == givenBack + kBatches) {
        changed.Wait(mutex);
    }
    return stop ? nullptr : &batches[read % kBatches];
}

void BlockReader::Read(BlockBatch& batch) {
    batch.position = position;
    batch.blocks = 0;
    batch.sampleBytes = 0;
    batch.nextFailed = false;
    try {
        ReadBlocks(batch);
    } catch (...) {  // out of memory: a failed read like any other, behind those that were good
        batch.nextFailed = true;
    }
    batch.isLast = batch.nextFailed || position >= end;
}

void BlockReader::ReadBlocks(BlockBatch& batch) {
    if (ReadWholeBlocks(batch)) {
        return;
    }
    // One by one, so that the blocks before the one that fails are there.
    while (!batch.nextFailed && batch.blocks < form.perBatch && position < end) {
        batch.nextFailed = !ReadBlock(batch);
    }
}

/// Reads what is there of full blocks, each channel in one go.
/// @return false when there is none or one cannot be read.
bool BlockReader::ReadWholeBlocks(BlockBatch& batch) {
    const std::uint64_t blocks =
        std::min<std::uint64_t>((end - position) / form.frames, form.perBatch);
    const std::uint64_t frames = blocks * form.frames;
    if (blocks == 0) {
        return false;
    }
    for (std::size_t channel = 0; channel < batch.channels.size(); ++channel) {
        AlignedBytes& out = batch.channels[channel];
        if (ReadChannel(channel, frames, out) != VrSuccess) {
            return false;
        }
        ToFileBitOrder(out);
    }
    batch.blocks = static_cast<std::size_t>(blocks);
    batch.sampleBytes = batch.blocks * form.bytes;
    position += frames;
    return true;
}

/// Reads one block, full or the short last one.
bool BlockReader::ReadBlock(BlockBatch& batch) {
    const std::uint64_t frames = std::min(form.frames, end - position);
    const auto sampleBytes = static_cast<std::size_t>(frames * form.bytes / form.frames);
    const std::size_t blockBytes = form.fillsUp ? form.bytes : sampleBytes;
    for (std::size_t channel = 0; channel < batch.channels.size(); ++channel) {
        if (ReadChannel(channel, frames, single) != VrSuccess) {
            return false;
        }
        AlignedBytes& out = batch.channels[channel];
        out.resize(batch.sampleBytes + blockBytes);
        std::uint8_t* const block = out.data() + batch.sampleBytes;
        // More may have come: a range from within a byte to within another touches both.
        const std::size_t bytes = std::min(sampleBytes, single.size());
        std::memcpy(block, single.data(), bytes);
        std::memset(block + bytes, 0, blockBytes - bytes);
        ToFileBitOrder({block, blockBytes});
    }
    batch.sampleBytes += sampleBytes;
    ++batch.blocks;
    position += frames;
    return true;
}

/// The recording may have the earliest of a byte's bits highest.
void BlockReader::ToFileBitOrder(std::span<std::uint8_t> bytes) const {
    if (form.earliestLowest && run.recording.sampleType->msbFirst != 0) {
        ReverseBits(bytes.data(), bytes.size());
    }
}

VrError BlockReader::ReadChannel(std::size_t channel, std::uint64_t frames, AlignedBytes& out) {
    const auto begin = std::chrono::steady_clock::now();
    const VrError error = run.recordData.GetData(static_cast<std::uint16_t>(channel), position,
                                                 position + frames, out, true);
    if (std::chrono::steady_clock::now() - begin > kSlowRead) {
        // It came from the disk, and the worker that records could not store meanwhile. One channel
        // after the other without a rest, all would hold it up as long as the capture queue lasts.
        std::this_thread::sleep_for(kRest);
    }
    return error;
}

}  // namespace vorrel
