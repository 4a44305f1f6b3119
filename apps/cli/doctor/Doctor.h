#pragma once

#include "Options.h"
#include "Reporter.h"
#include "doctor/Finding.h"

namespace vorrel::cli {

/// Looks at everything that a recording needs and tells what is found.
/// @return `ExitCode::Device` or `Storage` where there is a problem (the device's first), else
///         `Done`.
/// @throws Failure (usage): --temp-dir names no directory.
int RunDoctor(const Options& options, Reporter& reporter);

}  // namespace vorrel::cli
