#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vorrel {

inline constexpr std::size_t kDsfHeaderBytes = 92;

/// Bytes of one channel's block: the samples stand in turns of one block a channel.
inline constexpr std::size_t kDsfBlockBytes = 4096;

/// Blocks of each channel that are read, processed and written at a time, so that no thread is
/// woken for every single one. Nothing that a save leaves behind shows their number.
inline constexpr std::size_t kDsfBatchBlocks = 64;

/// The form of a DSF file's samples.
struct DsfFormat {
    std::uint32_t channels;
    std::uint32_t rateHz;         ///< Samples of one channel a second: the 1-bit rate.
    std::uint32_t bitsPerSample;  ///< 1 for DSD; not 0.

    /// The number by which the header tells the loudspeakers.
    /// Kept: from 4 channels on it is one more than their number
    /// (DsfHeaderTest.TheChannelTypeIsOneMoreFromFourChannelsOn).
    constexpr std::uint32_t ChannelType() const { return channels < 4 ? channels : channels + 1; }
    /// Frames that fill a block.
    constexpr std::uint64_t BlockFrames() const { return kDsfBlockBytes * 8 / bitsPerSample; }
};

/// The sizes in a DSF header. What passes 2^64 - 1 counts as 2^64 - 1, which no volume has free.
struct DsfSizes {
    std::uint64_t frames;
    std::uint64_t payload;  ///< Bytes of samples, with the zeros that fill the last blocks.
    std::uint64_t tagBytes;

    /// Kept: the payload is counted from the samples' whole bytes
    /// (DsfHeaderTest.SamplesThatMakeNoWholeByteAddNothingToThePayload).
    DsfSizes(const DsfFormat& format, std::uint64_t frameCount, std::uint64_t tags);

    std::uint64_t FileBytes() const;
    /// Where the tag begins; 0 without one.
    std::uint64_t TagPosition() const;
};

/// The three chunk heads before the samples.
std::array<std::uint8_t, kDsfHeaderBytes> BuildDsfHeader(const DsfFormat& format,
                                                         const DsfSizes& sizes);

}  // namespace vorrel
