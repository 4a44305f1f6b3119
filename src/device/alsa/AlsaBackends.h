#pragma once

#include "device/backend/DeviceBackends.h"

namespace vorrel {

/// The device layer over this system's sound cards and their USB side. While it lives a thread
/// ("CardMonitor") follows cards that come and go.
DeviceBackends MakeAlsaBackends();

}  // namespace vorrel
