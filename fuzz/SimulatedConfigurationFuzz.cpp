// A description of simulated recorders is either understood whole, within the limits that its text
// form states, or refused with a reason.
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "Require.h"
#include "device/simulated/SimulatedRecorderConfig.h"

namespace {

using vorrel::fuzz::Require;

void RequireSound(const vorrel::SimulatedRecorderConfig& config, const std::string& text) {
    Require(config.channels >= 1 && config.channels <= 8);
    Require(config.speed >= 0.01 && config.speed <= 1e6);
    Require(config.levelDb >= -200.0 && config.levelDb <= 0.0);
    Require(config.frequencyHz > 0.0 && config.frequencyHz < 22'050.0);
    Require(!config.pcmRatesHz.empty() || !config.dsdRatesHz.empty());
    for (const std::uint32_t bits : config.pcmBits) {
        Require(bits == 16 || bits == 24 || bits == 32);
    }
    // What is not named keeps its default.
    Require(text.find("seed=") != std::string::npos || config.seed == 1);
    Require(text.find("unplug=") != std::string::npos || config.unplugAfterBuffers == 0);
    Require(text.find("manual=1") != std::string::npos || !config.manual);
    Require(text.find("dsd=0") != std::string::npos || config.dsd);
    Require(text.empty() || text.find("level=") != std::string::npos || config.levelDb == -6.0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.find("file:") != std::string::npos) {
        return 0;  // would open what the fuzzer names; AudioFileFuzz has what is in files
    }
    std::vector<vorrel::SimulatedRecorderConfig> configs;
    std::string problem;
    const bool understood = vorrel::ParseSimulatedConfiguration(text.c_str(), configs, problem);
    Require(understood ? !configs.empty() && configs.size() <= 16
                       : configs.empty() && !problem.empty());
    for (const vorrel::SimulatedRecorderConfig& config : configs) {
        // NOLINTNEXTLINE(readability-redundant-string-cstr): it is read up to its first zero
        RequireSound(config, text.c_str());
    }
    return 0;
}
