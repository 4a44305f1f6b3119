#include "writer/DsfBlockReader.h"

#include <algorithm>
#include <cstring>

#include "convert/BitReversal.h"

namespace vorrel {

DsfBlockReader::DsfBlockReader(SaveRun& saveRun, const DsfFormat& dsfFormat,
                               std::uint64_t startFrame, std::uint64_t endFrame)
    : run(saveRun), format(dsfFormat), end(endFrame), position(startFrame) {
    for (DsfBatch& batch : batches) {
        batch.channels.resize(format.channels);
        for (AlignedBytes& channel : batch.channels) {
            channel.reserve(kDsfBatchBlocks * kDsfBlockBytes);
        }
    }
}

DsfBlockReader::~DsfBlockReader() {
    {
        const MutexLock lock(mutex);
        stop = true;
        changed.NotifyOne();
    }
    Join();
}

VrError DsfBlockReader::Start() {
    return Create(PriorityNormal) ? VrSuccess : VrErrorFailed;
}

DsfBatch& DsfBlockReader::Take() {
    const MutexLock lock(mutex);
    while (read == taken) {
        changed.Wait(mutex);
    }
    return batches[taken++ % kBatches];
}

void DsfBlockReader::GiveBack() {
    const MutexLock lock(mutex);
    ++givenBack;
    changed.NotifyOne();  // of the two, only one ever waits
}

void DsfBlockReader::ThreadImpl() {
    for (bool more = true; more;) {
        DsfBatch* const batch = WaitForFree();
        if (batch == nullptr) {
            return;
        }
        try {
            Read(*batch);
        } catch (...) {  // out of memory: a failed read like any other, behind those that were good
            batch->nextFailed = true;
            batch->isLast = true;
        }
        more = !batch->isLast;
        const MutexLock lock(mutex);
        ++read;
        changed.NotifyOne();
    }
}

/// Waits for a batch to read into. @return Null when there is none to be read any more.
DsfBatch* DsfBlockReader::WaitForFree() {
    const MutexLock lock(mutex);
    while (!stop && read == givenBack + kBatches) {
        changed.Wait(mutex);
    }
    return stop ? nullptr : &batches[read % kBatches];
}

void DsfBlockReader::Read(DsfBatch& batch) {
    batch.position = position;
    batch.blocks = 0;
    batch.sampleBytes = 0;
    batch.nextFailed = false;
    if (!ReadWholeBlocks(batch)) {
        // One by one, so that the blocks before the one that fails are there.
        while (!batch.nextFailed && batch.blocks < kDsfBatchBlocks && position < end) {
            batch.nextFailed = !ReadBlock(batch);
        }
    }
    batch.isLast = batch.nextFailed || position >= end;
}

/// Reads what is there of full blocks, each channel in one go.
/// @return false when there is none or one cannot be read.
bool DsfBlockReader::ReadWholeBlocks(DsfBatch& batch) {
    const std::uint64_t blocks =
        std::min<std::uint64_t>((end - position) / format.BlockFrames(), kDsfBatchBlocks);
    const std::uint64_t frames = blocks * format.BlockFrames();
    if (blocks == 0) {
        return false;
    }
    for (std::size_t channel = 0; channel < format.channels; ++channel) {
        AlignedBytes& out = batch.channels[channel];
        if (ReadChannel(channel, frames, out) != VrSuccess) {
            return false;
        }
        ToFileBitOrder(out);
    }
    batch.blocks = static_cast<std::size_t>(blocks);
    batch.sampleBytes = batch.blocks * kDsfBlockBytes;
    position += frames;
    return true;
}

/// Reads one block, full or the short last one.
bool DsfBlockReader::ReadBlock(DsfBatch& batch) {
    const std::uint64_t frames = std::min(format.BlockFrames(), end - position);
    const auto sampleBytes = static_cast<std::size_t>(frames * format.bitsPerSample / 8);
    for (std::size_t channel = 0; channel < format.channels; ++channel) {
        if (ReadChannel(channel, frames, single) != VrSuccess) {
            return false;
        }
        AlignedBytes& out = batch.channels[channel];
        out.resize((batch.blocks + 1) * kDsfBlockBytes);
        std::uint8_t* const block = out.data() + batch.blocks * kDsfBlockBytes;
        // More may have come: a range from within a byte to within another touches both.
        const std::size_t bytes = std::min(sampleBytes, single.size());
        std::memcpy(block, single.data(), bytes);
        std::memset(block + bytes, 0, kDsfBlockBytes - bytes);
        ToFileBitOrder({block, kDsfBlockBytes});
    }
    batch.sampleBytes += sampleBytes;
    ++batch.blocks;
    position += frames;
    return true;
}

/// A file has the earliest of eight samples in the lowest bit.
void DsfBlockReader::ToFileBitOrder(std::span<std::uint8_t> bytes) const {
    if (run.recording.sampleType->msbFirst != 0) {
        ReverseBits(bytes.data(), bytes.size());
    }
}

VrError DsfBlockReader::ReadChannel(std::size_t channel, std::uint64_t frames, AlignedBytes& out) {
    return run.recordData.GetData(static_cast<std::uint16_t>(channel), position, position + frames,
                                  out, true);
}

}  // namespace vorrel
