#pragma once

#include <cmath>

namespace vorrel {

/// The five integrators of the modulator.
template <class Real>
struct _dsm {
    Real s0 = 0, s1 = 0, s2 = 0, s3 = 0, s4 = 0;
};

/// Limits of the integrators' magnitudes; they keep the modulator stable in overload.
inline constexpr double kDsmLimit[] = {4.0, 9.0, 25.0, 92.0, 700.0};

/// One step of the fifth-order sigma-delta modulator: takes one sample, gives one bit as +1 or -1.
/// All values of a line come from those of the line before, unclamped; clamping comes last.
inline double dsm(_dsm<double>& state, double x) {
    const auto clamp = [](double value, double limit) {
        return std::fabs(value) > limit ? std::copysign(limit, value) : value;
    };
    const double y = 0.791882 * state.s0 + 0.304545 * state.s1 + 0.06993 * state.s2 +
                     0.009496 * state.s3 + 0.000607 * state.s4;
    const double q = y >= 0 ? 1.0 : -1.0;
    const double s0 = state.s0 + x - q;
    const double s2 = state.s1 + state.s2;
    const double s1 = state.s0 + state.s1 - 0.000496 * s2;
    const double s4 = state.s3 + state.s4;
    const double s3 = state.s2 + state.s3 - 0.001789 * s4;
    state.s0 = clamp(s0, kDsmLimit[0]);
    state.s1 = clamp(s1, kDsmLimit[1]);
    state.s2 = clamp(s2, kDsmLimit[2]);
    state.s3 = clamp(s3, kDsmLimit[3]);
    state.s4 = clamp(s4, kDsmLimit[4]);
    return q;
}

}  // namespace vorrel
