#include "device/simulated/SimulatedRecorderConfig.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <functional>
#include <map>
#include <numeric>
#include <set>
#include <string_view>

#include "device/simulated/AudioFileSource.h"
#include "device/simulated/DsfFileSource.h"

namespace vorrel {
namespace {

constexpr std::uint32_t kMaximumChannels = 8;
constexpr std::uint32_t kMaximumRecorders = 16;
constexpr std::uint32_t kDefaultChannels = 2;
constexpr double kMinimumSpeed = 0.01;
constexpr double kMaximumSpeed = 1e6;
constexpr double kMinimumLevelDb = -200.0;
/// Half of the lowest rate: a tone must be representable at every rate.
constexpr double kFrequencyLimitHz = 22'050.0;
constexpr char kDefaultText[] = "source=tone,channels=2,speed=1";

/// The whole of `text` as a number, or false.
template <class T>
bool ParseNumber(std::string_view text, T& number) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc{} && stop == end;
}

bool ParseFlag(std::string_view text, bool& flag) {
    flag = text == "1";
    return text == "1" || text == "0";
}

bool ParseSource(std::string_view text, SimulatedRecorderConfig& config) {
    static const std::map<std::string_view, SimulatedSource> names = {
        {"tone", SimulatedSource::Tone},       {"sweep", SimulatedSource::Sweep},
        {"noise", SimulatedSource::Noise},     {"counter", SimulatedSource::Counter},
        {"silence", SimulatedSource::Silence},
    };
    constexpr std::string_view filePrefix = "file:";
    if (text.starts_with(filePrefix)) {
        config.source = SimulatedSource::File;
        config.filePath = text.substr(filePrefix.size());
        return !config.filePath.empty();
    }
    const auto found = names.find(text);
    if (found == names.end()) {
        return false;
    }
    config.source = found->second;
    return true;
}

bool ParsePair(std::string_view key, std::string_view value, SimulatedRecorderConfig& config,
               std::uint32_t& recorders) {
    using Reader = std::function<bool(std::string_view)>;
    const std::map<std::string_view, Reader> readers = {
        {"source", [&](auto text) { return ParseSource(text, config); }},
        {"frequency", [&](auto text) { return ParseNumber(text, config.frequencyHz); }},
        {"level", [&](auto text) { return ParseNumber(text, config.levelDb); }},
        {"seed", [&](auto text) { return ParseNumber(text, config.seed); }},
        {"channels",
         [&](auto text) { return ParseNumber(text, config.channels) && config.channels > 0; }},
        {"speed", [&](auto text) { return ParseNumber(text, config.speed); }},
        {"recorders",
         [&](auto text) {
             return ParseNumber(text, recorders) && recorders > 0 && recorders <= kMaximumRecorders;
         }},
        {"manual", [&](auto text) { return ParseFlag(text, config.manual); }},
        {"loop", [&](auto text) { return ParseFlag(text, config.loop); }},
        {"dsd", [&](auto text) { return ParseFlag(text, config.dsd); }},
        {"bits",
         [&](auto text) {
             config.pcmBits.resize(1);
             return ParseNumber(text, config.pcmBits[0]);
         }},
        {"unplug", [&](auto text) { return ParseNumber(text, config.unplugAfterBuffers); }},
    };
    const auto reader = readers.find(key);
    return reader != readers.end() && reader->second(value);
}

/// Takes the file's channels, unless others are wanted.
bool CompleteChannels(SimulatedRecorderConfig& config, std::uint32_t channels,
                      std::string& problem) {
    if (config.channels == 0) {
        config.channels = channels;
    }
    if (config.channels != channels) {
        problem = config.filePath + ": has " + std::to_string(channels) + " channels, not " +
                  std::to_string(config.channels);
    }
    return config.channels == channels;
}

/// Leaves the file's rate of those in `offeredHz`.
bool CompleteRate(const SimulatedRecorderConfig& config, double rateHz,
                  std::vector<double>& offeredHz, std::string& problem) {
    const bool offered = std::find(offeredHz.begin(), offeredHz.end(), rateHz) != offeredHz.end();
    if (!offered) {
        problem = config.filePath + ": its rate, " +
                  std::to_string(static_cast<std::uint64_t>(rateHz)) +
                  " Hz, is none of the recorder's";
    }
    // Its samples arrive bit for bit, so they are not resampled.
    offeredHz = {rateHz};
    return offered;
}

/// Takes from the file what it decides: the channels, the mode, and the one rate.
bool CompleteFromFile(SimulatedRecorderConfig& config, std::string& problem) {
    if (IsDsfPath(config.filePath)) {
        DsfFacts facts;
        if (!InspectDsfFile(config.filePath, facts, problem)) {
            return false;
        }
        if (!config.dsd) {
            problem = config.filePath + ": its samples need the DSD mode";
            return false;
        }
        config.pcmRatesHz.clear();
        return CompleteChannels(config, facts.channels, problem) &&
               CompleteRate(config, facts.rateHz, config.dsdRatesHz, problem);
    }
    AudioFileFacts facts;
    if (!InspectAudioFile(config.filePath, facts, problem)) {
        return false;
    }
    config.dsd = false;
    return CompleteChannels(config, facts.channels, problem) &&
           CompleteRate(config, facts.rateHz, config.pcmRatesHz, problem);
}

}  // namespace

bool CompleteConfig(SimulatedRecorderConfig& config, std::string& problem) {
    const auto refuse = [&problem](const char* reason) {
        problem = reason;
        return false;
    };
    if (config.source == SimulatedSource::File && !CompleteFromFile(config, problem)) {
        return false;
    }
    if (config.channels == 0) {
        config.channels = kDefaultChannels;
    }
    if (config.channels > kMaximumChannels) {
        return refuse("channels: 1 to 8");
    }
    if (!(config.speed >= kMinimumSpeed && config.speed <= kMaximumSpeed)) {
        return refuse("speed: 0.01 to 1000000");
    }
    if (!(config.levelDb >= kMinimumLevelDb && config.levelDb <= 0.0)) {
        return refuse("level: -200 to 0 dB");
    }
    if (!(config.frequencyHz > 0.0 && config.frequencyHz < kFrequencyLimitHz)) {
        return refuse("frequency: above 0 and below 22050 Hz");
    }
    if (!std::all_of(config.pcmBits.begin(), config.pcmBits.end(),
                     [](std::uint32_t bits) { return bits == 16 || bits == 24 || bits == 32; })) {
        return refuse("bits: 16, 24 or 32");
    }
    if (!config.bufferChannels.empty() &&
        std::accumulate(config.bufferChannels.begin(), config.bufferChannels.end(), 0U) !=
            config.channels) {
        return refuse("the buffers' channels do not add up to the recorder's");
    }
    if (config.bufferFramesMinimum == 0 || config.bufferFramesStep == 0 ||
        config.bufferFrames < config.bufferFramesMinimum ||
        config.bufferFrames > config.bufferFramesMaximum) {
        return refuse("the buffer size does not lie in its range");
    }
    return true;
}

bool ParseSimulatedConfiguration(const char* text, std::vector<SimulatedRecorderConfig>& configs,
                                 std::string& problem) {
    configs.clear();
    std::string_view rest = text == nullptr || *text == '\0' ? kDefaultText : text;
    SimulatedRecorderConfig config;
    std::uint32_t recorders = 1;
    std::set<std::string_view> seen;
    for (bool more = true; more;) {
        const std::size_t comma = rest.find(',');
        more = comma != std::string_view::npos;
        const std::string_view pair = rest.substr(0, comma);
        rest.remove_prefix(more ? comma + 1 : rest.size());
        const std::size_t equals = pair.find('=');
        if (equals == std::string_view::npos) {
            problem = "\"" + std::string(pair) + "\": not of the form key=value";
            return false;
        }
        if (!seen.insert(pair.substr(0, equals)).second) {
            problem = "\"" + std::string(pair) + "\": the key stands there twice";
            return false;
        }
        if (!ParsePair(pair.substr(0, equals), pair.substr(equals + 1), config, recorders)) {
            problem = "\"" + std::string(pair) + "\": unknown key or bad value";
            return false;
        }
    }
    if (!CompleteConfig(config, problem)) {
        return false;
    }
    configs.assign(recorders, config);
    return true;
}

}  // namespace vorrel
