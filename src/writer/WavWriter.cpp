#include "writer/WavWriter.h"

#include <algorithm>
#include <cmath>

#include "writer/BlockReader.h"
#include "writer/FrameEncoder.h"
#include "writer/OutputFile.h"
#include "writer/SaveChecks.h"
#include "writer/TagWriter.h"
#include "writer/WavHeader.h"

namespace vorrel {

namespace {

/// Writes frames [startFrame, endFrame) of the recording, block by block, while those behind are
/// read.
VrError WriteFrames(SaveRun& run, FrameEncoder& encoder, OutputFile& file, std::uint64_t startFrame,
                    std::uint64_t endFrame, const BlockForm& form) {
    BlockReader reader(run, form, startFrame, endFrame);
    reader.Start();
    for (std::uint64_t position = startFrame; position < endFrame;) {
        if (run.CancelRequested()) {
            return VrErrorCanceled;
        }
        const std::uint64_t frames = std::min(form.frames, endFrame - position);
        run.Advance(frames);  // before the block, so that a failed one counts too
        const BlockBatch& block = reader.Take();
        // Before anything is made of it: what a new take has put there may be of another form.
        if (block.nextFailed || !run.RecordingHolds()) {
            return VrErrorFailed;
        }
        if (!file.Write(encoder.Encode(block.channels, static_cast<std::size_t>(frames)))) {
            return VrErrorFailed;
        }
        reader.GiveBack();
        position += frames;
    }
    return VrSuccess;
}

}  // namespace

float GainFactor(double decibels) {
    return std::pow(10.0f, SinglePrecisionGain(decibels) / 20.0f);
}

VrError SaveWavFile(const VrSaveSettingInternal* setting, SaveRun& run) {
    run.BeginFile();
    if (setting == nullptr) {
        return VrErrorInvalidParameter;
    }
    const SampleTypeInfo* sampleType = run.recording.sampleType;
    if (sampleType == nullptr || run.recording.channels == 0) {
        return VrErrorFailed;
    }

    const std::uint64_t rateHz = run.recording.sampleRate;
    const std::uint64_t startFrame = FramesFromSeconds(rateHz, setting->start);
    const std::uint64_t endFrame =
        std::min(run.recordData.GetLength(true), FramesFromSeconds(rateHz, setting->end));
    if (!run.RecordingHolds()) {
        return VrErrorFailed;  // the length is another take's
    }
    if (endFrame < startFrame) {
        return VrErrorInvalidParameter;
    }
    const std::uint64_t frames = endFrame - startFrame;
    run.progress.fileLength = frames;

    const WavFormat format{run.recording.channels, static_cast<std::uint32_t>(rateHz),
                           run.bits.load()};
    const RiffTexts tags(setting->tags);
    const auto tagBytes = static_cast<std::uint32_t>(CalculateSaveTagSize(tags));
    if (!FitsWav(format, frames, tagBytes)) {
        run.SkipFile(setting->path, frames);
        return VrSuccess;
    }
    const std::uint64_t headerFrames = std::min(frames, format.MaxFrames());
    const WavSizes sizes(format, headerFrames, tagBytes);

    if (const VrError error = SaveCreateDirectory(setting->path, run.createdDirectory);
        error != VrSuccess) {
        return error;
    }
    if (!CheckDiskSpace(setting->path, sizes.FileBytes())) {
        return VrErrorFailed;
    }
    OutputFile file;
    if (!run.volumeTakes(setting->path, sizes.FileBytes()) || !file.Open(setting->path)) {
        run.SkipFile(setting->path, headerFrames);
        return VrSuccess;
    }
    run.fileIsOurs = true;
    if (!file.Write(BuildWavHeader(format, sizes))) {
        return VrErrorFailed;
    }
    if (!FrameEncoder::Supports(*sampleType, format.bits)) {
        return VrErrorFailed;
    }

    // At least one frame, so that a rate below 10 Hz, which no device has, still comes to an end.
    const std::uint64_t blockFrames = std::max<std::uint64_t>(rateHz / 10, 1);
    FrameEncoder encoder(*sampleType, format.channels, format.bits,
                         static_cast<std::size_t>(std::min(blockFrames, frames)),
                         GainFactor(setting->gain));
    const std::size_t sampleBytes =
        (std::size_t{sampleType->bits} + std::size_t{sampleType->padBits}) / 8;
    VrError result = WriteFrames(run, encoder, file, startFrame, endFrame,
                                 {.frames = blockFrames,
                                  .bytes = static_cast<std::size_t>(blockFrames) * sampleBytes,
                                  .perBatch = 1});
    if (result == VrSuccess) {
        result = SaveTags(tags, file.Stream());
    }
    if (!file.Close() && result == VrSuccess) {
        result = VrErrorFailed;
    }
    return result;
}

}  // namespace vorrel
