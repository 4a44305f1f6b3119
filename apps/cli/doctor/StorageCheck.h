#pragma once

#include <string>

#include "doctor/Finding.h"

namespace vorrel::cli {

/// Looks at the place for temporary data: room, speed, and what killed runs have left. Writes a
/// nameless file there for a second at most.
/// @param directory  As `TemporaryBase` gave it.
Findings CheckStorage(const std::string& directory);

}  // namespace vorrel::cli
