// Compiled once per instruction set, each time into another table (VORREL_KERNEL_TABLE). What the
// wider compilations share with the rest of the program must not be emitted here: everything is in
// unnamed namespaces, and inline functions of the standard library stay out (see PcmKernels.h).
#include "convert/PcmKernels.h"

#include "convert/DsdToPcmKernel.h"
#include "convert/Vectors.h"

namespace vorrel {
namespace {

/// Scales one vector, by the gain first if there is one, and makes integers of it. Two products,
/// not one factor: that is how the samples are defined, and overflow shows the difference.
template <std::size_t width, bool gained>
inline Ints Convert(const std::uint8_t* in, [[maybe_unused]] float gain) {
    Floats value = LoadFloats(in);
    if constexpr (gained) {
        value = Multiply(value, gain);
    }
    if constexpr (width == 2) {
        return RoundTo16(Multiply(value, 32768.0F));
    } else if constexpr (width == 3) {
        return TruncateTo24(Multiply(value, 8388608.0F));
    } else {
        return RoundTo32(Multiply(value, 2147483648.0F));
    }
}

/// One block of one channel.
template <std::size_t width, bool gained>
inline void ConvertBlock(std::uint8_t* out, const std::uint8_t* in, float gain) {
    const Ints block[4] = {Convert<width, gained>(in, gain),
                           Convert<width, gained>(in + kVectorBytes, gain),
                           Convert<width, gained>(in + 2 * kVectorBytes, gain),
                           Convert<width, gained>(in + 3 * kVectorBytes, gain)};
    StoreBlock<width>(out, block);
}

/// One block of two channels: half a block from each.
template <std::size_t width>
inline void ConvertStereoBlock(std::uint8_t* out, const std::uint8_t* left,
                               const std::uint8_t* right, float gain) {
    Ints block[4];
    Interleave(Convert<width, true>(left, gain), Convert<width, true>(right, gain), block[0],
               block[1]);
    Interleave(Convert<width, true>(left + kVectorBytes, gain),
               Convert<width, true>(right + kVectorBytes, gain), block[2], block[3]);
    StoreBlock<width>(out, block);
}

template <std::size_t width, bool gained>
void ConvertChannel(std::uint8_t* out, const std::uint8_t* in, std::size_t count, float gain) {
    while (count >= kBlockSamples) {
        ConvertBlock<width, gained>(out, in, gain);
        out += kBlockSamples * width;
        in += kBlockSamples * kFloatBytes;
        count -= kBlockSamples;
    }
    if (count != 0) {
        // The tail takes the same road as a block, through a block-sized copy.
        std::uint8_t padded[kBlockSamples * kFloatBytes] = {};
        std::uint8_t converted[kBlockSamples * width];
        __builtin_memcpy(padded, in, count * kFloatBytes);
        ConvertBlock<width, gained>(converted, padded, gain);
        __builtin_memcpy(out, converted, count * width);
    }
}

template <std::size_t width>
void ConvertStereo(std::uint8_t* out, const std::uint8_t* left, const std::uint8_t* right,
                   std::size_t frames, float gain) {
    constexpr std::size_t kFrames = kBlockSamples / 2;
    while (frames >= kFrames) {
        ConvertStereoBlock<width>(out, left, right, gain);
        out += kBlockSamples * width;
        left += kFrames * kFloatBytes;
        right += kFrames * kFloatBytes;
        frames -= kFrames;
    }
    if (frames != 0) {
        std::uint8_t paddedLeft[kFrames * kFloatBytes] = {};
        std::uint8_t paddedRight[kFrames * kFloatBytes] = {};
        std::uint8_t converted[kBlockSamples * width];
        __builtin_memcpy(paddedLeft, left, frames * kFloatBytes);
        __builtin_memcpy(paddedRight, right, frames * kFloatBytes);
        ConvertStereoBlock<width>(converted, paddedLeft, paddedRight, gain);
        __builtin_memcpy(out, converted, frames * 2 * width);
    }
}

/// Any number of channels: a tile of each is converted, then dealt out to its places.
template <std::size_t width>
void ConvertMany(std::uint8_t* out, const float* const* channels, std::size_t channelCount,
                 std::size_t frames, float gain) {
    constexpr std::size_t kTileFrames = 2 * kBlockSamples;
    const std::size_t frameBytes = channelCount * width;
    std::uint8_t tile[kTileFrames * width];
    for (std::size_t done = 0; done < frames; done += kTileFrames) {
        const std::size_t count = frames - done < kTileFrames ? frames - done : kTileFrames;
        for (std::size_t channel = 0; channel < channelCount; ++channel) {
            ConvertChannel<width, true>(
                tile, reinterpret_cast<const std::uint8_t*>(channels[channel] + done), count, gain);
            std::uint8_t* place = out + done * frameBytes + channel * width;
            for (std::size_t frame = 0; frame < count; ++frame) {
                __builtin_memcpy(place, tile + frame * width, width);
                place += frameBytes;
            }
        }
    }
}

template <std::size_t width>
void ConvertAll(std::uint8_t* out, const float* const* channels, std::size_t channelCount,
                std::size_t frames, float gain) {
    switch (channelCount) {
        case 1:
            ConvertChannel<width, true>(out, reinterpret_cast<const std::uint8_t*>(channels[0]),
                                        frames, gain);
            break;
        case 2:
            ConvertStereo<width>(out, reinterpret_cast<const std::uint8_t*>(channels[0]),
                                 reinterpret_cast<const std::uint8_t*>(channels[1]), frames, gain);
            break;
        default:
            ConvertMany<width>(out, channels, channelCount, frames, gain);
            break;
    }
}

void GainConvertInterleaveKernel(std::uint8_t* out, const float* const* channels,
                                 std::size_t channelCount, std::size_t frames, float gain,
                                 std::size_t width) {
    switch (width) {
        case 2:
            ConvertAll<2>(out, channels, channelCount, frames, gain);
            break;
        case 3:
            ConvertAll<3>(out, channels, channelCount, frames, gain);
            break;
        default:
            ConvertAll<4>(out, channels, channelCount, frames, gain);
            break;
    }
}

/// Sorts `channels` vectors of interleaved words into one vector per channel: the even and the
/// odd words are two interleaved streams of half as many channels.
template <std::size_t channels>
inline __attribute__((always_inline)) void Separate(Ints (&words)[channels]) {
    if constexpr (channels > 1) {
        constexpr std::size_t kHalf = channels / 2;
        Ints even[kHalf];
        Ints odd[kHalf];
#pragma GCC unroll 8
        for (std::size_t i = 0; i < kHalf; ++i) {
            Deinterleave(words[2 * i], words[2 * i + 1], even[i], odd[i]);
        }
        Separate(even);
        Separate(odd);
#pragma GCC unroll 8
        for (std::size_t i = 0; i < kHalf; ++i) {
            words[2 * i] = even[i];
            words[2 * i + 1] = odd[i];
        }
    }
}

/// Frames [start, frames), word by word.
void SplitFrames(std::uint8_t* const* out, std::size_t channels, const std::uint8_t* in,
                 std::size_t start, std::size_t frames) {
    for (std::size_t channel = 0; channel < channels; ++channel) {
        const std::uint8_t* from = in + (start * channels + channel) * kFloatBytes;
        std::uint8_t* to = out[channel];
        for (std::size_t frame = start; frame < frames; ++frame) {
            __builtin_memcpy(to + frame * kFloatBytes, from, kFloatBytes);
            from += channels * kFloatBytes;
        }
    }
}

template <std::size_t channels>
void SplitVectors(std::uint8_t* const* out, const std::uint8_t* in, std::size_t frames) {
    std::uint8_t* to[channels];
    for (std::size_t channel = 0; channel < channels; ++channel) {
        to[channel] = out[channel];
    }
    std::size_t done = 0;
    for (; done + kLanes <= frames; done += kLanes) {
        Ints words[channels];
#pragma GCC unroll 8
        for (std::size_t i = 0; i < channels; ++i) {
            words[i] = LoadWords(in + done * channels * kFloatBytes + i * kVectorBytes);
        }
        Separate(words);
#pragma GCC unroll 8
        for (std::size_t i = 0; i < channels; ++i) {
            StoreWords(to[i] + done * kFloatBytes, words[i]);
        }
    }
    SplitFrames(out, channels, in, done, frames);
}

void SplitLanesKernel(std::uint8_t* const* out, std::size_t channelCount, const std::uint8_t* in,
                      std::size_t frames) {
    switch (channelCount) {
        case 1:
            if (frames != 0) {
                __builtin_memcpy(out[0], in, frames * kFloatBytes);
            }
            break;
        case 2:
            SplitVectors<2>(out, in, frames);
            break;
        case 4:
            SplitVectors<4>(out, in, frames);
            break;
        case 8:
            SplitVectors<8>(out, in, frames);
            break;
        default: {
            // Piece by piece, so that a piece is still in the nearest cache for its last channel.
            constexpr std::size_t kPieceFrames = 256;
            for (std::size_t done = 0; done < frames; done += kPieceFrames) {
                const std::size_t end = frames - done < kPieceFrames ? frames : done + kPieceFrames;
                SplitFrames(out, channelCount, in, done, end);
            }
            break;
        }
    }
}

template <std::size_t width>
void ConvertKernel(std::uint8_t* out, const std::uint8_t* in, std::size_t count) {
    ConvertChannel<width, false>(out, in, count, 1.0F);
}

}  // namespace

extern const PcmKernels VORREL_KERNEL_TABLE;  // a constant is private to its source otherwise

constinit const PcmKernels VORREL_KERNEL_TABLE = {
    .toInt16 = &ConvertKernel<2>,
    .toInt24 = &ConvertKernel<3>,
    .toInt32 = &ConvertKernel<4>,
    .gainConvertInterleave = &GainConvertInterleaveKernel,
    .splitLanes = &SplitLanesKernel,
    .decimateMsbFirst = &DecimateKernel<true>,
    .decimateLsbFirst = &DecimateKernel<false>,
};

}  // namespace vorrel
