#include "pipeline/ConvertThread.h"

#include <algorithm>
#include <new>
#include <tuple>

#include "pipeline/Tenths.h"

namespace vorrel {
namespace {

// Bytes of a stretch without sound. DSD has no zero: as many ones as zeros stand for it.
constexpr std::uint8_t kPcmSilence = 0x00;
constexpr std::uint8_t kDsdSilence = 0x69;

std::uint64_t SamplesPerFrame(const SampleTypeInfo& type) {
    return type.isDsd != 0 ? ConvertThread::kDsdSamplesPerFrame : 1;
}

}  // namespace

ConvertThread::Run::Run(std::uint16_t channels, std::size_t inputBytes)
    : input(channels), output(channels), work(channels) {
    for (AlignedBytes& bytes : input) {
        bytes.reserve(inputBytes);
    }
    for (PreviewSamples& samples : output) {
        samples.reserve(kChunkFrames);
    }
    interleaved.reserve(kChunkFrames * channels);
}

ConvertThread::ConvertThread(IVorrelManager& owner) : manager(owner) {}

ConvertThread::~ConvertThread() {
    Stop();
}

VrError ConvertThread::Start(RecordData* record, PreviewData* preview) {
    if (record == nullptr || preview == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (Joinable()) {
        return VrErrorFailed;
    }
    ResetEvent();
    stop = false;
    channels = record->GetChannels();
    sampleType = record->GetSampleTypeInfo();
    previewRate = preview->GetSampleRate();
    recordData = record;
    previewData = preview;
    try {
        // Without a sample type there is nothing to convert, ever.
        run = sampleType == nullptr
                  ? Run()
                  : Run(channels, StoredBytes(kChunkFrames * SamplesPerFrame(*sampleType)));
    } catch (const std::bad_alloc&) {
        return VrErrorFailed;
    }
    if (!Create(PriorityHigh)) {
        run = Run();
        return VrErrorFailed;
    }
    return VrSuccess;
}

void ConvertThread::AddDataNotify() {
    if (Joinable()) {
        SetEvent();
    }
}

void ConvertThread::Stop() {
    if (!Joinable()) {
        return;
    }
    stop.store(true, std::memory_order_release);
    SetEvent();
    Join();
    run = Run();
}

void ConvertThread::ThreadImpl() {
    bool leave = false;
    while (!leave) {
        WaitEvent();
        // Read before the drain, so that a drain follows all that was stored before Stop.
        leave = stop.load(std::memory_order_acquire);
        Drain();
    }
}

void ConvertThread::Drain() {
    for (;;) {
        const std::uint64_t total = recordData->GetLength(false);
        if (total <= run.converted) {
            return;
        }
        const std::uint64_t samplesPerFrame = SamplesPerFrame(*sampleType);
        const std::uint64_t frames =
            std::min((total - run.converted) / samplesPerFrame, kChunkFrames);
        if (frames == 0) {
            return;
        }
        const std::uint64_t samples = frames * samplesPerFrame;
        for (std::uint16_t channel = 0; channel < channels; ++channel) {
            ConvertChannel(channel, samples, frames);
        }
        Interleave(run.interleaved, run.output, static_cast<std::size_t>(frames));
        // A preview that lacks a chunk is better than none, although what comes behind a refused
        // one moves forward by it; what cannot be recorded is reported by the record worker, which
        // writes to the same directory.
        std::ignore = previewData->Add(run.interleaved);
        run.converted += samples;
        ReportPosition();
    }
}

std::size_t ConvertThread::StoredBytes(std::uint64_t samples) const {
    const std::uint64_t storedBits = std::uint64_t{sampleType->bits} + sampleType->padBits;
    return static_cast<std::size_t>(samples * storedBits / 8);
}

void ConvertThread::ConvertChannel(std::uint16_t channel, std::uint64_t samples,
                                   std::uint64_t frames) {
    AlignedBytes& input = run.input[channel];
    PreviewSamples& output = run.output[channel];
    input.clear();
    // Where the worker fell behind, the data has left the store and the read ends early: silence
    // in its place keeps the positions.
    std::ignore =
        recordData->GetData(channel, run.converted, run.converted + samples, input, false);
    input.resize(StoredBytes(samples), sampleType->isDsd != 0 ? kDsdSilence : kPcmSilence);
    output.resize(static_cast<std::size_t>(frames));
    sampleType->toPreview(reinterpret_cast<std::uint8_t*>(output.data()), input.data(),
                          static_cast<std::size_t>(frames), &run.work[channel]);
}

void ConvertThread::Interleave(std::vector<std::int16_t>& out,
                               std::span<const PreviewSamples> perChannel, std::size_t frames) {
    const std::size_t channelCount = perChannel.size();
    out.resize(channelCount * frames);
    std::int16_t* const target = out.data();
    // A stride that the compiler knows becomes vector code.
    if (channelCount == 2) {
        const std::int16_t* const left = perChannel[0].data();
        const std::int16_t* const right = perChannel[1].data();
        for (std::size_t frame = 0; frame < frames; ++frame) {
            target[2 * frame] = left[frame];
            target[2 * frame + 1] = right[frame];
        }
        return;
    }
    for (std::size_t channel = 0; channel < channelCount; ++channel) {
        const std::int16_t* const source = perChannel[channel].data();
        for (std::size_t frame = 0; frame < frames; ++frame) {
            target[frame * channelCount + channel] = source[frame];
        }
    }
}

void ConvertThread::ReportPosition() {
    const std::uint64_t tenths = Tenths(previewData->GetLength(false), previewRate);
    if (tenths != run.lastTenths) {
        run.lastTenths = tenths;
        manager.NotifyConvertPosProc(SecondsOfTenths(tenths));
    }
}

}  // namespace vorrel
