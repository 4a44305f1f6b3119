#pragma once

#include <string>

#include "doctor/Finding.h"

namespace vorrel::cli {

/// Looks at the place for temporary data: room, speed, and what killed runs have left. Writes a
/// nameless file there for a second at most.
/// @param directory  As `TemporaryBase` gave it.
Findings CheckStorage(const std::string& directory);

/// What a place that takes so many bytes a second is good for: four times what stereo makes,
/// samples and preview, at 384 kHz is good, at 96 kHz a note, less a problem.
Finding JudgeSpeed(double bytesPerSecond);

}  // namespace vorrel::cli
