#pragma once

// Read by DsdGainKernels.cpp alone: vectors of four floats, which every machine of the baseline
// has. Every DsdGainVector*.h offers the same names in an unnamed namespace, one copy per
// compilation.

#include <cstddef>
#include <cstdint>

namespace vorrel {
namespace {

inline constexpr std::size_t kLanes = 4;
/// Bytes of a block that one lane works on.
inline constexpr std::size_t kLaneBytes = 16;
/// Bits of each lane that one pass over the taps filters.
inline constexpr std::size_t kTileBits = 2;
/// Whether a block is filtered and the one before it modulated in one go.
inline constexpr bool kFused = false;

using Floats = float __attribute__((vector_size(16)));

inline Floats Load(const float* in) {
    Floats value;
    __builtin_memcpy(&value, in, sizeof value);
    return value;
}

/// For a value that is to stay in a register.
inline Floats LoadOnce(const float* in) {
    return Load(in);
}

inline Floats Broadcast(const float* in) {
    return Floats{*in, *in, *in, *in};
}

/// sum + factor x value, where the product is exact: one rounding or two are the same.
inline Floats AddExactProduct(Floats sum, Floats factor, Floats value) {
    return sum + factor * value;
}

/// Writes eight vectors: bit p of each of `kLanes` bytes, the most significant first, as +0.5
/// where it is set and -0.5 where it is clear.
inline void StoreInputs(float* out, const std::uint8_t* bytes) {
    using Words = std::uint32_t __attribute__((vector_size(16)));
    constexpr std::uint32_t kHalf = 0x3F00'0000;
    constexpr std::uint32_t kSign = 0x8000'0000;
    const Words words = ~Words{bytes[0], bytes[1], bytes[2], bytes[3]};
    for (unsigned bit = 0; bit < 8; ++bit) {
        const Words value = ((words << (24 + bit)) & kSign) | kHalf;
        __builtin_memcpy(out + bit * kLanes, &value, sizeof value);
    }
}

inline void StoreDoubles(double* out, Floats values) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        out[lane] = static_cast<double>(values[lane]);
    }
}

/// `value`, but no further from zero than `limits`.
inline Pair Clamp(Pair value, Pair limits) {
    const Pair cut = value > limits ? limits : value;
    return cut < -limits ? -limits : cut;
}

/// 1 with the sign of `value`.
inline Pair SignedOne(Pair value) {
    using Bits = std::int64_t __attribute__((vector_size(16)));
    const Pair one = {1.0, 1.0};
    Bits sign;
    Bits result;
    __builtin_memcpy(&sign, &value, sizeof sign);
    __builtin_memcpy(&result, &one, sizeof result);
    result |= sign & INT64_MIN;
    Pair pair;
    __builtin_memcpy(&pair, &result, sizeof pair);
    return pair;
}

/// sum + factor x value, rounded once or twice.
inline Pair Approximately(Pair sum, Pair factor, Pair value) {
    return sum + factor * value;
}

/// Bit i is set where values[i] has its sign set.
inline unsigned Signs(const double (&values)[8]) {
    unsigned signs = 0;
    for (unsigned i = 0; i < 8; ++i) {
        signs |= static_cast<unsigned>(__builtin_signbit(values[i]) != 0) << i;
    }
    return signs;
}

inline bool AnyBelow(const double (&values)[8], double limit) {
    bool below = false;
    for (const double value : values) {
        below |= __builtin_fabs(value) < limit;
    }
    return below;
}

inline bool AnyAbove(const double (&values)[8], double limit) {
    bool above = false;
    for (const double value : values) {
        above |= __builtin_fabs(value) > limit;
    }
    return above;
}

/// As `AnyAbove`, with a limit for even and one for odd places.
inline bool AnyPairAbove(const double (&values)[16], Pair limits) {
    bool above = false;
    for (unsigned i = 0; i < 16; i += 2) {
        above |= __builtin_fabs(values[i]) > limits[0];
        above |= __builtin_fabs(values[i + 1]) > limits[1];
    }
    return above;
}

inline constexpr std::size_t kReversedBytes = 8;

inline void ReverseVector(std::uint8_t* bytes) {
    std::uint64_t value = 0;
    __builtin_memcpy(&value, bytes, sizeof value);
    const auto swap = [&value](unsigned shift, std::uint64_t mask) {
        value = ((value >> shift) & mask) | ((value & mask) << shift);
    };
    swap(4, 0x0F0F'0F0F'0F0F'0F0F);
    swap(2, 0x3333'3333'3333'3333);
    swap(1, 0x5555'5555'5555'5555);
    __builtin_memcpy(bytes, &value, sizeof value);
}

}  // namespace
}  // namespace vorrel
