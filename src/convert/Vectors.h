#pragma once

// Read by PcmKernels.cpp and the kernels that it gathers: the vectors of the instruction set that a
// compilation is for.

#include <cstddef>

// Chosen by the build, not by what the compiler admits to: a set that it does not compile for is an
// error and no quiet fall to a narrower one.
#if defined(VORREL_AVX512_VECTORS)
#include "convert/VectorAvx512.h"
#elif defined(VORREL_AVX2_VECTORS)
#include "convert/VectorAvx2.h"
#elif defined(__SSE2__) && !defined(VORREL_PLAIN_VECTORS)
#include "convert/VectorSse2.h"
#else
#include "convert/VectorPlain.h"
#endif

#if !defined(__BYTE_ORDER__) || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "Samples are stored as the machine's own little-endian words."
#endif

namespace vorrel {
namespace {

// NOLINTBEGIN(misc-definitions-in-headers): each compilation has its own
constexpr std::size_t kFloatBytes = 4;
constexpr std::size_t kVectorBytes = kLanes * kFloatBytes;
constexpr std::size_t kBlockSamples = 4 * kLanes;
// NOLINTEND(misc-definitions-in-headers)

}  // namespace
}  // namespace vorrel
