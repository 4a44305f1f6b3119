#include <algorithm>
#include <array>
#include <cmath>
#include <new>
#include <span>
#include <tuple>
#include <utility>

#include "convert/ChannelKernels.h"
#include "convert/SampleTypeInfo.h"
#include "manager/VorrelManager.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vorrel {
namespace {

// Channels that are taken from a buffer in one pass.
constexpr std::size_t kMaxLanes = 32;
// Values of all lanes gathered at a time on the callback's stack: 16 KiB, near the processor.
constexpr std::size_t kScratchFloats = 4096;
constexpr std::size_t kVectorFloats = kBufferAlignment / sizeof(float);
constexpr std::size_t kDsdWordBytes = 2;
// What a buffer without samples stands for: DSD has no zero, this pattern is its silence.
constexpr int kDsdSilenceByte = 0x69;

std::span<const AudioBuffer> Buffers(const AudioBufferList* list) {
    if (list == nullptr) {
        return {};
    }
    return {list->mBuffers, list->mNumberBuffers};
}

std::size_t FrameCount(const AudioBuffer& buffer) {
    return buffer.mDataByteSize / (buffer.mNumberChannels * sizeof(float));
}

}  // namespace

/// Some neighbouring channels of one device buffer.
struct VorrelManager::Lanes {
    const float* samples;  // null: the device has none this time
    std::size_t frames;
    std::size_t channels;  // of the whole buffer
    std::size_t first;     // of these lanes
};

VORREL_REALTIME void VorrelManager::AudioDevice_IOProc(const AudioBufferList* input,
                                                       AudioBufferList* output) {
    const RealtimeScope realtime;  // in tests, an allocation or a file call in here is a failure
    const CaptureGate::Entry entry(captureGate);
    if (!entry.Admitted()) {
        return;  // told to stop, the device goes on
    }
    std::int64_t type = kSampleTypePcm;
    try {
        if (audioManager.GetSampleType(type) == VrSuccess && type == kSampleTypeDsd) {
            IOProc_DSD16(input, output);
        } else {
            IOProc_PCM(input, output);
        }
    } catch (const std::bad_alloc&) {
        // Only past what the pool was filled for: the buffer is lost as to a full queue.
        ReportOverflow();
        recThread.AddDataNotify();
    }
    // After the buffer has been queued, never before.
    if (recordStartPending.exchange(false) &&
        !operationTasks[VrRecOperationRecordStarted]->Post()) {
        recordStartPending = true;  // the host has not taken its earlier ones: with the next buffer
    }
}

template <class Fill>
VORREL_REALTIME void VorrelManager::QueueBlocks(const AudioBufferList* input,
                                                std::size_t bytesPerFrame, const Fill& fill) {
    std::size_t channel = 0;
    for (const AudioBuffer& buffer : Buffers(input)) {
        if (buffer.mNumberChannels == 0) {
            continue;
        }
        const std::size_t frames = FrameCount(buffer);
        // Channels past those of the recording have no queue.
        const std::size_t wanted =
            std::min<std::size_t>(buffer.mNumberChannels, captureBlocks.size() - channel);
        for (std::size_t first = 0; first < wanted; first += kMaxLanes) {
            const std::size_t count = std::min(kMaxLanes, wanted - first);
            const std::span blocks = std::span(captureBlocks).subspan(channel + first, count);
            dataQueue.TakeBlocks(frames * bytesPerFrame, blocks);
            fill(blocks, Lanes{static_cast<const float*>(buffer.mData), frames,
                               buffer.mNumberChannels, first});
        }
        channel += wanted;
    }
    // A full queue loses the buffer: the device must never wait for storage.
    std::ignore = Enqueue(std::span(captureBlocks).first(channel));
    recThread.AddDataNotify();
}

VORREL_REALTIME void VorrelManager::IOProc_PCM(const AudioBufferList* input, AudioBufferList*) {
    QueueBlocks(input, sizeof(float), [](std::span<Block> blocks, const Lanes& lanes) {
        if (lanes.samples == nullptr) {
            for (Block& block : blocks) {
                std::ranges::fill(block, std::uint8_t{0});
            }
        } else if (blocks.size() == lanes.channels) {
            std::array<std::uint8_t*, kMaxLanes> targets{};
            std::ranges::transform(blocks, targets.begin(),
                                   [](Block& block) { return block.data(); });
            SplitLanes(std::span(targets.data(), blocks.size()), lanes.samples, lanes.frames);
        } else {
            for (std::size_t lane = 0; lane < blocks.size(); ++lane) {
                CopyLane(blocks[lane].data(), lanes.samples, lanes.frames, lanes.channels,
                         lanes.first + lane);
            }
        }
    });
}

VORREL_REALTIME void VorrelManager::IOProc_DSD16(const AudioBufferList* input, AudioBufferList*) {
    QueueBlocks(input, kDsdWordBytes, [](std::span<Block> blocks, const Lanes& lanes) {
        if (lanes.samples == nullptr) {
            for (Block& block : blocks) {
                std::ranges::fill(block, std::uint8_t{kDsdSilenceByte});
            }
            return;
        }
        // Overwritten before it is read.
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
        alignas(kBufferAlignment) std::array<float, kScratchFloats> gathered;
        // A whole number of vectors for every lane, so that each begins aligned.
        const std::size_t piece = kScratchFloats / blocks.size() / kVectorFloats * kVectorFloats;
        std::array<std::uint8_t*, kMaxLanes> targets{};
        for (std::size_t lane = 0; lane < blocks.size(); ++lane) {
            targets[lane] = reinterpret_cast<std::uint8_t*>(gathered.data() + lane * piece);
        }
        for (std::size_t frame = 0; frame < lanes.frames; frame += piece) {
            const std::size_t count = std::min(piece, lanes.frames - frame);
            const float* const samples = lanes.samples + frame * lanes.channels;
            if (blocks.size() == lanes.channels) {
                SplitLanes(std::span(targets.data(), blocks.size()), samples, count);
            } else {
                for (std::size_t lane = 0; lane < blocks.size(); ++lane) {
                    CopyLane(targets[lane], samples, count, lanes.channels, lanes.first + lane);
                }
            }
            for (std::size_t lane = 0; lane < blocks.size(); ++lane) {
                auto* const words = reinterpret_cast<std::int16_t*>(blocks[lane].data());
                Float_To_DSD16(words + frame, gathered.data() + lane * piece, count);
            }
        }
    });
}

VORREL_REALTIME void VorrelManager::Float_To_DSD16(std::int16_t* dst, const float* src,
                                                   std::size_t count) {
    std::size_t index = 0;
    // Clamped as floats, so that a wide value cannot wrap to the other sign; a value that is no
    // number becomes 0.
#if defined(__SSE2__)
    const auto fourWords = [](const float* values) {
        const __m128 read = _mm_loadu_ps(values);
        const __m128 numbers = _mm_and_ps(read, _mm_cmpord_ps(read, read));
        const __m128 scaled = _mm_mul_ps(numbers, _mm_set1_ps(32768.0F));
        return _mm_cvttps_epi32(
            _mm_max_ps(_mm_min_ps(scaled, _mm_set1_ps(32767.0F)), _mm_set1_ps(-32768.0F)));
    };
    for (; index + 8 <= count; index += 8) {
        const __m128i words = _mm_packs_epi32(fourWords(src + index), fourWords(src + index + 4));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + index), words);
    }
#endif
    for (; index < count; ++index) {
        const float value = std::isnan(src[index]) ? 0.0F : src[index];
        const float scaled = std::clamp(value * 32768.0F, -32768.0F, 32767.0F);
        dst[index] = static_cast<std::int16_t>(scaled);
    }
}

VORREL_REALTIME VrError VorrelManager::Enqueue(std::span<Block> blocks) {
    const VrError result = dataQueue.EnqueueBuffer(blocks);
    if (result == VrErrorFailed) {
        ReportOverflow();
    }
    return result;
}

VORREL_REALTIME void VorrelManager::ReportOverflow() {
    if (!overflowReported.exchange(true) && !messageTasks[VrMessageBufferOverflow]->Post()) {
        overflowReported = false;  // the host has not taken its earlier ones: with the next loss
    }
}

}  // namespace vorrel
