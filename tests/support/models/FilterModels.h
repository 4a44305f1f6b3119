#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "convert/DsdTables.h"
#include "convert/GainTables.h"

namespace vorrel::test {

/// The 400-tap filter over a list of all inputs there ever were.
class FirModel {
public:
    void Init() { inputs.assign(400, 0.0F); }
    void Store(double x) { inputs.push_back(static_cast<float>(x)); }
    double Sample(double x) {
        Store(x);
        // The newest, then the oldest of the last 400, up to the one before the newest.
        std::vector<float> run(inputs.end() - 400, inputs.end());
        std::rotate(run.begin(), run.end() - 1, run.end());
        std::array<float, 4> lanes{};
        for (std::size_t k = 0; k < 200; ++k) {
            lanes[k % 4] += static_cast<float>(cff[k]) * (run[k] + run[399 - k]);
        }
        return static_cast<double>((lanes[0] + lanes[1]) + (lanes[2] + lanes[3]));
    }

private:
    std::vector<float> inputs;
};

/// The decimator over lists of all bits and of all values of the first stage that there ever were.
class DecimatorModel {
public:
    explicit DecimatorModel(bool earliestHighest) : msbFirst(earliestHighest) {}

    /// @param bytes  Eight, of which the sample itself sees nothing yet.
    std::int16_t Next(const std::uint8_t* bytes) {
        const float scaled = Filtered(stage) * 32767.0F;
        for (std::size_t byte = 0; byte < 8; ++byte) {
            stage.push_back(Filtered(bits));
            for (unsigned bit = 0; bit < 8; ++bit) {
                const unsigned place = msbFirst ? 7 - bit : bit;
                bits.push_back(((bytes[byte] >> place) & 1U) != 0 ? 1.0F : -1.0F);
            }
        }
        return static_cast<std::int16_t>(std::lrint(std::clamp(scaled, -32768.0F, 32767.0F)));
    }

private:
    /// The last 96 values against the 96 taps. They stand in a ring, in whose order they are added
    /// up, every fourth to the same sum: the value that came as number n stands at n mod 96.
    static float Filtered(const std::vector<float>& values) {
        std::array<float, 4> lanes{};
        const std::size_t oldest = values.size() - 96;
        for (std::size_t slot = 0; slot < 96; ++slot) {
            const std::size_t tap = (slot + 96 - oldest % 96) % 96;
            lanes[slot % 4] += filter_coef[tap] * values[oldest + tap];
        }
        return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
    }

    bool msbFirst;
    std::vector<float> bits = std::vector<float>(96);
    std::vector<float> stage = std::vector<float>(96);
};

}  // namespace vorrel::test
