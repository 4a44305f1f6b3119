#pragma once

#include <cstdint>
#include <memory>

#include "device/simulated/SimulatedRecorderConfig.h"

namespace vorrel {

/// A waveform as a function of the frame, equal in all channels; -1 to 1.
class Signal {
public:
    virtual ~Signal() = default;
    virtual double At(std::uint64_t frame) const = 0;
};

/// The waveform of a tone or sweep configuration at full scale; the sweep runs from 20 Hz to
/// 20 kHz, logarithmically, in ten seconds, and begins again.
std::unique_ptr<Signal> MakeSignal(const SimulatedRecorderConfig& config, double rateHz);

}  // namespace vorrel
