#include "device/simulated/SimulatedBackends.h"

#include <algorithm>
#include <array>
#include <string>

#include "platform/Trace.h"

namespace vorrel {
namespace {

/// Rates of the recorder that the device list keeps from hosts of the supported model.
constexpr std::array kRatesNotOfferedHz = {88'200.0, 176'400.0, 352'800.0};

/// A file has one rate. When that is kept from hosts, they find no rate at all, which would look
/// like a broken recorder.
void TraceUnusableRate(const SimulatedRecorderConfig& config, std::uint32_t number) {
    const bool supported = config.name == kSupportedDeviceName &&
                           config.vendorId == kSupportedVendorId &&
                           config.productId == kSupportedProductId;
    // Over a DSF file no PCM rate is expected.
    if (config.source == SimulatedSource::File && supported && !config.pcmRatesHz.empty() &&
        std::find(kRatesNotOfferedHz.begin(), kRatesNotOfferedHz.end(), config.pcmRatesHz[0]) !=
            kRatesNotOfferedHz.end()) {
        Trace(__FILE__, __LINE__,
              "simulated recorder %u: %s: no host can record it, because %.0f Hz is not offered of "
              "this model",
              number, config.filePath.c_str(), config.pcmRatesHz[0]);
    }
}

}  // namespace

SimulatedBackends::SimulatedBackends(const std::vector<SimulatedRecorderConfig>& configs)
    : hook(std::make_shared<CallHook>()), listeners(std::make_shared<PropertyListeners>()) {
    const auto ids = std::make_shared<ObjectIds>();
    std::uint32_t number = 0;
    for (SimulatedRecorderConfig config : configs) {
        ++number;
        if (std::string problem; CompleteConfig(config, problem)) {
            recorders.push_back(
                std::make_shared<SimulatedRecorder>(config, number, ids, listeners));
            TraceUnusableRate(config, number);
        } else {
            Trace(__FILE__, __LINE__, "simulated recorder %u: %s", number, problem.c_str());
        }
    }
    audio = std::make_shared<SimulatedAudioBackend>(recorders, listeners, hook);
    registry = std::make_shared<SimulatedRegistry>(recorders, hook);
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
