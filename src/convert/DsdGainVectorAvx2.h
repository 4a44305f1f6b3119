#pragma once

// Read by DsdGainKernels.cpp alone. See DsdGainVectorPlain.h for what the names mean.

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace vorrel {
namespace {

inline constexpr std::size_t kLanes = 8;
inline constexpr std::size_t kLaneBytes = 8;
inline constexpr std::size_t kTileBits = 2;
inline constexpr bool kFused = false;

using Floats = __m256;

inline Floats Load(const float* in) {
    return _mm256_load_ps(in);
}

inline Floats LoadOnce(const float* in) {
    return Load(in);
}

inline Floats Broadcast(const float* in) {
    return _mm256_broadcast_ss(in);
}

inline Floats AddExactProduct(Floats sum, Floats factor, Floats value) {
    return _mm256_fmadd_ps(factor, value, sum);
}

inline void StoreInputs(float* out, const std::uint8_t* bytes) {
    const __m256i words =
        _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)));
    const __m256i half = _mm256_set1_epi32(0x3F00'0000);
    const __m256i sign = _mm256_set1_epi32(INT32_MIN);
#pragma GCC unroll 8
    for (int bit = 0; bit < 8; ++bit) {
        const __m256i clear = _mm256_andnot_si256(_mm256_slli_epi32(words, 24 + bit), sign);
        _mm256_store_si256(reinterpret_cast<__m256i*>(out) + bit, _mm256_or_si256(clear, half));
    }
}

inline void StoreDoubles(double* out, Floats values) {
    _mm256_store_pd(out, _mm256_cvtps_pd(_mm256_castps256_ps128(values)));
    _mm256_store_pd(out + 4, _mm256_cvtps_pd(_mm256_extractf128_ps(values, 1)));
}

inline Pair Clamp(Pair value, Pair limits) {
    return _mm_max_pd(_mm_min_pd(value, limits), -limits);
}

inline Pair SignedOne(Pair value) {
    return _mm_or_pd(_mm_and_pd(value, _mm_set1_pd(-0.0)), _mm_set1_pd(1.0));
}

inline Pair Approximately(Pair sum, Pair factor, Pair value) {
    return _mm_fmadd_pd(factor, value, sum);
}

inline __m256d Magnitudes(const double* values) {
    return _mm256_andnot_pd(_mm256_set1_pd(-0.0), _mm256_load_pd(values));
}

inline unsigned Signs(const double (&values)[8]) {
    return static_cast<unsigned>(_mm256_movemask_pd(_mm256_load_pd(values)) |
                                 _mm256_movemask_pd(_mm256_load_pd(values + 4)) << 4);
}

inline bool AnyBelow(const double (&values)[8], double limit) {
    const __m256d smallest = _mm256_min_pd(Magnitudes(values), Magnitudes(values + 4));
    return _mm256_movemask_pd(_mm256_cmp_pd(smallest, _mm256_set1_pd(limit), _CMP_LT_OQ)) != 0;
}

inline bool AnyAbove(const double (&values)[8], double limit) {
    const __m256d largest = _mm256_max_pd(Magnitudes(values), Magnitudes(values + 4));
    return _mm256_movemask_pd(_mm256_cmp_pd(largest, _mm256_set1_pd(limit), _CMP_GT_OQ)) != 0;
}

inline bool AnyPairAbove(const double (&values)[16], Pair limits) {
    const __m256d largest =
        _mm256_max_pd(_mm256_max_pd(Magnitudes(values), Magnitudes(values + 4)),
                      _mm256_max_pd(Magnitudes(values + 8), Magnitudes(values + 12)));
    return _mm256_movemask_pd(
               _mm256_cmp_pd(largest, _mm256_set_m128d(limits, limits), _CMP_GT_OQ)) != 0;
}

inline constexpr std::size_t kReversedBytes = 32;

inline void ReverseVector(std::uint8_t* bytes) {
    auto* place = reinterpret_cast<__m256i*>(bytes);
    const __m256i value = _mm256_loadu_si256(place);
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    const __m256i toHigh = _mm256_broadcastsi128_si256(
        _mm_setr_epi8(0, -128, 64, -64, 32, -96, 96, -32, 16, -112, 80, -48, 48, -80, 112, -16));
    const __m256i toLow = _mm256_broadcastsi128_si256(
        _mm_setr_epi8(0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15));
    const __m256i high = _mm256_shuffle_epi8(toHigh, _mm256_and_si256(value, nibble));
    const __m256i low =
        _mm256_shuffle_epi8(toLow, _mm256_and_si256(_mm256_srli_epi16(value, 4), nibble));
    _mm256_storeu_si256(place, _mm256_or_si256(high, low));
}

}  // namespace
}  // namespace vorrel
