#pragma once

#include <array>
#include <cstdint>

namespace vorrel::e2e {

/// What the recorder's samples are: PCM, or words of 16 one-bit samples.
enum class StreamMode { Pcm, Dsd };

inline constexpr unsigned kChannels = 2;

/// One sample of every channel, `bits` wide each and right-aligned.
using Frame = std::array<std::uint32_t, kChannels>;

/// What the recorder plays. Every frame carries its own number, so that a take tells by itself
/// what was lost, repeated, swapped or changed, and by how much.
class Pattern {
public:
    /// @param sampleBits  Width of a sample: 16 or 24. A float holds 24 bits exactly, so wider
    /// formats
    ///              carry 24 of them in their upper bits.
    Pattern(StreamMode mode, unsigned sampleBits);

    /// The frame of that number; numbers count from 0 and come round after 2^(2 x bits).
    Frame At(std::uint64_t number) const;

    /// The number of a frame, and so the inverse of `At`: every two samples are a frame of some
    /// number, and a changed one is that of a number far away.
    std::uint64_t NumberOf(const Frame& frame) const;

private:
    unsigned bits;
    std::uint32_t mask;
    std::uint32_t salt;  // tells the two modes apart
};

}  // namespace vorrel::e2e
