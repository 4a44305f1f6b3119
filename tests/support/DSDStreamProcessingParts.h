#pragma once

#include "convert/InstructionSet.h"
#include "pipeline/DSDStreamProcessing.h"

namespace vorrel {

/// What tests see of a gain processor's inside, and the kernels that they force.
struct DSDStreamProcessingParts {
    static float GainOf(const DSDStreamProcessing& processing) { return processing.gain; }
    static void Force(DSDStreamProcessing& processing, InstructionSet set) {
        processing.kernels = &DsdGainKernelsFor(set);
    }
};

}  // namespace vorrel
