#include "device/BackendTable.h"

#include <array>
#include <cstdlib>
#include <string_view>

#ifdef VORREL_ALSA
#include "device/alsa/AlsaBackends.h"
#endif
#include "device/simulated/SimulatedBackends.h"
#include "platform/Trace.h"

namespace vorrel {
namespace {

struct BackendEntry {
    std::string_view name;
    DeviceBackends (*make)();
};

/// Read once in a process, at the first device call; a host that changes its environment from
/// another thread at that moment breaks every library's reading of it.
const char* Environment(const char* name) {
    return std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
}

/// The first is the default.
constexpr std::array kBackendTable = {
#ifdef VORREL_ALSA
    BackendEntry{"alsa", &MakeAlsaBackends},
#endif
    BackendEntry{"simulated",
                 [] { return MakeSimulatedBackends(Environment("VORREL_SIMULATED")); }},
};

}  // namespace

DeviceBackends SelectBackends() {
    static const DeviceBackends selected = [] {
        const char* name = Environment("VORREL_BACKEND");
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
