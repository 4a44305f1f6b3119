#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace vorrel {

/// Length of the decimator's filter and of each of its rings.
inline constexpr std::size_t kDecimatorTaps = 96;

/// The first half of the low-pass filter; the second mirrors it.
inline constexpr std::array<float, kDecimatorTaps / 2> kDecimatorHalf = {
    3.13044097e-08F,  1.24418222e-07F,  3.42323062e-07F,  7.41003987e-07F,  1.31940033e-06F,
    1.93052097e-06F,  2.16665512e-06F,  1.24972189e-06F,  -2.01746025e-06F, -9.16305908e-06F,
    -2.1740796e-05F,  -4.0749288e-05F,  -6.57763449e-05F, -9.39624733e-05F, -0.000118997028F,
    -0.000130479631F, -0.000114062568F, -5.2794072e-05F,  7.00296878e-05F,  0.000266446354F,
    0.000538163644F,  0.000870432297F,  0.00122669619F,   0.00154560164F,   0.00174204679F,
    0.00171370921F,   0.00135383802F,   0.000570076227F,  -0.000692218717F, -0.00242503593F,
    -0.00453518424F,  -0.00682885991F,  -0.00900790468F,  -0.010681388F,    -0.0113942726F,
    -0.0106724184F,   -0.00808025058F,  -0.00328470347F,  0.0038830433F,    0.0133774746F,
    0.0249092132F,    0.0379429497F,    0.0517262928F,    0.0653487667F,    0.0778255239F,
    0.0881964713F,    0.0956284553F,    0.0995073169F,
};

/// The 96 taps twice in a row: a dot product with a ring whose oldest entry stands at `position`
/// is one with the run of coefficients that starts at 96 - `position`, without any modulo.
inline constexpr std::array<float, 2 * kDecimatorTaps> filter_coef = [] {
    std::array<float, 2 * kDecimatorTaps> taps{};
    for (std::size_t k = 0; k < kDecimatorTaps; ++k) {
        const float tap = kDecimatorHalf[k < kDecimatorTaps / 2 ? k : kDecimatorTaps - 1 - k];
        taps[k] = tap;
        taps[k + kDecimatorTaps] = tap;
    }
    return taps;
}();

// Facts about the filter that a slip in the table would break.
static_assert([] {
    double sum = 0;
    for (std::size_t k = 0; k < kDecimatorTaps; ++k) {
        sum += static_cast<double>(filter_coef[k]);
        if (filter_coef[k] != filter_coef[kDecimatorTaps - 1 - k] ||
            filter_coef[k] != filter_coef[k + kDecimatorTaps]) {
            return false;  // symmetric, and twice the same
        }
    }
    return sum > 0.999996945 && sum < 0.999996955;  // unity gain at rest
}());
// A slip in the last digit of a small tap is lost in that sum: their bits, each weighted by its
// place.
static_assert([] {
    std::uint64_t sum = 0;
    for (std::size_t k = 0; k < kDecimatorTaps / 2; ++k) {
        sum += (k + 1) * std::bit_cast<std::uint32_t>(kDecimatorHalf[k]);
    }
    return sum == 2'181'293'248'935;
}());

/// Four bits in time order, set as +1.0 and clear as -1.0, for each value of a nibble.
using NibbleTable = std::array<std::array<float, 4>, 16>;

inline constexpr NibbleTable MakeNibbleTable(bool msbFirst) {
    NibbleTable table{};
    for (unsigned nibble = 0; nibble < 16; ++nibble) {
        for (unsigned i = 0; i < 4; ++i) {
            const unsigned bit = msbFirst ? 3 - i : i;
            table[nibble][i] = ((nibble >> bit) & 1U) != 0 ? 1.0F : -1.0F;
        }
    }
    return table;
}

alignas(64) inline constexpr NibbleTable table_msb = MakeNibbleTable(true);
alignas(64) inline constexpr NibbleTable table_lsb = MakeNibbleTable(false);

static_assert(table_msb[1] == std::array{-1.0F, -1.0F, -1.0F, 1.0F});
static_assert(table_msb[8] == std::array{1.0F, -1.0F, -1.0F, -1.0F});
static_assert(table_lsb[1] == std::array{1.0F, -1.0F, -1.0F, -1.0F});
static_assert(table_lsb[8] == std::array{-1.0F, -1.0F, -1.0F, 1.0F});

}  // namespace vorrel
