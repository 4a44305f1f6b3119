#include "convert/fir_filter.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "convert/GainTables.h"

namespace vorrel {
namespace {

constexpr std::int32_t kRing = static_cast<std::int32_t>(kGainTaps);
constexpr std::size_t kDelayValues = 2 * kGainTaps;
constexpr std::size_t kCoefficientBytes = kGainTaps * sizeof(float);
constexpr std::size_t kCopiedBytes = 2 * sizeof(float);

}  // namespace

fir_filter::fir_filter() : delayLine(kDelayValues), coefficientStore(kCoefficientBytes) {}

fir_filter::fir_filter(const fir_filter& other) : fir_filter() {
    CopyStart(other);
}

fir_filter& fir_filter::operator=(const fir_filter& other) {
    CopyStart(other);
    return *this;
}

void fir_filter::CopyStart(const fir_filter& other) {
    index = other.index;
    std::memmove(delayLine.data(), other.delayLine.data(), kCopiedBytes);
    std::memmove(coefficientStore.data(), other.coefficientStore.data(), kCopiedBytes);
}

void fir_filter::init() {
    index = 0;
    std::fill(delayLine.begin(), delayLine.end(), 0.0F);
    for (std::size_t k = 0; k < kGainTaps; ++k) {
        const auto tap = static_cast<float>(cff[k]);
        std::memcpy(coefficientStore.data() + k * sizeof tap, &tap, sizeof tap);
    }
}

std::int32_t fir_filter::Store(double x) {
    const std::int32_t slot = index;
    const auto value = static_cast<float>(x);
    delayLine[static_cast<std::size_t>(slot)] = value;
    delayLine[static_cast<std::size_t>(slot) + kGainTaps] = value;
    index = slot + 1 == kRing ? 0 : slot + 1;
    return slot;
}

double fir_filter::sample(double x) {
    const float* run = delayLine.data() + Store(x);
    const std::uint8_t* taps = coefficientStore.data();
    // Tap k in lane k mod 4, the lanes added pairwise: this order, and no other, gives the same
    // bits on every machine.
    float lanes[4] = {};
    for (std::size_t k = 0; k < kGainTaps / 2; k += 4) {
        float four[4];
        std::memcpy(four, taps + k * sizeof(float), sizeof four);
        for (std::size_t lane = 0; lane < 4; ++lane) {
            lanes[lane] += four[lane] * (run[k + lane] + run[kGainTaps - 1 - k - lane]);
        }
    }
    return static_cast<double>((lanes[0] + lanes[1]) + (lanes[2] + lanes[3]));
}

}  // namespace vorrel
