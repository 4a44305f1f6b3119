#include "writer/PlainDsfWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <vector>

#include "pipeline/DSDStreamProcessing.h"
#include "writer/TagWriter.h"

namespace vorrel::test {

namespace {

constexpr std::uint64_t kBlockBytes = 4096;

void Append(std::vector<std::uint8_t>& out, std::string_view text) {
    out.insert(out.end(), text.begin(), text.end());
}

void Append(std::vector<std::uint8_t>& out, std::uint64_t number, int bytes) {
    for (int byte = 0; byte < bytes; ++byte) {
        out.push_back(static_cast<std::uint8_t>(number >> (8 * byte)));
    }
}

std::uint8_t Reversed(std::uint8_t byte) {
    unsigned reversed = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        reversed = reversed << 1U | ((unsigned{byte} >> bit) & 1U);
    }
    return static_cast<std::uint8_t>(reversed);
}

}  // namespace

VrError PlainSaveDsfFile(const VrSaveSettingInternal* setting, SaveRun& run,
                         const std::function<void(std::size_t)>& beforeBlock) {
    run.progress.filePosition = 0;
    run.progress.fileLength = 0;
    if (setting == nullptr) {
        return VrErrorInvalidParameter;
    }
    const SampleTypeInfo* type = run.recording.sampleType;
    if (type == nullptr) {
        return VrErrorFailed;
    }
    const std::uint64_t rateHz = run.recording.sampleRate;
    const std::uint64_t channels = run.recording.channels;
    const std::uint64_t startFrame = FramesFromSeconds(rateHz, setting->start);
    const std::uint64_t endFrame = FramesFromSeconds(rateHz, setting->end);
    if (endFrame < startFrame) {
        return VrErrorInvalidParameter;
    }
    const std::uint64_t frames = endFrame - startFrame;
    run.progress.fileLength = frames;

    const std::uint64_t bits = type->bits + std::uint64_t{type->padBits};
    const std::uint64_t id3Bytes = CalculateSaveID3TagSize(setting->tags);
    std::uint64_t channelBytes = bits * frames / 8;
    while (channelBytes % kBlockBytes != 0) {
        ++channelBytes;
    }
    const std::uint64_t payload = channels * channelBytes;
    const std::uint64_t total = 92 + payload + id3Bytes;
    std::vector<std::uint8_t> header;
    Append(header, "DSD ");
    Append(header, 28, 8);
    Append(header, total, 8);
    Append(header, id3Bytes != 0 ? 92 + payload : 0, 8);
    Append(header, "fmt ");
    Append(header, 52, 8);
    Append(header, 1, 4);
    Append(header, 0, 4);
    Append(header, channels >= 4 ? channels + 1 : channels, 4);
    Append(header, channels, 4);
    Append(header, rateHz, 4);
    Append(header, bits, 4);
    Append(header, frames, 8);
    Append(header, kBlockBytes, 4);
    Append(header, 0, 4);
    Append(header, "data");
    Append(header, payload + 12, 8);

    if (const VrError error = SaveCreateDirectory(setting->path, run.createdDirectory);
        error != VrSuccess) {
        return error;
    }
    if (!CheckDiskSpace(setting->path, total)) {
        return VrErrorFailed;
    }
    if (!run.volumeTakes(setting->path, total)) {
        run.manager.NotifyErrorMessageProc(VrMessageFileSkipped, setting->path.c_str());
        run.progress.overallPosition += frames;
        return VrSuccess;
    }
    std::FILE* file = std::fopen(setting->path.c_str(), "wb");
    if (file == nullptr) {
        run.manager.NotifyErrorMessageProc(VrMessageFileSkipped, setting->path.c_str());
        run.progress.overallPosition += frames;
        return run.cancelState != kSaveCancelNone ? VrErrorCanceled : VrSuccess;
    }
    std::vector<char> streamBuffer(1'048'576);
    if (std::setvbuf(file, streamBuffer.data(), _IOFBF, streamBuffer.size()) != 0 ||
        std::fwrite(header.data(), 1, header.size(), file) != header.size()) {
        std::fclose(file);
        return run.cancelState != kSaveCancelNone ? VrErrorCanceled : VrErrorFailed;
    }

    std::vector<std::vector<std::uint8_t>> buffers(channels);
    std::vector<DSDStreamProcessing> processors(channels);
    for (DSDStreamProcessing& processor : processors) {
        EXPECT_EQ(processor.Init(static_cast<std::int32_t>(rateHz), 1), DSDStreamProcessing::kDone);
        EXPECT_EQ(processor.SetGain(static_cast<float>(setting->gain)), DSDStreamProcessing::kDone);
    }
    const std::uint64_t blockFrames = 32'768 / bits;
    std::uint64_t position = startFrame;
    VrError result = VrSuccess;
    for (std::size_t block = 0; result == VrSuccess && position < endFrame; ++block) {
        beforeBlock(block);
        if (run.cancelState == kSaveCancelDelete) {
            break;
        }
        const std::uint64_t n = std::min(blockFrames, endFrame - position);
        run.progress.filePosition = position - startFrame;
        run.progress.overallPosition += n;
        const auto byteCount = static_cast<std::size_t>(bits * n / 8);
        for (std::size_t channel = 0; result == VrSuccess && channel < channels; ++channel) {
            std::vector<std::uint8_t>& buffer = buffers[channel];
            if (run.recordData.GetData(static_cast<std::uint16_t>(channel), position, position + n,
                                       buffer, true) != VrSuccess) {
                result = VrErrorFailed;
                break;
            }
            if (n < blockFrames) {
                buffer.resize(kBlockBytes);
                std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(byteCount), buffer.end(), 0);
            }
            if (type->msbFirst != 0) {
                std::transform(buffer.begin(), buffer.end(), buffer.begin(), &Reversed);
            }
            EXPECT_EQ(processors[channel].Process(buffer.data(), byteCount),
                      DSDStreamProcessing::kDone);
        }
        for (std::size_t channel = 0; result == VrSuccess && channel < channels; ++channel) {
            const std::vector<std::uint8_t>& buffer = buffers[channel];
            if (std::fwrite(buffer.data(), 1, buffer.size(), file) != buffer.size()) {
                result = VrErrorFailed;
            }
        }
        position += n;
    }
    if (result == VrSuccess) {
        result = SaveID3Tags(setting->tags, file);
    }
    const bool writtenOut = std::ferror(file) == 0;
    if ((std::fclose(file) != 0 || !writtenOut) && result == VrSuccess) {
        result = VrErrorFailed;
    }
    return run.cancelState != kSaveCancelNone ? VrErrorCanceled : result;
}

}  // namespace vorrel::test
