#pragma once

// Read by PcmKernels.cpp alone. See VectorPlain.h for what the names mean.

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace vorrel {
namespace {

inline constexpr std::size_t kLanes = 8;
inline constexpr std::size_t kDecimatorTile = 3;
inline constexpr std::size_t kTapCopies = 8;

using Floats = __m256;
using Ints = __m256i;

inline Ints LoadWords(const std::uint8_t* in) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in));
}

inline Floats LoadFloats(const std::uint8_t* in) {
    return _mm256_castsi256_ps(LoadWords(in));
}

inline void StoreWords(std::uint8_t* out, Ints value) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), value);
}

inline Floats Multiply(Floats value, float factor) {
    return _mm256_mul_ps(value, _mm256_set1_ps(factor));
}

inline Floats Multiply(Floats a, Floats b) {
    return _mm256_mul_ps(a, b);
}

inline Floats Add(Floats a, Floats b) {
    return _mm256_add_ps(a, b);
}

inline Floats AddExactProduct(Floats sum, Floats a, Floats b) {
    return Add(sum, Multiply(a, b));
}

inline Floats Broadcast(float value) {
    return _mm256_set1_ps(value);
}

inline Floats LoadTap(const float* taps) {
    return _mm256_load_ps(taps);
}

inline Floats PlusOrMinusOne(Ints words, int bit) {
    const Ints clear =
        _mm256_andnot_si256(_mm256_slli_epi32(words, 31 - bit), _mm256_set1_epi32(INT32_MIN));
    return _mm256_or_ps(_mm256_castsi256_ps(clear), _mm256_set1_ps(1.0F));
}

inline Floats ShiftIn(Floats value, float first) {
    const Floats shifted =
        _mm256_permutevar8x32_ps(value, _mm256_setr_epi32(0, 0, 1, 2, 3, 4, 5, 6));
    return _mm256_blend_ps(shifted, _mm256_set1_ps(first), 1);
}

/// Not-a-number becomes +0.
inline Floats DropNan(Floats value) {
    return _mm256_and_ps(value, _mm256_cmp_ps(value, value, _CMP_ORD_Q));
}

inline Ints RoundTo16(Floats value) {
    // Below the integers' range the conversion gives the smallest, as wanted; only above it must
    // be cut.
    return _mm256_cvtps_epi32(_mm256_min_ps(DropNan(value), _mm256_set1_ps(32767.0F)));
}

inline Ints TruncateTo24(Floats value) {
    // With the bound as first operand not-a-number passes both, and becomes 80000000h: its low 3
    // bytes, all that is stored, are 0.
    const Floats cut = _mm256_min_ps(_mm256_set1_ps(8388607.0F), value);
    return _mm256_cvttps_epi32(_mm256_max_ps(_mm256_set1_ps(-8388608.0F), cut));
}

inline Ints RoundTo32(Floats value) {
    // Out of range gives 80000000h on both sides; above, turning all bits makes it 7FFFFFFFh.
    const Ints above =
        _mm256_castps_si256(_mm256_cmp_ps(value, _mm256_set1_ps(2147483648.0F), _CMP_GE_OQ));
    return _mm256_xor_si256(_mm256_cvtps_epi32(DropNan(value)), above);
}

/// Moves the low 3 bytes of each lane together, 12 bytes in each half, then the six words of the
/// result to the places that `places` names.
inline Ints Pack24(Ints value, Ints places) {
    const Ints halves = _mm256_shuffle_epi8(
        value, _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                                0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
    return _mm256_permutevar8x32_epi32(halves, places);
}

template <std::size_t width>
inline void StoreBlock(std::uint8_t* out, const Ints (&block)[4]) {
    if constexpr (width == 2) {
        constexpr int kOrder = 0xD8;  // packing works within each half: 0 2 1 3 puts it in order
        StoreWords(out, _mm256_permute4x64_epi64(_mm256_packs_epi32(block[0], block[1]), kOrder));
        StoreWords(out + 32,
                   _mm256_permute4x64_epi64(_mm256_packs_epi32(block[2], block[3]), kOrder));
    } else if constexpr (width == 3) {
        // Words 0 1 2 4 5 6 hold data; each vector is turned so that it meets its neighbours, and
        // its surplus fits the next one's gap.
        const Ints a = Pack24(block[0], _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 3));
        const Ints b = Pack24(block[1], _mm256_setr_epi32(2, 4, 5, 6, 3, 3, 0, 1));
        const Ints c = Pack24(block[2], _mm256_setr_epi32(5, 6, 3, 3, 0, 1, 2, 4));
        const Ints d = Pack24(block[3], _mm256_setr_epi32(3, 3, 0, 1, 2, 4, 5, 6));
        StoreWords(out, _mm256_blend_epi32(a, b, 0xC0));
        StoreWords(out + 32, _mm256_blend_epi32(b, c, 0xF0));
        StoreWords(out + 64, _mm256_blend_epi32(c, d, 0xFC));
    } else {
        StoreWords(out, block[0]);
        StoreWords(out + 32, block[1]);
        StoreWords(out + 64, block[2]);
        StoreWords(out + 96, block[3]);
    }
}

inline void Interleave(Ints a, Ints b, Ints& first, Ints& second) {
    const Ints low = _mm256_unpacklo_epi32(a, b);
    const Ints high = _mm256_unpackhi_epi32(a, b);
    first = _mm256_permute2x128_si256(low, high, 0x20);
    second = _mm256_permute2x128_si256(low, high, 0x31);
}

inline void Deinterleave(Ints first, Ints second, Ints& a, Ints& b) {
    const Floats low = _mm256_castsi256_ps(_mm256_permute2x128_si256(first, second, 0x20));
    const Floats high = _mm256_castsi256_ps(_mm256_permute2x128_si256(first, second, 0x31));
    a = _mm256_castps_si256(_mm256_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0)));
    b = _mm256_castps_si256(_mm256_shuffle_ps(low, high, _MM_SHUFFLE(3, 1, 3, 1)));
}

}  // namespace
}  // namespace vorrel
