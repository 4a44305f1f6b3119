#include "writer/DsfWriter.h"

namespace vorrel {

VrError SaveDsfFile(const VrSaveSettingInternal* setting, SaveRun& run) {
    run.BeginFile();
    if (setting == nullptr) {
        return VrErrorInvalidParameter;
    }
    return VrErrorNotSupported;  // DSF writing is missing; no file is better than a wrong one
}

}  // namespace vorrel
