#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "device/simulated/SimulatedRecorderConfig.h"

namespace vorrel {

/// The stream that a source has to fill.
struct SourceFormat {
    double rateHz = 0.0;  ///< Frames a second; in DSD mode words a second.
    std::uint32_t bits = 0;
    std::uint32_t channels = 0;
    bool dsd = false;  ///< Frames are words of 16 one-bit samples (`DsdWordToFloat`).

    friend bool operator==(const SourceFormat&, const SourceFormat&) = default;
};

/// Endless frames, always the same ones for the same configuration and format, in whatever
/// portions they are read. One thread at a time.
class SampleSource {
public:
    virtual ~SampleSource() = default;

    /// Writes the next `frames` frames, channels interleaved.
    virtual void Read(float* out, std::size_t frames) = 0;
};

/// The source of a completed configuration, at its first frame. Null when its file cannot be
/// opened or is none of the mode and its rate, which is traced. Tone, sweep and noise are rounded
/// to `bits`, as a converter would deliver them; counter and file pass as they are.
std::unique_ptr<SampleSource> MakeSampleSource(const SimulatedRecorderConfig& config,
                                               const SourceFormat& format);

/// What the counter source delivers in PCM mode: a 24-bit count over all samples, frame by frame,
/// channel by channel, ((frame x channels + channel) mod 2^24) read as a signed number, over 2^23.
float CounterSample(std::uint64_t frame, std::uint32_t channel, std::uint32_t channels);

/// The same in DSD mode: the low 16 bits of the count are the word.
std::uint16_t CounterWord(std::uint64_t frame, std::uint32_t channel, std::uint32_t channels);

/// A word of 16 one-bit samples as the device carries it: its value as a signed number over 32768.
/// The earlier byte is the low one, in each byte the earliest sample is bit 7.
float DsdWordToFloat(std::uint16_t word);

/// One-bit samples of a word.
inline constexpr unsigned kDsdWordBits = 16;

/// The word of 16 samples of which the earliest is bit 15: its two halves change places.
constexpr std::uint16_t DsdWordOfBits(unsigned earliestFirst) {
    return static_cast<std::uint16_t>(earliestFirst << 8 | (earliestFirst >> 8 & 0xFF));
}
static_assert(DsdWordOfBits(0x3412) == 0x1234);

/// Digital silence: both bytes 0x69, as many ones as zeros.
inline constexpr std::uint16_t kDsdSilenceWord = 0x6969;

}  // namespace vorrel
