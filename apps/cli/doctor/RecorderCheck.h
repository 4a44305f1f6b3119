#pragma once

#include "doctor/Finding.h"
#include "doctor/SystemTexts.h"

namespace vorrel::cli {

/// The model that the engine records from.
struct SupportedModel {
    unsigned vendorId;
    unsigned productId;
    std::string name;
};

/// This build's.
SupportedModel BuiltForModel();

/// Looks for recorders among the USB devices and on the way from there to the engine: the kernel's
/// driver, the permissions, who holds them. Opens nothing.
Findings CheckRecorders(const SystemTexts& system, const SupportedModel& model);

/// Whether a desktop's sound server runs, which may hold the recorder.
/// @param runtimeDirectory  $XDG_RUNTIME_DIR; "" = there is none.
Findings CheckSoundServers(const SystemTexts& system, const std::string& runtimeDirectory);

}  // namespace vorrel::cli
