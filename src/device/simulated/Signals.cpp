#include "device/simulated/Signals.h"

#include <cmath>
#include <numbers>

namespace vorrel {
namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;
constexpr double kSweepStartHz = 20.0;
constexpr double kSweepEndHz = 20'000.0;
constexpr double kSweepSeconds = 10.0;

/// Computed from the frame number each time: no error grows with the length of the take.
class ToneSignal final : public Signal {
public:
    ToneSignal(double frequencyHz, double rateHz) : cyclesPerFrame(frequencyHz / rateHz) {}

    double At(std::uint64_t frame) const override {
        const double cycles = static_cast<double>(frame) * cyclesPerFrame;
        return std::sin(kTwoPi * (cycles - std::floor(cycles)));
    }

private:
    const double cyclesPerFrame;
};

class SweepSignal final : public Signal {
public:
    explicit SweepSignal(double rateHz)
        : periodFrames(static_cast<std::uint64_t>(kSweepSeconds * rateHz)),
          exponentPerFrame(std::log(kSweepEndHz / kSweepStartHz) / (kSweepSeconds * rateHz)),
          cyclesScale(kSweepStartHz * kSweepSeconds / std::log(kSweepEndHz / kSweepStartHz)) {}

    double At(std::uint64_t frame) const override {
        const double exponent = static_cast<double>(frame % periodFrames) * exponentPerFrame;
        const double cycles = cyclesScale * std::expm1(exponent);
        return std::sin(kTwoPi * (cycles - std::floor(cycles)));
    }

private:
    const std::uint64_t periodFrames;
    const double exponentPerFrame;
    const double cyclesScale;
};

}  // namespace

std::unique_ptr<Signal> MakeSignal(const SimulatedRecorderConfig& config, double rateHz) {
    if (config.source == SimulatedSource::Sweep) {
        return std::make_unique<SweepSignal>(rateHz);
    }
    return std::make_unique<ToneSignal>(config.frequencyHz, rateHz);
}

}  // namespace vorrel
