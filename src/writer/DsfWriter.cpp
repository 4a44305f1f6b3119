#include "writer/DsfWriter.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <span>
#include <vector>

#include "pipeline/DSDStreamProcessingThread.h"
#include "writer/BlockReader.h"
#include "writer/DsfHeader.h"
#include "writer/OutputFile.h"
#include "writer/SaveChecks.h"
#include "writer/TagWriter.h"

namespace vorrel {

namespace {

/// Writes the blocks of frames [startFrame, endFrame): while the processors work on a batch, the
/// one before is written and those behind are read.
class BlockWriter {
public:
    BlockWriter(SaveRun& saveRun, const DsfFormat& dsfFormat, std::uint64_t startFrame,
                std::uint64_t endFrame)
        : run(saveRun),
          format(dsfFormat),
          start(startFrame),
          end(endFrame),
          reader(saveRun,
                 {.frames = dsfFormat.BlockFrames(),
                  .bytes = kDsfBlockBytes,
                  .perBatch = kDsfBatchBlocks,
                  .fillsUp = true,
                  .earliestLowest = true},
                 startFrame, endFrame),
          processors(format.channels) {}

    /// @return `VrErrorFailed`; `VrErrorCanceled` (stopped before a block, to be deleted).
    VrError Write(OutputFile& file, float gainDecibels);

private:
    VrError StartWorkers(float gainDecibels);
    VrError WriteBatch(OutputFile& file, const BlockBatch& batch);
    void GiveBackWritten(const OutputFile& file, const BlockBatch& batch);
    VrError BeginBlock(std::uint64_t position);

    SaveRun& run;
    const DsfFormat format;
    const std::uint64_t start;
    const std::uint64_t end;
    // Owns the batches: goes behind the processors, which may still be at work on one.
    BlockReader reader;
    std::vector<DSDStreamProcessingThread> processors;
    // Sizes in bytes of the batches handed to the file and not yet given back, oldest first; it may
    // look at them still.
    std::deque<std::size_t> handed;
    std::size_t handedBytes = 0;
};

VrError BlockWriter::StartWorkers(float gainDecibels) {
    constexpr std::int32_t kLsbFirst = 1;
    for (DSDStreamProcessingThread& processor : processors) {
        // Without its thread, a channel would be written as if its gain were 0 dB.
        if (const VrError error =
                processor.Start(static_cast<std::int32_t>(format.rateHz), kLsbFirst, gainDecibels);
            error != VrSuccess) {
            return error;
        }
    }
    reader.Start();
    return VrSuccess;
}

VrError BlockWriter::Write(OutputFile& file, float gainDecibels) {
    if (const VrError error = StartWorkers(gainDecibels); error != VrSuccess) {
        return error;
    }
    BlockBatch* next = &reader.Take();
    const auto process = [&](std::size_t channel) {
        processors[channel].RunProcess(next->channels[channel].data(),
                                       static_cast<std::uint32_t>(next->sampleBytes));
    };
    for (std::size_t channel = 0; channel < processors.size(); ++channel) {
        process(channel);
    }
    for (;;) {
        const BlockBatch& batch = *next;
        if (!batch.isLast) {
            next = &reader.Take();
        }
        for (std::size_t channel = 0; channel < processors.size(); ++channel) {
            processors[channel].WaitProcess();
            if (!batch.isLast) {
                process(channel);
            }
        }
        if (const VrError error = WriteBatch(file, batch); error != VrSuccess || batch.isLast) {
            return error;
        }
        GiveBackWritten(file, batch);
    }
}

/// Gives back what the file does not look at any more.
void BlockWriter::GiveBackWritten(const OutputFile& file, const BlockBatch& batch) {
    handed.push_back(batch.blocks * batch.channels.size() * kDsfBlockBytes);
    handedBytes += handed.back();
    while (!handed.empty() && handedBytes - handed.front() >= file.KeptBytes()) {
        handedBytes -= handed.front();
        handed.pop_front();
        reader.GiveBack();
    }
}

VrError BlockWriter::WriteBatch(OutputFile& file, const BlockBatch& batch) {
    std::uint64_t position = batch.position;
    for (std::size_t block = 0; block < batch.blocks; ++block) {
        if (const VrError error = BeginBlock(position); error != VrSuccess) {
            return error;
        }
        for (const AlignedBytes& channel : batch.channels) {
            const std::span<const std::uint8_t> bytes(channel);
            if (!file.WriteKept(bytes.subspan(block * kDsfBlockBytes, kDsfBlockBytes))) {
                return VrErrorFailed;
            }
        }
        position += format.BlockFrames();
    }
    if (batch.nextFailed) {
        const VrError error = BeginBlock(position);
        return error != VrSuccess ? error : VrErrorFailed;
    }
    return VrSuccess;
}

/// What comes before every block, also before one that then fails.
VrError BlockWriter::BeginBlock(std::uint64_t position) {
    if (run.cancelState == kSaveCancelDelete) {
        return VrErrorCanceled;
    }
    run.BeginBlock(position - start, std::min(format.BlockFrames(), end - position));
    // What was read while another take had begun is not written, nor, however far ahead it was
    // read, what is of a take that is gone.
    return run.RecordingHolds() ? VrSuccess : VrErrorFailed;
}

}  // namespace

VrError SaveDsfFile(const VrSaveSettingInternal* setting, SaveRun& run) {
    run.BeginFile();
    if (setting == nullptr) {
        return VrErrorInvalidParameter;
    }
    const SampleTypeInfo* sampleType = run.recording.sampleType;
    if (sampleType == nullptr || run.recording.channels == 0 || !run.RecordingHolds()) {
        return VrErrorFailed;
    }
    const std::uint64_t rateHz = run.recording.sampleRate;
    const DsfFormat format{run.recording.channels, static_cast<std::uint32_t>(rateHz),
                           std::uint32_t{sampleType->bits} + sampleType->padBits};
    if (format.bitsPerSample == 0 || kDsfBlockBytes * 8 % format.bitsPerSample != 0) {
        return VrErrorFailed;
    }

    const std::uint64_t startFrame = FramesFromSeconds(rateHz, setting->start);
    const std::uint64_t endFrame = FramesFromSeconds(rateHz, setting->end);
    if (endFrame < startFrame) {
        return VrErrorInvalidParameter;
    }
    const std::uint64_t frames = endFrame - startFrame;
    run.progress.fileLength = frames;
    const Id3Texts tags(setting->tags);
    const DsfSizes sizes(format, frames, CalculateSaveID3TagSize(tags));

    if (const VrError error = SaveCreateDirectory(setting->path, run.createdDirectory);
        error != VrSuccess) {
        return error;
    }
    if (!CheckDiskSpace(setting->path, sizes.FileBytes())) {
        return VrErrorFailed;
    }
    if (!run.volumeTakes(setting->path, sizes.FileBytes())) {
        run.SkipFile(setting->path, frames);
        return VrSuccess;
    }
    OutputFile file;
    if (!file.Open(setting->path)) {
        run.SkipFile(setting->path, frames);
        return run.CancelRequested() ? VrErrorCanceled : VrSuccess;
    }
    run.fileIsOurs = true;
    VrError result = VrErrorFailed;
    if (file.Write(BuildDsfHeader(format, sizes))) {
        BlockWriter blocks(run, format, startFrame, endFrame);
        result = blocks.Write(file, SinglePrecisionGain(setting->gain));
        std::FILE* const stream = file.Stream();  // while the blocks are still there
        if (result == VrSuccess || result == VrErrorCanceled) {
            result = SaveID3Tags(tags, stream);
        }
    }
    if (!file.Close() && result == VrSuccess) {
        result = VrErrorFailed;
    }
    return run.CancelRequested() ? VrErrorCanceled : result;
}

}  // namespace vorrel
