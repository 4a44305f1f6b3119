#include "pipeline/DSDStreamProcessing.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>

#include "convert/GainTables.h"
#include "convert/InstructionSet.h"
#include "convert/NearestRounding.h"

namespace vorrel {
namespace {

constexpr std::size_t kHistoryBytes = DsdGainState::kHistoryBytes;
static_assert(kHistoryBytes * 8 == kGainTaps && DsdGainState::kTaps == kGainTaps / 2);

bool Bit(std::uint8_t byte, int bit) {
    return ((byte >> bit) & 1) != 0;
}

}  // namespace

DSDStreamProcessing::DSDStreamProcessing() : kernels(&ActiveDsdGainKernels()) {}
DSDStreamProcessing::~DSDStreamProcessing() = default;

int DSDStreamProcessing::Init(std::int32_t rate, std::int32_t bitOrder) {
    sampleRate = rate;
    lsbFirst = bitOrder;
    modulator = {};
    filter.init();
    bytesAtThisGain = 0;
    filterIsBehind = false;
    initialised = true;
    return kDone;
}

int DSDStreamProcessing::SetGain(float decibels) {
    if (!initialised) {
        return kNotInitialised;
    }
    const NearestRounding rounding;
    const float factor = std::pow(10.0F, decibels / 20.0F);
    if (factor != gain) {  // or one of them is not a number
        RefillFilter();
        gain = factor;
        bytesAtThisGain = 0;
    }
    return kDone;
}

int DSDStreamProcessing::GetDelay([[maybe_unused]] std::int32_t* delay) const {
    return initialised ? kDone : kNotInitialised;
}

int DSDStreamProcessing::Process(std::uint8_t* bytes, std::size_t length) {
    if (!initialised) {
        return kNotInitialised;
    }
    if (PassesThrough()) {
        return kDone;
    }
    const NearestRounding nearest;
    if (lsbFirst == 1) {
        kernels->reverseBits(bytes, length);
    }
    const std::size_t literally =
        GainSuitsKernels() ? std::min(length, kHistoryBytes - bytesAtThisGain) : length;
    if (literally != 0) {
        ProcessLiterally(bytes, literally);
    }
    if (literally != length) {
        // A gain that was no number may have left a state that is none; the kernels go by signs.
        if (ModulatorIsFinite()) {
            ProcessWithKernels(bytes + literally, length - literally);
        } else {
            ProcessLiterally(bytes + literally, length - literally);
        }
    }
    if (lsbFirst == 1) {
        kernels->reverseBits(bytes, length);
    }
    return kDone;
}

/// Whether products of gain and taps are normal numbers: only then are they exact in the kernels.
bool DSDStreamProcessing::GainSuitsKernels() const {
    return gain > 1e-30F && gain < 1e30F;
}

bool DSDStreamProcessing::ModulatorIsFinite() const {
    return std::isfinite(modulator.s0) && std::isfinite(modulator.s1) &&
           std::isfinite(modulator.s2) && std::isfinite(modulator.s3) &&
           std::isfinite(modulator.s4);
}

void DSDStreamProcessing::ProcessLiterally(std::uint8_t* bytes, std::size_t length) {
    const auto level = static_cast<double>(gain);
    for (std::size_t i = 0; i < length; ++i) {
        const std::uint8_t in = bytes[i];
        std::memmove(kernelState.history, kernelState.history + 1, kHistoryBytes - 1);
        kernelState.history[kHistoryBytes - 1] = in;
        unsigned out = 0;
        for (int bit = 7; bit >= 0; --bit) {
            const double x = Bit(in, bit) ? level : -level;
            out = out << 1 | (dsm(modulator, filter.sample(x)) > 0 ? 1U : 0U);
        }
        bytes[i] = static_cast<std::uint8_t>(out);
    }
    bytesAtThisGain = std::min(bytesAtThisGain + length, kHistoryBytes);
}

void DSDStreamProcessing::ProcessWithKernels(std::uint8_t* bytes, std::size_t length) {
    if (!filterIsBehind) {
        const float twice = 2.0F * gain;
        std::transform(kGainHalfSingle.begin(), kGainHalfSingle.end(), kernelState.taps,
                       [twice](float tap) { return tap * twice; });
        filterIsBehind = true;
    }
    double(&s)[5] = kernelState.integrators;
    std::tie(s[0], s[1], s[2], s[3], s[4]) =
        std::tie(modulator.s0, modulator.s1, modulator.s2, modulator.s3, modulator.s4);
    kernels->gain(&kernelState, bytes, length);
    std::tie(modulator.s0, modulator.s1, modulator.s2, modulator.s3, modulator.s4) =
        std::tie(s[0], s[1], s[2], s[3], s[4]);
}

/// Gives the filter the history that the kernels have kept for it.
void DSDStreamProcessing::RefillFilter() {
    if (!filterIsBehind) {
        return;
    }
    const auto level = static_cast<double>(gain);
    for (const std::uint8_t byte : kernelState.history) {
        for (int bit = 7; bit >= 0; --bit) {
            std::ignore = filter.Store(Bit(byte, bit) ? level : -level);
        }
    }
    filterIsBehind = false;
}

}  // namespace vorrel
