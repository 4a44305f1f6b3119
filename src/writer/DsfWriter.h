#pragma once

#include "vorrel/VrError.h"
#include "writer/SaveRun.h"
#include "writer/VrSaveSettingInternal.h"

namespace vorrel {

/// Writes one range of a DSD recording as a DSF file. Not there yet: every call gives
/// `VrErrorNotSupported` and leaves no file, so that a save of a DSD recording ends as a failed
/// one. Save thread.
VrError SaveDsfFile(const VrSaveSettingInternal* setting, SaveRun& run);

}  // namespace vorrel
