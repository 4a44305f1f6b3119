#pragma once

#include <functional>
#include <memory>

#include "device/backend/AudioBackend.h"
#include "device/backend/RegistryBackend.h"

namespace vorrel {

/// The two halves of a platform's device layer. Both null: there are no devices.
struct DeviceBackends {
    std::shared_ptr<AudioBackend> audio;
    std::shared_ptr<RegistryBackend> registry;
};

/// Makes or finds the back ends; called once, at the first device call.
using BackendProvider = std::function<DeviceBackends()>;

}  // namespace vorrel
