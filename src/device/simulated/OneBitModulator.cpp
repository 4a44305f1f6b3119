#include "device/simulated/OneBitModulator.h"

#include <cmath>

namespace vorrel {
namespace {

// The noise transfer function, in powers of z^-1: two pairs of zeros on the unit circle inside the
// audio band of 64-fold oversampling, the poles of a Butterworth high-pass at 0.0492 of the rate,
// which keep its gain at 1.5 everywhere.
constexpr std::array kZeros = {-3.9979349269732207, 5.995870351520387, -3.997934926973221, 1.0};
constexpr std::array kPoles = {-3.19335159204023, 3.8897413490445785, -2.134081355722136,
                               0.4439858401709448};
// Within the permitted range the shaped error stays below 2. Beyond, it grows until it passes this,
// and the modulator begins anew.
constexpr double kShapedLimit = 8.0;

}  // namespace

bool OneBitModulator::Next(double u) {
    // The output is the input plus the shaped error of all earlier bits, (zeros - poles) / poles.
    if (std::abs(state[0]) > kShapedLimit) {
        state.fill(0.0);
    }
    const double shaped = state[0];
    const double y = u + shaped;
    const bool bit = y >= 0.0;
    const double error = (bit ? 1.0 : -1.0) - y;
    for (std::size_t k = 0; k < kOrder; ++k) {
        state[k] = state[k + 1] + (kZeros[k] - kPoles[k]) * error - kPoles[k] * shaped;
    }
    return bit;
}

}  // namespace vorrel
