#pragma once

#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>
#include <utility>
#include <vector>

namespace vorrel::test {

/// The discrete Fourier transform in place; the number of values is a power of two.
inline void Transform(std::vector<std::complex<double>>& values) {
    const std::size_t count = values.size();
    for (std::size_t i = 1, j = 0; i < count; ++i) {
        std::size_t bit = count >> 1;
        for (; (j & bit) != 0; bit >>= 1) {
            j ^= bit;
        }
        j ^= bit;
        if (i < j) {
            std::swap(values[i], values[j]);
        }
    }
    std::vector<std::complex<double>> roots(count / 2);
    for (std::size_t i = 0; i < roots.size(); ++i) {
        roots[i] = std::polar(
            1.0, -2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(count));
    }
    for (std::size_t length = 2; length <= count; length *= 2) {
        for (std::size_t start = 0; start < count; start += length) {
            for (std::size_t i = 0; i < length / 2; ++i) {
                const std::complex<double> turned =
                    values[start + i + length / 2] * roots[i * (count / length)];
                values[start + i + length / 2] = values[start + i] - turned;
                values[start + i] += turned;
            }
        }
    }
}

/// What a recorded tone sounds like.
struct Sound {
    double toneDecibels;           ///< in no unit of its own: only differences tell
    double signalToNoiseDecibels;  ///< 20 Hz to 20 kHz
};

/// The frequency next to `hz` of which `points` samples hold a whole number of periods.
inline double WholePeriods(double hz, std::size_t points, double rateHz) {
    const auto count = static_cast<double>(points);
    return std::round(hz * count / rateHz) * rateHz / count;
}

/// Measures a tone of `toneHz` and what is beside it.
/// @param samples  A power of two of them.
inline Sound MeasureSound(const std::vector<double>& samples, double toneHz, double rateHz) {
    const auto points = static_cast<double>(samples.size());
    std::vector<std::complex<double>> values(samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        // A Blackman-Harris window: what leaks from beyond 20 kHz, where the noise of one bit is,
        // stays more than 90 dB down.
        const double turn = 2 * std::numbers::pi * static_cast<double>(i) / points;
        const double window = 0.35875 - 0.48829 * std::cos(turn) + 0.14128 * std::cos(2 * turn) -
                              0.01168 * std::cos(3 * turn);
        values[i] = window * samples[i];
    }
    Transform(values);
    const double toneBin = toneHz * points / rateHz;
    double tone = 0;
    double noise = 0;
    for (std::size_t bin = 5; bin < values.size() / 2; ++bin) {  // below is what stands still
        const double hz = static_cast<double>(bin) * rateHz / points;
        if (hz < 20 || hz > 20'000) {
            continue;
        }
        const double distance = std::fabs(static_cast<double>(bin) - toneBin);
        (distance < 5 ? tone : noise) += std::norm(values[bin]);
    }
    return {10 * std::log10(tone), 10 * std::log10(tone / noise)};
}

}  // namespace vorrel::test
