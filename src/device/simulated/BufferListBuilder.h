#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "device/backend/CoreAudioTypes.h"

namespace vorrel {

/// Lays frames out as a device does: a list of one or more buffers that share the channels between
/// them. All memory is allocated when it is made.
class BufferListBuilder {
public:
    /// @param bufferChannels  Channels of each buffer; empty for one buffer with all `channels`.
    BufferListBuilder(UInt32 channels, const std::vector<UInt32>& bufferChannels,
                      UInt32 maximumFrames);

    /// Where the frames to lay out are written, all channels interleaved.
    float* Interleaved() { return interleaved.data(); }
    /// The list of the first `frames` frames there. Valid until the next call.
    const AudioBufferList& Build(UInt32 frames);
    /// A list without buffers.
    static const AudioBufferList& Empty();

private:
    AudioBufferList& List() { return *reinterpret_cast<AudioBufferList*>(storage.get()); }

    const UInt32 channels;
    std::vector<UInt32> lanes;       // channels of each buffer
    std::vector<float> interleaved;  // all channels
    std::vector<float> split;        // buffer by buffer; unused with one buffer
    std::unique_ptr<std::max_align_t[]> storage;
};

/// Bytes of a list of so many buffers.
std::size_t BufferListSize(std::size_t buffers);

}  // namespace vorrel
