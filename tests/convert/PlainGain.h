#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorrel::test {

/// The gain processor written down step by step: what the fast paths are held against, bit by bit,
/// and what the benchmarks measure them by. Most significant bit first.
class PlainGain {
public:
    explicit PlainGain(float gainFactor) : gain(gainFactor), delay(800) {}

    void SetGain(float gainFactor) { gain = gainFactor; }
    void Process(std::uint8_t* bytes, std::size_t length);
    std::vector<std::uint8_t> Processed(std::vector<std::uint8_t> bytes) {
        Process(bytes.data(), bytes.size());
        return bytes;
    }
    /// The filter's next output.
    float Filter(float x);
    /// The modulator's next bit for the filter's output `x`.
    bool Modulate(double x);

    const double* States() const { return states; }
    void SetStates(const double (&values)[5]);

private:
    float gain;
    std::vector<float> delay;  // a ring of 400, stored twice
    std::size_t index = 0;
    double states[5] = {};
};

/// The same filter and modulator with every value in double precision.
class DoublePrecisionGain {
public:
    explicit DoublePrecisionGain(double gainFactor) : gain(gainFactor), history(400) {}
    std::vector<std::uint8_t> Processed(std::vector<std::uint8_t> bytes);

private:
    double gain;
    std::vector<double> history;  // oldest first
    double states[5] = {};
};

/// `count` random bytes, the same for the same seed.
std::vector<std::uint8_t> RandomBits(std::size_t count, std::uint32_t seed);
/// A sine of `amplitude` (1 is all ones) and `hz` at `rateHz`, as `count` bytes of 1-bit samples by
/// a modulator in double precision.
std::vector<std::uint8_t> ToneBits(std::size_t count, double amplitude, double hz, double rateHz);
/// As `ToneBits`, a triangle of `period` bits: sums and products only, the same on every machine.
std::vector<std::uint8_t> TriangleBits(std::size_t count, double amplitude, std::size_t period);
/// Tells two streams apart in a golden value (FNV-1a, 64 bits).
std::uint64_t HashOf(const std::vector<std::uint8_t>& bytes);

}  // namespace vorrel::test
