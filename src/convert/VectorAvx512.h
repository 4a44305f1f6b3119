#pragma once

// Read by PcmKernels.cpp alone. See VectorPlain.h for what the names mean.

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace vorrel {
namespace {

inline constexpr std::size_t kLanes = 16;
inline constexpr std::size_t kDecimatorTile = 4;
inline constexpr std::size_t kTapCopies = 1;

using Floats = __m512;
using Ints = __m512i;

inline Ints LoadWords(const std::uint8_t* in) {
    return _mm512_loadu_si512(in);
}

inline Floats LoadFloats(const std::uint8_t* in) {
    return _mm512_castsi512_ps(LoadWords(in));
}

inline void StoreWords(std::uint8_t* out, Ints value) {
    _mm512_storeu_si512(out, value);
}

inline Floats Multiply(Floats value, float factor) {
    return _mm512_mul_ps(value, _mm512_set1_ps(factor));
}

inline Floats Multiply(Floats a, Floats b) {
    return _mm512_mul_ps(a, b);
}

inline Floats Add(Floats a, Floats b) {
    return _mm512_add_ps(a, b);
}

inline Floats AddExactProduct(Floats sum, Floats a, Floats b) {
    return _mm512_fmadd_ps(a, b, sum);
}

inline Floats Broadcast(float value) {
    return _mm512_set1_ps(value);
}

inline Floats LoadTap(const float* taps) {
    return Broadcast(*taps);
}

inline Floats PlusOrMinusOne(Ints words, int bit) {
    constexpr int kNotAAndBOrC = 0xAE;
    const Ints sign = _mm512_set1_epi32(INT32_MIN);
    const Ints one = _mm512_castps_si512(_mm512_set1_ps(1.0F));
    const Ints atSign = _mm512_slli_epi32(words, static_cast<unsigned>(31 - bit));
    return _mm512_castsi512_ps(_mm512_ternarylogic_epi32(atSign, sign, one, kNotAAndBOrC));
}

inline Floats ShiftIn(Floats value, float first) {
    const Floats shifted = _mm512_permutexvar_ps(
        _mm512_setr_epi32(0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14), value);
    return _mm512_mask_mov_ps(shifted, 1, _mm512_set1_ps(first));
}

/// The lanes that hold a number.
inline __mmask16 Numbers(Floats value) {
    return _mm512_cmp_ps_mask(value, value, _CMP_ORD_Q);
}

inline Ints RoundTo16(Floats value) {
    // Below the integers' range the conversion gives the smallest, as wanted; only above it must
    // be cut.
    return _mm512_maskz_cvtps_epi32(Numbers(value), _mm512_min_ps(value, _mm512_set1_ps(32767.0F)));
}

inline Ints TruncateTo24(Floats value) {
    // With the bound as first operand not-a-number passes both, and becomes 80000000h: its low 3
    // bytes, all that is stored, are 0.
    const Floats cut = _mm512_min_ps(_mm512_set1_ps(8388607.0F), value);
    return _mm512_cvttps_epi32(_mm512_max_ps(_mm512_set1_ps(-8388608.0F), cut));
}

inline Ints RoundTo32(Floats value) {
    // Out of range gives 80000000h on both sides; above, it is replaced by 7FFFFFFFh.
    const __mmask16 above = _mm512_cmp_ps_mask(value, _mm512_set1_ps(2147483648.0F), _CMP_GE_OQ);
    const Ints rounded = _mm512_maskz_cvtps_epi32(Numbers(value), value);
    return _mm512_mask_mov_epi32(rounded, above, _mm512_set1_epi32(INT32_MAX));
}

/// Moves the low 3 bytes of each lane together, 12 bytes in each quarter.
inline Ints Pack24(Ints value) {
    return _mm512_shuffle_epi8(value, _mm512_broadcast_i32x4(_mm_setr_epi8(
                                          0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1)));
}

template <std::size_t width>
inline void StoreBlock(std::uint8_t* out, const Ints (&block)[4]) {
    if constexpr (width == 2) {
        // Packing works within each quarter; the permutation puts the quarters in order.
        const Ints order = _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7);
        StoreWords(out, _mm512_permutexvar_epi64(order, _mm512_packs_epi32(block[0], block[1])));
        StoreWords(out + 64,
                   _mm512_permutexvar_epi64(order, _mm512_packs_epi32(block[2], block[3])));
    } else if constexpr (width == 3) {
        const Ints a = Pack24(block[0]);
        const Ints b = Pack24(block[1]);
        const Ints c = Pack24(block[2]);
        const Ints d = Pack24(block[3]);
        // Every fourth word (3, 7, 11, 15) is empty; 16 and up are those of the second vector.
        StoreWords(
            out,
            _mm512_permutex2var_epi32(
                a, _mm512_setr_epi32(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 16, 17, 18, 20), b));
        StoreWords(
            out + 64,
            _mm512_permutex2var_epi32(
                b, _mm512_setr_epi32(5, 6, 8, 9, 10, 12, 13, 14, 16, 17, 18, 20, 21, 22, 24, 25),
                c));
        StoreWords(out + 128,
                   _mm512_permutex2var_epi32(c,
                                             _mm512_setr_epi32(10, 12, 13, 14, 16, 17, 18, 20, 21,
                                                               22, 24, 25, 26, 28, 29, 30),
                                             d));
    } else {
        StoreWords(out, block[0]);
        StoreWords(out + 64, block[1]);
        StoreWords(out + 128, block[2]);
        StoreWords(out + 192, block[3]);
    }
}

inline void Interleave(Ints a, Ints b, Ints& first, Ints& second) {
    first = _mm512_permutex2var_epi32(
        a, _mm512_setr_epi32(0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23), b);
    second = _mm512_permutex2var_epi32(
        a, _mm512_setr_epi32(8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31), b);
}

inline void Deinterleave(Ints first, Ints second, Ints& a, Ints& b) {
    a = _mm512_permutex2var_epi32(
        first, _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30),
        second);
    b = _mm512_permutex2var_epi32(
        first, _mm512_setr_epi32(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31),
        second);
}

}  // namespace
}  // namespace vorrel
