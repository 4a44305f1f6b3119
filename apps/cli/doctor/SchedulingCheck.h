#pragma once

#include <cstdint>
#include <optional>

#include "doctor/Finding.h"
#include "doctor/SystemTexts.h"

namespace vorrel::cli {

/// What this process may do.
struct ProcessLimits {
    bool realTime = false;                     ///< Real-time scheduling, tried out.
    std::optional<std::uint64_t> lockedBytes;  ///< Of memory; none = without limit.
};

ProcessLimits TryProcessLimits();

/// Whether the capture thread can have the priority that it asks for.
Findings CheckScheduling(const SystemTexts& system, const ProcessLimits& limits);

}  // namespace vorrel::cli
