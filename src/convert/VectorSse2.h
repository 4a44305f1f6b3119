#pragma once

// Read by PcmKernels.cpp alone. See VectorPlain.h for what the names mean.

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

namespace vorrel {
namespace {

inline constexpr std::size_t kLanes = 4;
inline constexpr std::size_t kDecimatorTile = 2;
inline constexpr std::size_t kTapCopies = 4;

using Floats = __m128;
using Ints = __m128i;

inline Ints LoadWords(const std::uint8_t* in) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
}

inline Floats LoadFloats(const std::uint8_t* in) {
    return _mm_castsi128_ps(LoadWords(in));
}

inline void StoreWords(std::uint8_t* out, Ints value) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), value);
}

inline Floats Multiply(Floats value, float factor) {
    return _mm_mul_ps(value, _mm_set1_ps(factor));
}

inline Floats Multiply(Floats a, Floats b) {
    return _mm_mul_ps(a, b);
}

inline Floats Add(Floats a, Floats b) {
    return _mm_add_ps(a, b);
}

inline Floats AddExactProduct(Floats sum, Floats a, Floats b) {
    return Add(sum, Multiply(a, b));
}

inline Floats Broadcast(float value) {
    return _mm_set1_ps(value);
}

inline Floats LoadTap(const float* taps) {
    return _mm_load_ps(taps);
}

inline Floats PlusOrMinusOne(Ints words, int bit) {
    const Ints clear = _mm_andnot_si128(_mm_slli_epi32(words, 31 - bit), _mm_set1_epi32(INT32_MIN));
    return _mm_or_ps(_mm_castsi128_ps(clear), _mm_set1_ps(1.0F));
}

inline Floats ShiftIn(Floats value, float first) {
    const Floats shifted = _mm_shuffle_ps(value, value, _MM_SHUFFLE(2, 1, 0, 0));
    return _mm_move_ss(shifted, _mm_set_ss(first));
}

/// Not-a-number becomes +0.
inline Floats DropNan(Floats value) {
    return _mm_and_ps(value, _mm_cmpord_ps(value, value));
}

inline Ints RoundTo16(Floats value) {
    // Below the integers' range the conversion gives the smallest, as wanted; only above it must
    // be cut.
    return _mm_cvtps_epi32(_mm_min_ps(DropNan(value), _mm_set1_ps(32767.0F)));
}

inline Ints TruncateTo24(Floats value) {
    // With the bound as first operand not-a-number passes both, and becomes 80000000h: its low 3
    // bytes, all that is stored, are 0.
    const Floats cut = _mm_min_ps(_mm_set1_ps(8388607.0F), value);
    return _mm_cvttps_epi32(_mm_max_ps(_mm_set1_ps(-8388608.0F), cut));
}

inline Ints RoundTo32(Floats value) {
    // Out of range gives 80000000h on both sides; above, turning all bits makes it 7FFFFFFFh.
    const Ints above = _mm_castps_si128(_mm_cmpge_ps(value, _mm_set1_ps(2147483648.0F)));
    return _mm_xor_si128(_mm_cvtps_epi32(DropNan(value)), above);
}

/// Moves the low 3 bytes of each lane together: 6 bytes and 2 zeros, twice.
inline Ints Pack24(Ints value) {
    const Ints even = _mm_and_si128(value, _mm_set1_epi64x(0x0000'0000'00FF'FFFF));
    const Ints odd =
        _mm_and_si128(_mm_srli_epi64(value, 8), _mm_set1_epi64x(0x0000'FFFF'FF00'0000));
    return _mm_or_si128(even, odd);
}

/// Writes the two halves at 6 bytes' distance: 14 bytes, of which the last 2 are zeros that what
/// follows covers.
inline void StoreHalves(std::uint8_t* out, Ints pairs) {
    _mm_storel_pi(reinterpret_cast<__m64*>(out), _mm_castsi128_ps(pairs));
    _mm_storeh_pi(reinterpret_cast<__m64*>(out + 6), _mm_castsi128_ps(pairs));
}

template <std::size_t width>
inline void StoreBlock(std::uint8_t* out, const Ints (&block)[4]) {
    if constexpr (width == 2) {
        StoreWords(out, _mm_packs_epi32(block[0], block[1]));
        StoreWords(out + 16, _mm_packs_epi32(block[2], block[3]));
    } else if constexpr (width == 3) {
        StoreHalves(out, Pack24(block[0]));
        StoreHalves(out + 12, Pack24(block[1]));
        StoreHalves(out + 24, Pack24(block[2]));
        // Nothing follows the last four: 8 bytes and 4.
        const Ints pairs = Pack24(block[3]);
        const Ints low = _mm_move_epi64(pairs);
        const Ints last = _mm_or_si128(low, _mm_srli_si128(_mm_xor_si128(pairs, low), 2));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 36), last);
        const int end = _mm_cvtsi128_si32(_mm_srli_si128(last, 8));
        __builtin_memcpy(out + 44, &end, 4);
    } else {
        StoreWords(out, block[0]);
        StoreWords(out + 16, block[1]);
        StoreWords(out + 32, block[2]);
        StoreWords(out + 48, block[3]);
    }
}

inline void Interleave(Ints a, Ints b, Ints& first, Ints& second) {
    first = _mm_unpacklo_epi32(a, b);
    second = _mm_unpackhi_epi32(a, b);
}

inline void Deinterleave(Ints first, Ints second, Ints& a, Ints& b) {
    const Floats low = _mm_castsi128_ps(first);
    const Floats high = _mm_castsi128_ps(second);
    a = _mm_castps_si128(_mm_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0)));
    b = _mm_castps_si128(_mm_shuffle_ps(low, high, _MM_SHUFFLE(3, 1, 3, 1)));
}

}  // namespace
}  // namespace vorrel
