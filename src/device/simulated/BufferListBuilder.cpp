#include "device/simulated/BufferListBuilder.h"

#include <algorithm>

namespace vorrel {
namespace {

/// The buffers behind the list's head: its one declared element stands for any number.
AudioBuffer* BuffersOf(AudioBufferList& list) {
    return reinterpret_cast<AudioBuffer*>(reinterpret_cast<std::byte*>(&list) +
                                          offsetof(AudioBufferList, mBuffers));
}

}  // namespace

std::size_t BufferListSize(std::size_t buffers) {
    return offsetof(AudioBufferList, mBuffers) + buffers * sizeof(AudioBuffer);
}

BufferListBuilder::BufferListBuilder(UInt32 channelCount, const std::vector<UInt32>& bufferChannels,
                                     UInt32 maximumFrames)
    : channels(channelCount),
      lanes(bufferChannels.empty() ? std::vector<UInt32>{channelCount} : bufferChannels),
      interleaved(std::size_t{maximumFrames} * channelCount),
      split(lanes.size() > 1 ? interleaved.size() : 0),
      storage(std::make_unique<std::max_align_t[]>(
          std::max(BufferListSize(lanes.size()), sizeof(AudioBufferList)) /
              sizeof(std::max_align_t) +
          1)) {}

const AudioBufferList& BufferListBuilder::Build(UInt32 frames) {
    AudioBufferList& list = List();
    list.mNumberBuffers = static_cast<UInt32>(lanes.size());
    float* data = lanes.size() > 1 ? split.data() : interleaved.data();
    UInt32 firstChannel = 0;
    for (std::size_t i = 0; i < lanes.size(); ++i) {
        const UInt32 width = lanes[i];
        const std::size_t samples = std::size_t{frames} * width;
        BuffersOf(list)[i] = {width, static_cast<UInt32>(samples * sizeof(float)), data};
        if (lanes.size() > 1) {
            for (std::size_t frame = 0; frame < frames; ++frame) {
                std::copy_n(interleaved.data() + frame * channels + firstChannel, width,
                            data + frame * width);
            }
        }
        data += samples;
        firstChannel += width;
    }
    return list;
}

const AudioBufferList& BufferListBuilder::Empty() {
    static const AudioBufferList empty{};
    return empty;
}

}  // namespace vorrel
