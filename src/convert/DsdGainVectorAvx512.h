#pragma once

// Read by DsdGainKernels.cpp alone. See DsdGainVectorPlain.h for what the names mean.

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace vorrel {
namespace {

inline constexpr std::size_t kLanes = 16;
inline constexpr std::size_t kLaneBytes = 8;
inline constexpr std::size_t kTileBits = 4;
inline constexpr bool kFused = true;

using Floats = __m512;

inline Floats Load(const float* in) {
    return _mm512_load_ps(in);
}

inline Floats LoadOnce(const float* in) {
    Floats value = Load(in);
    // Else the compiler loads it again for each use when registers are short, and a load costs
    // more than a register of the modulator.
    asm("" : "+v"(value));
    return value;
}

inline Floats Broadcast(const float* in) {
    return _mm512_set1_ps(*in);
}

inline Floats AddExactProduct(Floats sum, Floats factor, Floats value) {
    return _mm512_fmadd_ps(factor, value, sum);
}

inline void StoreInputs(float* out, const std::uint8_t* bytes) {
    const __m512i words =
        _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)));
    const __m512i half = _mm512_set1_epi32(0x3F00'0000);
    const __m512i sign = _mm512_set1_epi32(INT32_MIN);
#pragma GCC unroll 8
    for (unsigned bit = 0; bit < 8; ++bit) {
        const __m512i shifted = _mm512_slli_epi32(words, 24 + bit);
        // (~shifted & sign) | half
        constexpr int kAndNotOr = 0xF0 | (0xCC & ~0xAA & 0xFF);
        _mm512_store_si512(out + bit * kLanes,
                           _mm512_ternarylogic_epi32(half, sign, shifted, kAndNotOr));
    }
}

inline void StoreDoubles(double* out, Floats values) {
    _mm512_store_pd(out, _mm512_cvtps_pd(_mm512_castps512_ps256(values)));
    _mm512_store_pd(out + 8, _mm512_cvtps_pd(_mm512_extractf32x8_ps(values, 1)));
}

inline Pair Clamp(Pair value, Pair limits) {
    return _mm_max_pd(_mm_min_pd(value, limits), -limits);
}

inline Pair SignedOne(Pair value) {
    const __m128i one = _mm_castpd_si128(_mm_set1_pd(1.0));
    constexpr int kOrAnd = 0xF0 | (0xCC & 0xAA);
    return _mm_castsi128_pd(
        _mm_ternarylogic_epi64(one, _mm_castpd_si128(value), _mm_set1_epi64x(INT64_MIN), kOrAnd));
}

inline Pair Approximately(Pair sum, Pair factor, Pair value) {
    return _mm_fmadd_pd(factor, value, sum);
}

inline unsigned Signs(const double (&values)[8]) {
    return _mm512_movepi64_mask(_mm512_load_si512(values));
}

inline bool AnyBelow(const double (&values)[8], double limit) {
    return _mm512_cmp_pd_mask(_mm512_abs_pd(_mm512_load_pd(values)), _mm512_set1_pd(limit),
                              _CMP_LT_OQ) != 0;
}

inline bool AnyAbove(const double (&values)[8], double limit) {
    return _mm512_cmp_pd_mask(_mm512_abs_pd(_mm512_load_pd(values)), _mm512_set1_pd(limit),
                              _CMP_GT_OQ) != 0;
}

inline bool AnyPairAbove(const double (&values)[16], Pair limits) {
    const __m512d largest = _mm512_max_pd(_mm512_abs_pd(_mm512_load_pd(values)),
                                          _mm512_abs_pd(_mm512_load_pd(values + 8)));
    return _mm512_cmp_pd_mask(largest, _mm512_broadcast_f64x2(limits), _CMP_GT_OQ) != 0;
}

inline constexpr std::size_t kReversedBytes = 64;

inline void ReverseVector(std::uint8_t* bytes) {
    const __m512i value = _mm512_loadu_si512(bytes);
    const __m512i nibble = _mm512_set1_epi8(0x0F);
    const __m512i toHigh = _mm512_broadcast_i32x4(
        _mm_setr_epi8(0, -128, 64, -64, 32, -96, 96, -32, 16, -112, 80, -48, 48, -80, 112, -16));
    const __m512i toLow =
        _mm512_broadcast_i32x4(_mm_setr_epi8(0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15));
    const __m512i high = _mm512_shuffle_epi8(toHigh, _mm512_and_si512(value, nibble));
    const __m512i low =
        _mm512_shuffle_epi8(toLow, _mm512_and_si512(_mm512_srli_epi16(value, 4), nibble));
    _mm512_storeu_si512(bytes, _mm512_or_si512(high, low));
}

}  // namespace
}  // namespace vorrel
