#pragma once

#include "Options.h"
#include "Reporter.h"

namespace vorrel::cli {

/// `vorrel salvage`: lists the takes that killed programs have left, saves one, or deletes it.
/// @return The exit code.
/// @throws Failure: usage (no such take, the file's name), storage.
int RunSalvage(const Options& options, Reporter& reporter);

}  // namespace vorrel::cli
