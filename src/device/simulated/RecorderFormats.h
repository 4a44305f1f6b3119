#pragma once

#include <vector>

#include "device/backend/CoreAudioTypes.h"
#include "device/simulated/SimulatedRecorderConfig.h"

namespace vorrel {

/// The physical formats that a recorder offers, of both modes in one list because it is read only
/// once: at each PCM rate the widest first, 24 bits in 4 bytes before 24 bits in 3; then, for the
/// DSD mode, 16-bit words at a sixteenth of each DSD rate, as far as PCM has not listed them yet.
std::vector<AudioStreamRangedDescription> MakeFormats(const SimulatedRecorderConfig& config);

/// Whether `format` is one of `formats` and one that the mode carries: in DSD mode only 16-bit
/// words at 176400, 352800 and 705600, in PCM mode all that is not there for the DSD mode alone.
bool IsFormatOfMode(const SimulatedRecorderConfig& config,
                    const std::vector<AudioStreamRangedDescription>& formats,
                    const AudioStreamBasicDescription& format, bool dsd);

}  // namespace vorrel
