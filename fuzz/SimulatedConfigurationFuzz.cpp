// A description of simulated recorders is either understood whole or refused with a reason.
#include <cstdint>
#include <string>
#include <vector>

#include "Require.h"
#include "device/simulated/SimulatedRecorderConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.find("file:") != std::string::npos) {
        return 0;  // would open what the fuzzer names
    }
    std::vector<vorrel::SimulatedRecorderConfig> configs;
    std::string problem;
    const bool understood = vorrel::ParseSimulatedConfiguration(text.c_str(), configs, problem);
    vorrel::fuzz::Require(understood ? !configs.empty() : configs.empty() && !problem.empty());
    return 0;
}
