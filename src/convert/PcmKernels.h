#pragma once

#include <cstddef>
#include <cstdint>

#include "convert/DsdToPcmWorkBuffer.h"

namespace vorrel {

/// The vector kernels of one instruction set. All sets give the same bytes. They expect the
/// floating-point environment of `NearestRounding`, never fail and never allocate; pointers need
/// no alignment, ranges must not overlap.
///
/// This header is read by sources that are compiled for instructions the machine may lack, so it
/// holds no inline function: the linker might keep the copy that does not run everywhere.
struct PcmKernels {
    /// Converts `count` floats to packed little-endian integers; the rules stand at
    /// `Float32_To_Int16LSB` and its siblings.
    void (*toInt16)(std::uint8_t* out, const std::uint8_t* in, std::size_t count);
    void (*toInt24)(std::uint8_t* out, const std::uint8_t* in, std::size_t count);
    void (*toInt32)(std::uint8_t* out, const std::uint8_t* in, std::size_t count);
    /// See `GainConvertInterleave`; `width` is 2, 3 or 4.
    void (*gainConvertInterleave)(std::uint8_t* out, const float* const* channels,
                                  std::size_t channelCount, std::size_t frames, float gain,
                                  std::size_t width);
    /// See `SplitLanes`.
    void (*splitLanes)(std::uint8_t* const* out, std::size_t channelCount, const std::uint8_t* in,
                       std::size_t frames);
    /// See `DSD_To_Int16LSB`.
    void (*decimateMsbFirst)(std::uint8_t* out, const std::uint8_t* in, std::size_t count,
                             DsdToPcmWorkBuffer* work);
    void (*decimateLsbFirst)(std::uint8_t* out, const std::uint8_t* in, std::size_t count,
                             DsdToPcmWorkBuffer* work);
};

// One table per compilation of PcmKernels.cpp; the wider ones stand on x86-64 only.
extern const PcmKernels kBaselineKernels;
extern const PcmKernels kAvx2Kernels;
extern const PcmKernels kAvx512Kernels;

}  // namespace vorrel
