#include "device/simulated/SimulatedBackends.h"

#include <string>

#include "platform/Trace.h"

namespace vorrel {

SimulatedBackends::SimulatedBackends(const std::vector<SimulatedRecorderConfig>& configs)
    : listeners(std::make_shared<PropertyListeners>()) {
    const auto ids = std::make_shared<ObjectIds>();
    std::uint32_t number = 0;
    for (SimulatedRecorderConfig config : configs) {
        ++number;
        if (std::string problem; CompleteConfig(config, problem)) {
            recorders.push_back(
                std::make_shared<SimulatedRecorder>(config, number, ids, listeners));
        } else {
            Trace(__FILE__, __LINE__, "simulated recorder %u: %s", number, problem.c_str());
        }
    }
    audio = std::make_shared<SimulatedAudioBackend>(recorders, listeners);
    registry = std::make_shared<SimulatedRegistry>(recorders);
}

DeviceBackends MakeSimulatedBackends(const char* configuration) {
    std::vector<SimulatedRecorderConfig> configs;
    std::string problem;
    if (!ParseSimulatedConfiguration(configuration, configs, problem)) {
        Trace(__FILE__, __LINE__, "simulated recorder: %s", problem.c_str());
        return {};
    }
    return SimulatedBackends(configs).Backends();
}

}  // namespace vorrel
