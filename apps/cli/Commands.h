#pragma once

#include "Options.h"
#include "Reporter.h"

namespace vorrel::cli {

/// Carries out a command. @return The exit code. @throws Failure.
int RunCommand(const Options& options, Reporter& reporter);

}  // namespace vorrel::cli
