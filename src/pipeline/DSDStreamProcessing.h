#pragma once

#include <cstddef>
#include <cstdint>

#include "convert/DsdGainKernels.h"
#include "convert/DsdModulator.h"
#include "convert/fir_filter.h"

namespace vorrel {

/// Changes the level of one channel of a 1-bit stream, in place: decodes it with a low-pass filter,
/// scales it and modulates it to one bit again. Filter and modulator go on from call to call, so
/// the output does not depend on how a stream is cut into buffers. One thread at a time.
class DSDStreamProcessing {
public:
    // Results; not a `VrError`.
    static constexpr int kDone = 0;
    static constexpr int kNotInitialised = 3;

    DSDStreamProcessing();
    virtual ~DSDStreamProcessing();
    DSDStreamProcessing(const DSDStreamProcessing&) = delete;
    DSDStreamProcessing& operator=(const DSDStreamProcessing&) = delete;

    /// Begins a stream: no history, modulator at rest. The gain stays as it was (1 at first).
    /// @param sampleRate  Kept, not used: filter and modulator are fixed for every rate.
    /// @param lsbFirst    1: the first bit in time is the least significant of its byte; any
    ///                    other value: the most significant.
    /// @return `kDone`.
    int Init(std::int32_t sampleRate, std::int32_t lsbFirst);
    /// Sets the gain in decibels, from the next `Process` on. 0 dB is exactly 1.
    /// @return `kDone`, `kNotInitialised`.
    int SetGain(float decibels);
    /// Kept: never writes `delay` (DSDStreamProcessingTest.GetDelayLeavesItsArgument).
    /// @return `kDone`, `kNotInitialised`.
    int GetDelay(std::int32_t* delay) const;
    /// Processes `length` bytes, eight samples each, in place. At 0 dB nothing is touched, and the
    /// stream that passes does not enter the filter.
    /// @return `kDone`; `kNotInitialised`, the data untouched.
    int Process(std::uint8_t* bytes, std::size_t length);
    /// Whether `Process` leaves every byte as it is.
    bool PassesThrough() const { return !initialised || gain == 1.0F; }

private:
    friend struct DSDStreamProcessingParts;  // for tests
    bool GainSuitsKernels() const;
    bool ModulatorIsFinite() const;
    void ProcessLiterally(std::uint8_t* bytes, std::size_t length);
    void ProcessWithKernels(std::uint8_t* bytes, std::size_t length);
    void RefillFilter();

    bool initialised = false;
    std::int32_t sampleRate = 0;
    std::int32_t lsbFirst = 0;
    float gain = 1.0F;
    _dsm<double> modulator;
    fir_filter filter;

    // The kernels take over once all that the filter looks back on has come in at one gain. The
    // filter's history then stands still, and is refilled before the gain changes.
    const DsdGainKernels* kernels;
    DsdGainState kernelState{};
    std::size_t bytesAtThisGain = 0;  // processed; no more counted than the filter looks back on
    bool filterIsBehind = false;
};

}  // namespace vorrel
