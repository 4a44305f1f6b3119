#pragma once

#include "device/backend/DeviceBackends.h"

namespace vorrel {

/// The back ends that this process uses: those that the environment variable `VORREL_BACKEND`
/// names, or the first of the table when it is unset or empty: "alsa" where that is built in, else
/// "simulated". An unknown name is traced and gives none. Decided once, at the first call.
DeviceBackends SelectBackends();

/// The back ends of that name, newly made; none for an unknown name.
DeviceBackends MakeBackends(const char* name);

}  // namespace vorrel
