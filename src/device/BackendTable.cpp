#include "device/BackendTable.h"

#include <array>
#include <cstdlib>
#include <string_view>

#include "device/simulated/SimulatedBackends.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

struct BackendEntry {
    std::string_view name;
    DeviceBackends (*make)();
};

/// The first is the default.
constexpr std::array kBackendTable = {
    BackendEntry{"simulated",
                 [] { return MakeSimulatedBackends(std::getenv("VORREL_SIMULATED")); }},
};

}  // namespace

DeviceBackends SelectBackends() {
    static const DeviceBackends selected = [] {
        const char* name = std::getenv("VORREL_BACKEND");
        return name == nullptr || *name == '\0' ? kBackendTable.front().make() : MakeBackends(name);
    }();
    return selected;
}

DeviceBackends MakeBackends(const char* name) {
    for (const BackendEntry& entry : kBackendTable) {
        if (name != nullptr && entry.name == name) {
            return entry.make();
        }
    }
    Trace(__FILE__, __LINE__, "no device back end is called \"%s\"", name == nullptr ? "" : name);
    return {};
}

}  // namespace vorrel
