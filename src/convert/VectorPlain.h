#pragma once

// Read by PcmKernels.cpp alone: the vectors of a machine for which no wider set is written. Every
// Vector*.h offers the same names in an unnamed namespace, one copy per compilation.

#include <cstddef>
#include <cstdint>

namespace vorrel {
namespace {

inline constexpr std::size_t kLanes = 4;
/// Outputs of the decimator's filter that are summed side by side: as many as the registers hold.
inline constexpr std::size_t kDecimatorTile = 2;
/// How often a filter's tap stands in memory for `LoadTap`: once, or once for each lane.
inline constexpr std::size_t kTapCopies = 1;

struct Floats {
    float lane[kLanes];
};

struct Ints {
    std::int32_t lane[kLanes];
};

inline Floats LoadFloats(const std::uint8_t* in) {
    Floats value{};
    __builtin_memcpy(&value, in, sizeof value);
    return value;
}

inline Ints LoadWords(const std::uint8_t* in) {
    Ints value{};
    __builtin_memcpy(&value, in, sizeof value);
    return value;
}

inline void StoreWords(std::uint8_t* out, Ints value) {
    __builtin_memcpy(out, &value, sizeof value);
}

inline Floats Multiply(Floats value, float factor) {
    for (float& lane : value.lane) {
        lane *= factor;
    }
    return value;
}

inline Floats Multiply(Floats a, Floats b) {
    for (std::size_t i = 0; i < kLanes; ++i) {
        a.lane[i] *= b.lane[i];
    }
    return a;
}

inline Floats Add(Floats a, Floats b) {
    for (std::size_t i = 0; i < kLanes; ++i) {
        a.lane[i] += b.lane[i];
    }
    return a;
}

/// `sum` + `a` x `b` where the product is exact: in one rounding or two, the same.
inline Floats AddExactProduct(Floats sum, Floats a, Floats b) {
    return Add(sum, Multiply(a, b));
}

inline Floats Broadcast(float value) {
    return {{value, value, value, value}};
}

/// One tap in all lanes. `kTapCopies` of it stand at `taps`, aligned to their size.
inline Floats LoadTap(const float* taps) {
    return Broadcast(*taps);
}

/// +1 in each lane whose word has `bit` (0 is the least) set, else -1.
inline Floats PlusOrMinusOne(Ints words, int bit) {
    Floats result{};
    for (std::size_t i = 0; i < kLanes; ++i) {
        result.lane[i] = ((words.lane[i] >> bit) & 1) != 0 ? 1.0F : -1.0F;
    }
    return result;
}

/// Each lane's value moved one lane up, and `first` below it.
inline Floats ShiftIn(Floats value, float first) {
    return {{first, value.lane[0], value.lane[1], value.lane[2]}};
}

/// Rounded; cut to at most 32767. `StoreBlock<2>` saturates the other side.
inline Ints RoundTo16(Floats value) {
    Ints result{};
    for (std::size_t i = 0; i < kLanes; ++i) {
        const float x = value.lane[i];
        const float cut = x > 32767.0F ? 32767.0F : x < -32768.0F ? -32768.0F : x;
        result.lane[i] = x != x ? 0 : static_cast<std::int32_t>(__builtin_rintf(cut));
    }
    return result;
}

/// Truncated toward zero, clamped to 24 bits.
inline Ints TruncateTo24(Floats value) {
    Ints result{};
    for (std::size_t i = 0; i < kLanes; ++i) {
        const float x = value.lane[i];
        const float cut = x > 8388607.0F ? 8388607.0F : x < -8388608.0F ? -8388608.0F : x;
        result.lane[i] = x != x ? 0 : static_cast<std::int32_t>(cut);
    }
    return result;
}

/// Rounded, saturated to 32 bits.
inline Ints RoundTo32(Floats value) {
    Ints result{};
    for (std::size_t i = 0; i < kLanes; ++i) {
        const float x = value.lane[i];
        if (x >= 2147483648.0F) {
            result.lane[i] = INT32_MAX;
        } else {
            const float cut = x < -2147483648.0F ? -2147483648.0F : x;
            result.lane[i] = x != x ? 0 : static_cast<std::int32_t>(__builtin_rintf(cut));
        }
    }
    return result;
}

/// Writes four vectors as 4 x `kLanes` samples of `width` bytes.
template <std::size_t width>
inline void StoreBlock(std::uint8_t* out, const Ints (&block)[4]) {
    for (const Ints& value : block) {
        for (const std::int32_t lane : value.lane) {
            __builtin_memcpy(out, &lane, width);  // little-endian: the low bytes come first
            out += width;
        }
    }
}

/// a0 b0 a1 b1 ... over two vectors.
inline void Interleave(Ints a, Ints b, Ints& first, Ints& second) {
    first = {{a.lane[0], b.lane[0], a.lane[1], b.lane[1]}};
    second = {{a.lane[2], b.lane[2], a.lane[3], b.lane[3]}};
}

/// The reverse of `Interleave`.
inline void Deinterleave(Ints first, Ints second, Ints& a, Ints& b) {
    a = {{first.lane[0], first.lane[2], second.lane[0], second.lane[2]}};
    b = {{first.lane[1], first.lane[3], second.lane[1], second.lane[3]}};
}

}  // namespace
}  // namespace vorrel
