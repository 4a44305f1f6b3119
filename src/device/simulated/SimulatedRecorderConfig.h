#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "device/backend/CoreAudioTypes.h"
#include "device/backend/SupportedDevice.h"
#include "device/simulated/IoClock.h"

namespace vorrel {

/// What a simulated recorder hears.
enum class SimulatedSource { Tone, Sweep, Noise, Counter, Silence, File };

/// One simulated recorder. The defaults are the supported model over a 1 kHz tone.
struct SimulatedRecorderConfig {
    SimulatedSource source = SimulatedSource::Tone;
    /// `File` only: as `InspectDsfFile` accepts it when it ends in ".dsf", else as
    /// `InspectAudioFile` does.
    std::string filePath;
    bool loop = false;  ///< `File` only: begins again at its end instead of falling silent.
    double frequencyHz = 1000.0;  ///< `Tone` only; above 0 and below 22,050.
    /// `Tone`, `Sweep` and PCM `Noise`: peak level in dB below full scale, -200 to 0. A 1-bit
    /// modulation goes no higher than half of full scale.
    double levelDb = -6.0;
    std::uint64_t seed = 1;  ///< `Noise` only.

    std::uint32_t channels = 0;  ///< 1 to 8; 0 stands for the file's own count, else for 2.
    double speed = 1.0;          ///< Time runs that many times as fast; 0.01 to 1,000,000.
    bool manual =
        false;  ///< No capture thread: the test delivers (`SimulatedRecorder::Deliver...`).

    std::vector<std::uint32_t> pcmBits = {16, 24, 32};  ///< Widths offered.
    /// Rates offered in PCM mode; over a file, only the file's own of these, over a DSF file none.
    std::vector<double> pcmRatesHz = {44'100,  48'000,  88'200,  96'000,
                                      176'400, 192'000, 352'800, 384'000};
    bool dsd = true;  ///< Has the DSD mode. Over a file of PCM it has not.
    /// Rates of single bits offered in DSD mode; over a DSF file, only the file's own of these.
    std::vector<double> dsdRatesHz = {2'822'400, 5'644'800, 11'289'600};

    std::uint32_t bufferFrames = 512;  ///< Buffer size after plugging in.
    std::uint32_t bufferFramesMinimum = 14;
    std::uint32_t bufferFramesMaximum = 32'768;
    std::uint32_t bufferFramesStep =
        1;  ///< A size that is set is rounded down to a multiple of it.

    /// Channels of each buffer in the delivered lists, such as {2, 2}; their sum is the channel
    /// count. Empty: one buffer with all channels.
    std::vector<std::uint32_t> bufferChannels;

    std::string name = kSupportedDeviceName;
    std::int32_t vendorId = kSupportedVendorId;
    std::int32_t productId = kSupportedProductId;

    std::shared_ptr<IoClock> clock;  ///< Of the capture thread; null for the system's.

    std::uint64_t unplugAfterBuffers = 0;  ///< Unplugged after so many buffers; 0 for never.
};

/// Fills in what the source decides (channels, rates, DSD mode) and checks the rest.
/// @param problem  Receives, on failure, what is wrong, in words for the trace log.
/// @return false when no recorder can be made of `config`, which is then half filled in.
bool CompleteConfig(SimulatedRecorderConfig& config, std::string& problem);

/// Reads the text form: `key=value` pairs with a comma between them, each key at most once:
///
///     source=tone|sweep|noise|counter|silence|file:PATH[.dsf]   frequency=HZ   level=DB   seed=N
///     channels=1..8   speed=FACTOR   recorders=1..16   manual=0|1   loop=0|1   dsd=0|1
///     bits=16|24|32 (the only width offered)   unplug=BUFFERS
///
/// A path may hold '=' and ':'; a comma ends it. Nothing is trimmed or guessed.
/// @param text     Null or "" stands for "source=tone,channels=2,speed=1".
/// @param configs  Receives one completed configuration for each recorder.
/// @param problem  Receives, on failure, what is wrong.
/// @return false when anything is wrong; `configs` is then empty.
bool ParseSimulatedConfiguration(const char* text, std::vector<SimulatedRecorderConfig>& configs,
                                 std::string& problem);

}  // namespace vorrel
