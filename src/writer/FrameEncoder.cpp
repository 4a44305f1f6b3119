#include "writer/FrameEncoder.h"

#include <array>

#include "convert/ChannelKernels.h"
#include "writer/Interleave.h"

namespace vorrel {

namespace {

constexpr std::size_t kNarrowest = 2;  // bytes per sample, where the tables by width begin

SampleConverter FromFloat(std::size_t width) {
    const SampleTypeInfo& floats = *GetSampleTypeInfo(kSampleTypePcm);
    const std::array byWidth = {floats.toInt16, floats.toInt24, floats.toInt32};
    return byWidth[width - kNarrowest];
}

}  // namespace

bool FrameEncoder::Supports(const SampleTypeInfo& source, std::uint32_t bits) {
    return source.toFloat32 != nullptr && (bits == 16 || bits == 24 || bits == 32);
}

FrameEncoder::FrameEncoder(const SampleTypeInfo& sourceType, std::size_t channels,
                           std::uint32_t bits, std::size_t maxFrames, float gainFactor)
    : source(sourceType),
      width(bits / 8),
      gain(gainFactor),
      inOnePass(&sourceType == GetSampleTypeInfo(kSampleTypePcm)) {
    encoded.resize(maxFrames * channels * width);
    if (inOnePass) {
        inputs.resize(channels);
        return;
    }
    floats.resize(maxFrames * sizeof(float));
    converted.resize(channels);
    for (AlignedBytes& channel : converted) {
        channel.resize(maxFrames * width);
    }
}

std::span<const std::uint8_t> FrameEncoder::Encode(std::span<const AlignedBytes> channels,
                                                   std::size_t frames) {
    if (inOnePass) {
        for (std::size_t channel = 0; channel < channels.size(); ++channel) {
            inputs[channel] = reinterpret_cast<const float*>(channels[channel].data());
        }
        GainConvertInterleave(encoded.data(), inputs, frames, gain, width);
    } else {
        EncodeStepwise(channels, frames);
    }
    return std::span(encoded).first(frames * channels.size() * width);
}

void FrameEncoder::EncodeStepwise(std::span<const AlignedBytes> channels, std::size_t frames) {
    for (std::size_t channel = 0; channel < channels.size(); ++channel) {
        source.toFloat32(floats.data(), channels[channel].data(), frames);
        const std::span<float> samples(reinterpret_cast<float*>(floats.data()), frames);
        for (float& sample : samples) {
            sample *= gain;
        }
        FromFloat(width)(converted[channel].data(), floats.data(), frames);
    }
    kInterleaveByWidth[width - kNarrowest](encoded.data(), converted, frames);
}

}  // namespace vorrel
