#pragma once

#include <cstddef>
#include <cstdint>

namespace vorrel {

/// What the gain processor's kernels carry from call to call.
struct DsdGainState {
    static constexpr std::size_t kTaps = 200;         // one half of the filter
    static constexpr std::size_t kHistoryBytes = 50;  // 400 inputs, as far as the filter reaches
    double integrators[5];                            // s0 .. s4 of the modulator
    std::uint8_t history[kHistoryBytes];              // the last inputs, oldest first
    float taps[kTaps];                                // tap x 2 x gain, rounded once
};

/// The vector kernels of one instruction set for 1-bit streams. All sets give the same bytes. They
/// expect the floating-point environment of `NearestRounding`, never fail and never allocate;
/// pointers need no alignment.
///
/// This header is read by sources that are compiled for instructions the machine may lack, so it
/// holds no inline function: the linker might keep the copy that does not run everywhere.
struct DsdGainKernels {
    /// Filters and modulates `length` bytes in place, most significant bit first: bit-identical to
    /// `fir_filter::sample` and `dsm`, bit by bit, where all of the last 400 inputs had the same
    /// gain, and neither that gain nor its products leave the normal numbers.
    void (*gain)(DsdGainState* state, std::uint8_t* bytes, std::size_t length);
    /// See `ReverseBits`.
    void (*reverseBits)(std::uint8_t* bytes, std::size_t length);
};

// One table per compilation of DsdGainKernels.cpp; the wider ones stand on x86-64 only.
extern const DsdGainKernels kBaselineDsdGainKernels;
extern const DsdGainKernels kAvx2DsdGainKernels;
extern const DsdGainKernels kAvx512DsdGainKernels;

}  // namespace vorrel
