#pragma once

#include <cstdint>
#include <vector>

namespace vorrel {

/// The 400-tap low-pass filter that makes a multi-bit signal of a 1-bit one, one sample in and one
/// out, in single precision. One thread at a time.
class fir_filter {
public:
    /// Sizes both stores and fills them with zeros. `init` comes before the first `sample`.
    fir_filter();
    /// Kept: of a source's history and coefficients only the first two values each are copied
    /// (FirFilterTest.ACopyTakesTheFirstTwoValuesOnly); give a copy `init` before its use.
    fir_filter(const fir_filter& other);
    fir_filter& operator=(const fir_filter& other);
    ~fir_filter() = default;

    /// Begins a stream: no history, the taps of `cff` in single precision.
    void init();
    /// Takes the next input and gives the next output: the sum over k = 0..199 of tap k times
    /// (run[k] + run[399 - k]).
    ///
    /// Kept: the run of 400 inputs begins at the newest, goes on with the oldest and ends with the
    /// one before the newest (FirFilterTest.TheRunBeginsAtTheNewestInput).
    double sample(double x);
    /// Takes the next input without an output.
    /// @return the slot of the ring that it went to.
    std::int32_t Store(double x);

private:
    friend struct FirFilterParts;  // for tests
    void CopyStart(const fir_filter& other);

    std::vector<float> delayLine;                // a ring stored twice: i + 400 mirrors i
    std::vector<std::uint8_t> coefficientStore;  // 400 floats
    std::int32_t index = 0;                      // next slot of the ring to write, 0..399
};

}  // namespace vorrel
