#pragma once

#include <cstdint>
#include <vector>

#include "convert/DsdGainKernels.h"
#include "convert/PcmKernels.h"
#include "platform/Realtime.h"

namespace vorrel {

/// What a set of kernels is compiled for.
enum class InstructionSet : std::uint8_t {
    kBaseline,  ///< What every machine of the architecture has (SSE2 on x86-64).
    kAvx2,
    kAvx512,  ///< Foundation, byte and word, doubleword and quadword, vector length.
};

/// The sets that this machine can run, narrowest first; `kBaseline` is always among them.
std::vector<InstructionSet> SupportedInstructionSets();

/// The kernels of `set`, which must be supported. For tests and benchmarks.
const PcmKernels& KernelsFor(InstructionSet set);

/// The kernels of the widest supported set. The same for the life of the process; any thread.
VORREL_REALTIME const PcmKernels& ActiveKernels() noexcept;

/// The same for the kernels of the DSD gain.
const DsdGainKernels& DsdGainKernelsFor(InstructionSet set);
const DsdGainKernels& ActiveDsdGainKernels() noexcept;

}  // namespace vorrel
