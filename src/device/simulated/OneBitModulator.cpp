#include "device/simulated/OneBitModulator.h"

#include <cmath>

namespace vorrel {
namespace {

// The noise transfer function, in powers of z^-1: a zero at 0 and two pairs on the unit circle
// inside the audio band of 64-fold oversampling (at 0.5385 and 0.9062 of 20 kHz, which makes the
// noise of the band the least), the poles of a Butterworth high-pass at 0.0365 of the rate, which
// keep its gain at 1.45 everywhere: at 1.5 it comes close to overload at the highest input.
constexpr std::array kZeros = {-4.9977976257369869, 9.9933938126945989, -9.9933938126945989,
                               4.9977976257369869, -1.0};
constexpr std::array kPoles = {-4.2582581498770011, 7.3007258739100624, -6.2948254428281638,
                               2.7279056054272681, -0.47510070510452174};
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
    // No branch: the bits follow no pattern that a processor could foresee.
    const double error = std::copysign(1.0, y) - y;
    for (std::size_t k = 0; k < kOrder; ++k) {
        state[k] = (state[k + 1] - kPoles[k] * shaped) + (kZeros[k] - kPoles[k]) * error;
    }
    return !std::signbit(y);
}

}  // namespace vorrel
