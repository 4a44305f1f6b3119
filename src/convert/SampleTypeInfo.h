#pragma once

#include <cstddef>
#include <cstdint>

#include "convert/DsdToPcmWorkBuffer.h"

namespace vorrel {

/// Converts `count` samples of one channel. Never fails, never allocates; the ranges must not
/// overlap.
using SampleConverter = void (*)(std::uint8_t* destination, const std::uint8_t* source,
                                 std::size_t count);
/// Makes `count` preview samples (signed 16-bit little-endian); `work` carries a filter's state
/// from call to call and is ignored for PCM.
using PreviewConverter = void (*)(std::uint8_t* destination, const std::uint8_t* source,
                                  std::size_t count, DsdToPcmWorkBuffer* work);

/// Sample type ids.
inline constexpr std::int64_t kSampleTypePcm = 0;  ///< 32-bit float, native little-endian.
inline constexpr std::int64_t kSampleTypeDsd = 1;  ///< 1 bit per sample, 8 per byte, MSB first.

/// How the device delivers one channel's samples and the stores keep them. Constant, never freed.
/// A null converter means that there is none.
struct SampleTypeInfo {
    std::int64_t type;
    PreviewConverter toPreview;
    SampleConverter toInt16;
    SampleConverter toInt24;  ///< Packed, 3 bytes a sample.
    SampleConverter toInt32;
    SampleConverter toFloat32;
    std::uint8_t bits;     ///< Significant bits of one stored sample.
    std::uint8_t padBits;  ///< Further bits of container; `bits + padBits` is the stored width.
    std::uint8_t isDsd;
    std::uint8_t isFloat;
    std::uint8_t msbFirst;  ///< The first bit in time is the most significant of its byte.
};

/// The record of sample type `type`, or null for every id but `kSampleTypePcm` and
/// `kSampleTypeDsd`.
const SampleTypeInfo* GetSampleTypeInfo(std::int64_t type);

}  // namespace vorrel
