#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "convert/SampleTypeInfo.h"
#include "manager/IVorrelManager.h"
#include "pipeline/ThreadBase.h"
#include "platform/AlignedBytes.h"
#include "store/PreviewData.h"
#include "store/RecordData.h"

namespace vorrel {

/// One channel's preview samples, aligned for the vector kernels.
using PreviewSamples = std::vector<std::int16_t, AlignedAllocator<std::int16_t, kBufferAlignment>>;

/// The preview worker: converts newly stored raw samples to 16 bits, interleaves them into the
/// preview store and reports its length in tenths of a second. Raw data that has left the store
/// before the worker came to it becomes silence; a preview block that cannot be stored is lost.
class ConvertThread final : public ThreadBase {
public:
    /// Preview frames of one chunk at most.
    static constexpr std::uint64_t kChunkFrames = 4096;
    /// One-bit samples that make one preview frame.
    static constexpr std::uint64_t kDsdSamplesPerFrame = 64;

    explicit ConvertThread(IVorrelManager& manager);
    ~ConvertThread() override;  // stops
    ConvertThread(const ConvertThread&) = delete;
    ConvertThread& operator=(const ConvertThread&) = delete;

    /// Starts the worker. Both stores are not owned, stay until `Stop` and have been initialised.
    /// All memory that the worker needs is taken here: what it cannot have later is only room in
    /// the preview store.
    /// @return `VrErrorInvalidParameter` (a store is missing); `VrErrorFailed` (not stopped since
    ///         the last start, or no thread or memory to be had).
    VrError Start(RecordData* recordData, PreviewData* previewData);
    /// Wakes the worker; nothing while it is not started. Any thread.
    void AddDataNotify();
    /// Ends the worker, which first converts all that is stored, and waits for it. Nothing while
    /// it is not started.
    void Stop();

    /// Makes `out` channels x `frames` samples: frame by frame, channel 0 first.
    /// @param perChannel  At least `frames` samples each.
    static void Interleave(std::vector<std::int16_t>& out,
                           std::span<const PreviewSamples> perChannel, std::size_t frames);

private:
    /// The working state of one run, with room for the largest chunk.
    struct Run {
        Run() = default;
        Run(std::uint16_t channels, std::size_t inputBytes);

        std::vector<AlignedBytes> input;
        std::vector<PreviewSamples> output;
        std::vector<DsdToPcmWorkBuffer> work;
        std::vector<std::int16_t> interleaved;
        std::uint64_t converted = 0;  // samples per channel
        std::uint64_t lastTenths = 0;
    };

    void ThreadImpl() override;
    void Drain();
    std::size_t StoredBytes(std::uint64_t samples) const;
    void ConvertChannel(std::uint16_t channel, std::uint64_t samples, std::uint64_t frames);
    void ReportPosition();

    IVorrelManager& manager;
    std::atomic<bool> stop{false};  // set by Stop before SetEvent, read by the worker
    std::uint16_t channels = 0;
    std::uint64_t previewRate = 0;
    const SampleTypeInfo* sampleType = nullptr;
    RecordData* recordData = nullptr;
    PreviewData* previewData = nullptr;
    Run run;  // the worker's, from `Start` to its end
};

}  // namespace vorrel
