#include "writer/SaveThread.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include "convert/NearestRounding.h"
#include "platform/SystemHelpers.h"
#include "platform/Trace.h"
#include "writer/DsfWriter.h"
#include "writer/OutputFile.h"
#include "writer/SaveChecks.h"
#include "writer/WavHeader.h"
#include "writer/WavWriter.h"

namespace vorrel {

namespace {

constexpr int kWhole = 1000;  // progress is told in per mille

int PerMille(std::uint64_t position, std::uint64_t length) {
    if (length == 0) {
        return 0;
    }
    const double share = static_cast<double>(position) / static_cast<double>(length) * kWhole;
    // A position of the next file may meet the length of the one before.
    return static_cast<int>(std::min<double>(share, kWhole));
}

VrError SaveFile(const VrSaveSettingInternal& file, bool isDsd, SaveRun& run) {
    try {
        return isDsd ? SaveDsfFile(&file, run) : SaveWavFile(&file, run);
    } catch (...) {  // out of memory: a failed file like any other
        // In a DSF file that is open a pending cancel goes before every other result. Before that,
        // a file of its name may be somebody else's, and a cancel might delete it.
        return isDsd && run.fileIsOurs && run.CancelRequested() ? VrErrorCanceled : VrErrorFailed;
    }
}

/// One step of a run's end; one that throws must not keep the next from being made.
template <class Step>
void EndWith(const Step& step) noexcept {
    try {
        step();
    } catch (...) {
        Trace(__FILE__, __LINE__, "a step at the end of a save failed");
    }
}

}  // namespace

SaveThread::SaveThread(IVorrelManager& owner) : manager(owner) {}

SaveThread::~SaveThread() {
    Join();
    WaitFinished();  // a body that has detached itself may be in its last lines
}

VrError SaveThread::SaveFiles(SaveList list, RecordData& data) {
    return Start(std::move(list), &data, nullptr);
}

VrError SaveThread::Start(SaveList list, RecordData* data, PreviewData* preview) {
    if (Joinable()) {
        return VrErrorFailed;
    }
    saveList = std::move(list);
    recordData = data;
    recording = data == nullptr ? RecordLayout() : data->GetLayout();
    previewData = preview;
    cancelState = kSaveCancelNone;
    return Create(PriorityNormal) ? VrSuccess : VrErrorFailed;
}

VrError SaveThread::SaveCancel(bool deleteFile) {
    std::int32_t expected = kSaveCancelNone;
    std::ignore = cancelState.compare_exchange_strong(
        expected, deleteFile ? kSaveCancelDelete : kSaveCancelKeep);
    return VrSuccess;
}

VrError SaveThread::GetProgress(int& fileProgress, int& totalProgress) const {
    const std::uint64_t overallLength = progress.overallLength;
    if (overallLength == 0) {
        return VrErrorInvalidState;
    }
    totalProgress = PerMille(progress.overallPosition, overallLength);
    fileProgress = PerMille(progress.filePosition, progress.fileLength);
    return VrSuccess;
}

void SaveThread::SetBits(std::uint16_t bitsPerSample) {
    bits = bitsPerSample;
}

std::uint16_t SaveThread::GetBits() const {
    return bits;
}

void SaveThread::ThreadImpl() {
    // The mode is inherited from the host's thread, and the frames and factors of a request are
    // to be the same on every one.
    const NearestRounding rounding;
    // All that is used after `Detach` is local: from there on the host may start the next request.
    const SaveList files = std::move(saveList);
    RecordData* const data = recordData;
    const RecordLayout layout = recording;

    Outcome outcome{VrSuccess, nullptr, false};
    std::string createdDirectory;
    if (files != nullptr && !files->empty() && layout.sampleType != nullptr) {
        SaveRun run{manager, *data, bits, cancelState, progress, {}, layout};
        outcome = WriteFiles(*files, run);
        createdDirectory = std::move(run.createdDirectory);
    }
    if (outcome.result == VrErrorCanceled && cancelState == kSaveCancelDelete) {
        EndWith([&] {
            if (outcome.fileIsOurs) {
                std::ignore = DeleateSaveFile(outcome.file);
            } else {
                // It could not be opened: what stands there is not of this save.
                RemoveEmptyDirectory(DirectoryPart(outcome.file->path));
            }
        });
    }

    Detach();
    EndWith([&] { manager.NotifyOperationProc(VrRecOperationSaveFinished); });
    if (outcome.result == VrSuccess || outcome.result == VrErrorCanceled) {
        return;
    }
    EndWith([&] { NotifyFailed(outcome.file->path); });
    if (!createdDirectory.empty()) {
        RemoveEmptyDirectory(std::move(createdDirectory));
    }
}

SaveThread::Outcome SaveThread::WriteFiles(const std::vector<VrSaveSettingInternal>& files,
                                           SaveRun& run) {
    SetOverallLength(files, run.recording.sampleRate);
    const bool isDsd = run.recording.sampleType->isDsd != 0;
    for (const VrSaveSettingInternal& file : files) {
        if (const VrError error = SaveFile(file, isDsd, run); error != VrSuccess) {
            return {error, &file, run.fileIsOurs};
        }
    }
    return {VrSuccess, nullptr, false};
}

void SaveThread::SetOverallLength(const std::vector<VrSaveSettingInternal>& files,
                                  std::uint64_t rateHz) {
    progress.overallPosition = 0;
    progress.overallLength = 0;
    // Kept: ends are not clipped to the recording here, only by the writers
    // (SaveThreadTest.ProgressCountsTheRangeThatWasAskedFor).
    for (const VrSaveSettingInternal& file : files) {
        const std::uint64_t startFrame = FramesFromSeconds(rateHz, file.start);
        const std::uint64_t endFrame = FramesFromSeconds(rateHz, file.end);
        if (endFrame >= startFrame) {  // a reversed range adds nothing
            progress.overallLength += endFrame - startFrame;
            progress.fileLength = endFrame - startFrame;
        }
    }
}

void SaveThread::NotifyFailed(const std::string& path) {
    if (manager.IsTempDirectoryExists()) {
        manager.NotifyErrorMessageProc(VrMessageSaveFailed, path.c_str());
    } else {
        // Without it, nothing could be read: that is the cause to tell, not the file.
        manager.NotifyErrorMessageProc(VrMessageTempDirectoryMissing, nullptr);
    }
}

VrError SaveThread::SavePreviewFile() {
    constexpr std::uint32_t kPreviewBits = 16;
    constexpr std::size_t kMaxNameBytes = 64;
    if (previewData == nullptr) {
        return VrErrorFailed;
    }
    const std::uint64_t rateHz = previewData->GetSampleRate();
    const WavFormat format{previewData->GetChannels(), static_cast<std::uint32_t>(rateHz),
                           kPreviewBits};
    const std::uint64_t frames = std::min(previewData->GetLength(true), format.MaxFrames());

    std::tm localTime{};
    const std::time_t now = std::time(nullptr);
    std::ignore = localtime_s(&localTime, &now);
    std::array<char, kMaxNameBytes> name{};
    if (std::strftime(name.data(), name.size(), "%Y%m%d_%H%M%S.wav", &localTime) == 0) {
        return VrErrorFailed;
    }
    OutputFile file;
    if (!file.Open(name.data()) ||
        !file.Write(BuildWavHeader(format, WavSizes(format, frames, 0)))) {
        return VrErrorFailed;
    }
    const std::uint64_t blockFrames = std::max<std::uint64_t>(rateHz / 10, 1);
    std::vector<std::int16_t> block;
    for (std::uint64_t position = 0; position < frames;) {
        const std::uint64_t end = std::min(position + blockFrames, frames);
        if (previewData->GetData(position, end, block, true) != VrSuccess) {
            return VrErrorFailed;
        }
        const std::span<const std::uint8_t> bytes(
            reinterpret_cast<const std::uint8_t*>(block.data()),
            block.size() * sizeof(std::int16_t));
        if (!file.Write(bytes)) {
            return VrErrorFailed;
        }
        position = end;
    }
    return file.Close() ? VrSuccess : VrErrorFailed;
}

}  // namespace vorrel
