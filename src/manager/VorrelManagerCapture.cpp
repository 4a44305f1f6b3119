#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <new>
#include <span>
#include <tuple>
#include <utility>

#include "convert/ChannelKernels.h"
#include "convert/SampleTypeInfo.h"
#include "manager/VorrelManager.h"

namespace vorrel {
namespace {

// Channels of one device buffer that are split in one pass; wider buffers go channel by channel.
constexpr std::size_t kMaxLanes = 32;
// Values converted at a time on the callback's stack.
constexpr std::size_t kScratchFrames = 1024;

std::span<const AudioBuffer> Buffers(const AudioBufferList& list) {
    return {list.mBuffers, list.mNumberBuffers};
}

std::size_t FrameCount(const AudioBuffer& buffer) {
    return buffer.mDataByteSize / (buffer.mNumberChannels * sizeof(float));
}

}  // namespace

VORREL_REALTIME void VorrelManager::AudioDevice_IOProc(const AudioBufferList* input,
                                                       AudioBufferList* output) {
    const RealtimeScope realtime;  // in tests, an allocation or a file call in here is a failure
    std::int64_t type = kSampleTypePcm;
    try {
        if (audioManager.GetSampleType(type) == VrSuccess && type == kSampleTypeDsd) {
            IOProc_DSD16(input, output);
        } else {
            IOProc_PCM(input, output);
        }
    } catch (const std::bad_alloc&) {
        // Only past what the pool was filled for: a buffer is lost as to a full queue.
        ReportOverflow();
    }
    // After the buffer has been queued, never before.
    if (recordStartPending.exchange(false) && !recordStartedMessage->Post()) {
        recordStartPending = true;  // the host has not taken its earlier ones: with the next buffer
    }
}

VORREL_REALTIME void VorrelManager::IOProc_PCM(const AudioBufferList* input, AudioBufferList*) {
    std::uint16_t channel = 0;
    if (input != nullptr) {
        for (const AudioBuffer& buffer : Buffers(*input)) {
            if (buffer.mNumberChannels == 0) {
                continue;
            }
            const std::size_t frames = FrameCount(buffer);
            const std::size_t lanes = buffer.mNumberChannels;
            const auto* samples = static_cast<const float*>(buffer.mData);
            if (lanes <= kMaxLanes) {
                std::array<Block, kMaxLanes> blocks;
                std::array<std::uint8_t*, kMaxLanes> targets;
                for (std::size_t lane = 0; lane < lanes; ++lane) {
                    blocks[lane] = dataQueue.TakeBlock(frames * sizeof(float));
                    targets[lane] = blocks[lane].data();
                }
                SplitLanes(std::span(targets.data(), lanes), samples, frames);
                for (std::size_t lane = 0; lane < lanes; ++lane) {
                    // A full queue loses the block: the device must never wait for storage.
                    std::ignore = Enqueue(channel++, std::move(blocks[lane]));
                }
                continue;
            }
            for (std::size_t lane = 0; lane < lanes; ++lane) {
                Block block = dataQueue.TakeBlock(frames * sizeof(float));
                CopyLane(block.data(), samples, frames, lanes, lane);
                std::ignore = Enqueue(channel++, std::move(block));
            }
        }
    }
    recThread.AddDataNotify();
}

VORREL_REALTIME void VorrelManager::IOProc_DSD16(const AudioBufferList* input, AudioBufferList*) {
    std::uint16_t channel = 0;
    if (input != nullptr) {
        for (const AudioBuffer& buffer : Buffers(*input)) {
            if (buffer.mNumberChannels == 0) {
                continue;
            }
            const std::size_t frames = FrameCount(buffer);
            const std::size_t lanes = buffer.mNumberChannels;
            const auto* samples = static_cast<const float*>(buffer.mData);
            for (std::size_t lane = 0; lane < lanes; ++lane) {
                Block block = dataQueue.TakeBlock(frames * sizeof(std::int16_t));
                auto* words = reinterpret_cast<std::int16_t*>(block.data());
                alignas(kBufferAlignment) std::array<float, kScratchFrames> gathered;
                for (std::size_t frame = 0; frame < frames; frame += kScratchFrames) {
                    const std::size_t count = std::min(kScratchFrames, frames - frame);
                    CopyLane(reinterpret_cast<std::uint8_t*>(gathered.data()),
                             samples + frame * lanes, count, lanes, lane);
                    Float_To_DSD16(words + frame, gathered.data(), count);
                }
                std::ignore = Enqueue(channel++, std::move(block));
            }
        }
    }
    recThread.AddDataNotify();
}

VORREL_REALTIME void VorrelManager::Float_To_DSD16(std::int16_t* dst, const float* src,
                                                   std::size_t count) {
    for (std::size_t index = 0; index < count; ++index) {
        // Clamped as a float, so that a wide value cannot wrap to the other sign.
        const float scaled = std::clamp(src[index] * 32768.0F, -32768.0F, 32767.0F);
        dst[index] = static_cast<std::int16_t>(static_cast<std::int32_t>(scaled));
    }
}

VORREL_REALTIME VrError VorrelManager::Enqueue(std::uint16_t channel, Block&& block) {
    const VrError result = dataQueue.Enqueue(channel, std::move(block));
    if (result == VrErrorFailed) {
        ReportOverflow();
    }
    return result;
}

VORREL_REALTIME void VorrelManager::ReportOverflow() {
    if (!overflowReported.exchange(true) && !overflowMessage->Post()) {
        overflowReported = false;  // the host has not taken its earlier ones: with the next loss
    }
}

}  // namespace vorrel
