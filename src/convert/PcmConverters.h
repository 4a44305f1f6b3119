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
// Int24 is packed, 3 bytes a sample. Int32 samples have `bits` significant bits: right-aligned and
// sign-extended in their container.
//
// Overload of a floating-point source saturates: what is too large, infinity included, gives the
// largest integer, what is too small the smallest. Not-a-number gives 0. The results do not depend
// on the machine, on the calling thread's rounding mode or, but for `Int32_To_Int16LSB`, on the
// position within the block.

/// The widths of what an Int32 sample holds.
template <unsigned bits>
concept SignificantBits = bits == 16 || bits == 18 || bits == 20 || bits == 24 || bits == 32;

// To 16 bits. Each has a twin of four arguments, which ignores `work`: so any of them can serve as
// a preview converter.

/// A copy.
template <bool swap>
void Int16_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);
template <bool swap>
void Int16_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                       DsdToPcmWorkBuffer* work);

/// The two most significant bytes: truncated.
template <bool swap>
void Int24_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);
template <bool swap>
void Int24_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                       DsdToPcmWorkBuffer* work);

/// Shifted right by `bits` - 16.
/// Kept: a value of more than `bits` bits saturates in the blocks of eight and wraps in the last
/// `count` mod 8 samples (PcmFamilyKeptTest.Int32ToInt16SaturatesInBlocksOfEightAndWrapsInTheTail).
template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);
template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                       DsdToPcmWorkBuffer* work);

/// x 32768, rounded to nearest (ties to even).
template <bool swap>
void Float32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);
template <bool swap>
void Float32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                         DsdToPcmWorkBuffer* work);

/// x 32768 in double precision, rounded to nearest (ties to even).
template <bool swap>
void Float64_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);
template <bool swap>
void Float64_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                         DsdToPcmWorkBuffer* work);

// To 24 bits.

/// Shifted left by 8.
template <bool swap>
void Int16_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// A copy.
template <bool swap>
void Int24_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// Shifted to 24 bits. What does not fit is cut off: the low 3 bytes are stored, without clipping.
template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// x 8388608.
/// Kept: truncated toward zero, unlike the other widths
/// (PcmConvertersTest.TruncatesTo24BitsInsteadOfRounding).
template <bool swap>
void Float32_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// x 8388608 in double precision.
/// Kept: truncated toward zero (PcmFamilyKeptTest.Float64ToInt24TruncatesTowardZero).
template <bool swap>
void Float64_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

// To 32 bits.

/// Shifted left by 16.
template <bool swap>
void Int16_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// Shifted left by 8.
template <bool swap>
void Int24_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// Shifted left by 32 - `bits`; what does not fit is cut off.
template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// x 2147483648 in single precision, rounded to nearest (ties to even).
template <bool swap>
void Float32_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// x 2147483648 in double precision, rounded to nearest (ties to even).
template <bool swap>
void Float64_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

// To 32-bit float, full scale 1.0.

/// / 32768: exact.
template <bool swap>
void Int16_To_Float32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// / 8388608: exact.
template <bool swap>
void Int24_To_Float32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// / 2147483648, rounded to nearest (ties to even).
/// Kept: whatever `bits` is, so that a right-aligned 24-bit value comes out 256 times smaller than
/// full scale (PcmFamilyKeptTest.Int32ToFloat32IgnoresTheNumberOfBits).
template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Float32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count);

/// A copy.
/// Kept: the swapped one does nothing, the destination stays as it was
/// (PcmConvertersTest.SwappedFloatToFloatLeavesTheDestinationAsItWas).
template <bool swap>
void Float32_To_Float32LSB(std::uint8_t* destination, const std::uint8_t* source,
                           std::size_t count);

/// Kept: does nothing, the destination stays as it was
/// (PcmFamilyKeptTest.Float64ToFloat32LeavesTheDestinationAsItWas).
template <bool swap>
void Float64_To_Float32LSB(std::uint8_t* destination, const std::uint8_t* source,
                           std::size_t count);

}  // namespace vorrel
