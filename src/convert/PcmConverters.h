#pragma once

#include <cstddef>
#include <cstdint>

#include "convert/DsdToPcmWorkBuffer.h"

namespace vorrel {

// The family of sample converters: each is named by its source, then its target, then LSB, because
// the result is little-endian. `swap` says that the source is big-endian: its bytes are reversed
// first. A converter makes exactly `count` samples of one channel, never fails, never allocates,
// keeps no state and checks nothing; pointers need no alignment, ranges must not overlap.
//
// Overload saturates: what is too large, infinity included, gives the largest integer, what is too
// small the smallest. Not-a-number gives 0. The results do not depend on the machine, on the
// position within the block or on the calling thread's rounding mode.

/// x 32768, rounded to nearest (ties to even).
template <bool swap>
void Float32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// The same; lets the converter serve as a preview converter. `work` is ignored.
template <bool swap>
void Float32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                         DsdToPcmWorkBuffer* work);

/// x 8388608, 3 bytes a sample.
/// Kept: truncated toward zero, unlike the other widths
/// (PcmConvertersTest.TruncatesTo24BitsInsteadOfRounding).
template <bool swap>
void Float32_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// x 2147483648 in single precision, rounded to nearest (ties to even).
template <bool swap>
void Float32_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// A copy.
/// Kept: the swapped one does nothing, the destination stays as it was
/// (PcmConvertersTest.SwappedFloatToFloatLeavesTheDestinationAsItWas).
template <bool swap>
void Float32_To_Float32LSB(std::uint8_t* destination, const std::uint8_t* source,
                           std::size_t count);

}  // namespace vorrel
