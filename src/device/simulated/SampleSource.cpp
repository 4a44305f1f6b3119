#include "device/simulated/SampleSource.h"

#include <algorithm>
#include <cmath>

#include "device/simulated/AudioFileSource.h"
#include "device/simulated/DsfFileSource.h"
#include "device/simulated/OneBitModulator.h"
#include "device/simulated/Signals.h"

namespace vorrel {
namespace {

double Amplitude(const SimulatedRecorderConfig& config) {
    return std::pow(10.0, config.levelDb / 20.0);
}

/// Rounds to what a converter of so many bits can deliver.
class Quantiser {
public:
    explicit Quantiser(std::uint32_t bits) : scale(std::ldexp(1.0, static_cast<int>(bits) - 1)) {}

    float operator()(double value) const {
        // Adding and taking off this number rounds to the nearest integer, ties to even.
        constexpr double rounder = 1.5 * 4'503'599'627'370'496.0;  // 1.5 x 2^52
        const double integer = (value * scale + rounder) - rounder;
        return static_cast<float>(std::clamp(integer, -scale, scale - 1.0) / scale);
    }

private:
    const double scale;
};

/// A well-mixed number for each index: any sample can be computed without those before it.
std::uint64_t Hash(std::uint64_t seed, std::uint64_t index) {
    std::uint64_t x = seed * 0xD1342543DE82EF95U + (index + 1) * 0x9E3779B97F4A7C15U;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return x ^ (x >> 31);
}

/// A source whose samples depend on nothing but their index over all frames and channels.
template <class Sample>
class IndexedSource final : public SampleSource {
public:
    IndexedSource(std::uint32_t channels, Sample sampleOfIndex)
        : channelCount(channels), sample(sampleOfIndex) {}

    void Read(float* out, std::size_t frames) override {
        const std::size_t count = frames * channelCount;
        for (std::size_t i = 0; i < count; ++i) {
            out[i] = sample(next + i);
        }
        next += count;
    }

private:
    const std::uint32_t channelCount;
    const Sample sample;
    std::uint64_t next = 0;
};

template <class Sample>
std::unique_ptr<SampleSource> Indexed(std::uint32_t channels, Sample sample) {
    return std::make_unique<IndexedSource<Sample>>(channels, sample);
}

/// A waveform in all channels, rounded to the format's bits.
class PcmSignalSource final : public SampleSource {
public:
    PcmSignalSource(const SimulatedRecorderConfig& config, const SourceFormat& format)
        : signal(MakeSignal(config, format.rateHz)),
          amplitude(Amplitude(config)),
          quantise(format.bits),
          channels(format.channels) {}

    void Read(float* out, std::size_t frames) override {
        for (std::size_t i = 0; i < frames; ++i) {
            out = std::fill_n(out, channels, quantise(amplitude * signal->At(next++)));
        }
    }

private:
    const std::unique_ptr<Signal> signal;
    const double amplitude;
    const Quantiser quantise;
    const std::uint32_t channels;
    std::uint64_t next = 0;
};

/// A waveform in all channels as a 1-bit modulation. It is computed at four points of each word and
/// interpolated linearly in between: at 20 kHz this takes 0.02 dB off at the lowest rate, and the
/// images lie at four times the word rate, far above the audio band.
class DsdSignalSource final : public SampleSource {
public:
    DsdSignalSource(const SimulatedRecorderConfig& config, const SourceFormat& format)
        : signal(MakeSignal(config, format.rateHz * kPointsPerWord)),
          amplitude(std::min(Amplitude(config), OneBitModulator::kMaximumInput)),
          channels(format.channels) {}

    void Read(float* out, std::size_t frames) override {
        for (std::size_t i = 0; i < frames; ++i) {
            out = std::fill_n(out, channels, DsdWordToFloat(NextWord()));
        }
    }

private:
    static constexpr unsigned kPointsPerWord = 4;
    static constexpr unsigned kBitsPerPoint = kDsdWordBits / kPointsPerWord;

    std::uint16_t NextWord() {
        unsigned earliestFirst = 0;
        for (unsigned point = 0; point < kPointsPerWord; ++point) {
            const double target = amplitude * signal->At(++next);
            const double step = (target - value) / kBitsPerPoint;
            for (unsigned bit = 0; bit < kBitsPerPoint; ++bit) {
                earliestFirst = earliestFirst << 1 | (modulator.Next(value + step * bit) ? 1U : 0U);
            }
            value = target;
        }
        return DsdWordOfBits(earliestFirst);
    }

    const std::unique_ptr<Signal> signal;
    const double amplitude;
    const std::uint32_t channels;
    OneBitModulator modulator;
    double value = 0.0;  // of the waveform, at the last point
    std::uint64_t next = 0;
};

float CounterOfIndex(std::uint64_t index) {
    // Shifted up, the 24-bit count takes its sign from bit 23.
    const auto count = static_cast<std::int32_t>(static_cast<std::uint32_t>(index) << 8) >> 8;
    return static_cast<float>(count) / 8'388'608.0F;
}

std::unique_ptr<SampleSource> MakePcmSource(const SimulatedRecorderConfig& config,
                                            const SourceFormat& format) {
    switch (config.source) {
        case SimulatedSource::Tone:
        case SimulatedSource::Sweep:
            return std::make_unique<PcmSignalSource>(config, format);
        case SimulatedSource::Noise:
            return Indexed(format.channels,
                           [seed = config.seed, quantise = Quantiser(format.bits),
                            scale = Amplitude(config) * 0x1p-63](std::uint64_t index) {
                               const auto random = static_cast<std::int64_t>(Hash(seed, index));
                               return quantise(static_cast<double>(random) * scale);
                           });
        case SimulatedSource::Counter:
            return Indexed(format.channels,
                           [](std::uint64_t index) { return CounterOfIndex(index); });
        case SimulatedSource::File:
            return OpenAudioFileSource(config.filePath, format.channels, config.loop);
        case SimulatedSource::Silence:
            break;
    }
    return Indexed(format.channels, [](std::uint64_t) { return 0.0F; });
}

std::unique_ptr<SampleSource> MakeDsdSource(const SimulatedRecorderConfig& config,
                                            const SourceFormat& format) {
    switch (config.source) {
        case SimulatedSource::Tone:
        case SimulatedSource::Sweep:
            return std::make_unique<DsdSignalSource>(config, format);
        case SimulatedSource::Noise:
            return Indexed(format.channels, [seed = config.seed](std::uint64_t index) {
                return DsdWordToFloat(static_cast<std::uint16_t>(Hash(seed, index)));
            });
        case SimulatedSource::Counter:
            return Indexed(format.channels, [](std::uint64_t index) {
                return DsdWordToFloat(static_cast<std::uint16_t>(index));
            });
        case SimulatedSource::File:
            return OpenDsfFileSource(config.filePath, format.channels, format.rateHz * kDsdWordBits,
                                     config.loop);
        case SimulatedSource::Silence:
            break;
    }
    return Indexed(format.channels, [](std::uint64_t) { return DsdWordToFloat(kDsdSilenceWord); });
}

}  // namespace

std::unique_ptr<SampleSource> MakeSampleSource(const SimulatedRecorderConfig& config,
                                               const SourceFormat& format) {
    if (format.dsd) {
        return MakeDsdSource(config, format);
    }
    return MakePcmSource(config, format);
}

float CounterSample(std::uint64_t frame, std::uint32_t channel, std::uint32_t channels) {
    return CounterOfIndex(frame * channels + channel);
}

std::uint16_t CounterWord(std::uint64_t frame, std::uint32_t channel, std::uint32_t channels) {
    return static_cast<std::uint16_t>(frame * channels + channel);
}

float DsdWordToFloat(std::uint16_t word) {
    return static_cast<float>(static_cast<std::int16_t>(word)) / 32'768.0F;
}

}  // namespace vorrel
