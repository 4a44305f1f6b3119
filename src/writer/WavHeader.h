#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vorrel {

inline constexpr std::size_t kWavHeaderBytes = 44;

/// Most bytes behind a WAV header, so that the 32-bit sizes in it cannot overflow.
inline constexpr std::uint64_t kMaxWavDataBytes = 4'294'967'252;
static_assert(kMaxWavDataBytes == (std::uint64_t{1} << 32) - kWavHeaderBytes);

/// The form of a WAV file's samples.
struct WavFormat {
    std::uint32_t channels;
    std::uint32_t rateHz;
    std::uint32_t
        bits;  ///< Per sample; what is no multiple of 8 loses its odd bits in `BytesPerSample`.

    constexpr std::uint32_t BytesPerSample() const { return bits / 8; }
    constexpr std::uint32_t BlockAlign() const { return channels * BytesPerSample(); }
    /// Most frames whose bytes fit behind a header.
    constexpr std::uint64_t MaxFrames() const {
        return BlockAlign() == 0 ? ~std::uint64_t{0} : kMaxWavDataBytes / BlockAlign();
    }
};

/// The sizes in a WAV header; unsigned 32-bit arithmetic, as in the file.
struct WavSizes {
    std::uint32_t riff;  ///< The file's size but for the first 8 bytes.
    std::uint32_t data;

    constexpr WavSizes(const WavFormat& format, std::uint64_t frames, std::uint32_t tagBytes)
        : riff(tagBytes + static_cast<std::uint32_t>(frames) * format.BlockAlign() + 36),
          data(static_cast<std::uint32_t>(frames) * format.BlockAlign()) {}

    constexpr std::uint64_t FileBytes() const { return std::uint64_t{riff} + 8; }
};

/// True when a file of that many frames and tag bytes stays below 4 GiB.
constexpr bool FitsWav(const WavFormat& format, std::uint64_t frames, std::uint32_t tagBytes) {
    return tagBytes + format.BlockAlign() * frames + kWavHeaderBytes < std::uint64_t{1} << 32;
}

/// The header of an integer PCM file: no fact chunk, not the extensible form, whatever the width.
std::array<std::uint8_t, kWavHeaderBytes> BuildWavHeader(const WavFormat& format,
                                                         const WavSizes& sizes);

}  // namespace vorrel
