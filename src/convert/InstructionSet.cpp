#include "convert/InstructionSet.h"

#include <atomic>

namespace vorrel {
namespace {

#if defined(__x86_64__)
// These ask the processor and whether the system saves the wide registers.
bool HasAvx2() noexcept {
    return __builtin_cpu_supports("avx2") != 0;
}

bool HasAvx512() noexcept {
    return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
           __builtin_cpu_supports("avx512dq") != 0 && __builtin_cpu_supports("avx512vl") != 0;
}
#else
bool HasAvx2() noexcept {
    return false;
}
bool HasAvx512() noexcept {
    return false;
}
#endif

InstructionSet WidestSet() noexcept {
    if (HasAvx512()) {
        return InstructionSet::kAvx512;
    }
    return HasAvx2() ? InstructionSet::kAvx2 : InstructionSet::kBaseline;
}

#if defined(__x86_64__)
// Nearly every machine with AVX2 has it, but it is another question.
bool HasFusedMultiplyAdd() noexcept {
    return __builtin_cpu_supports("fma") != 0;
}
#endif

}  // namespace

std::vector<InstructionSet> SupportedInstructionSets() {
    std::vector<InstructionSet> sets{InstructionSet::kBaseline};
    if (HasAvx2()) {
        sets.push_back(InstructionSet::kAvx2);
    }
    if (HasAvx512()) {
        sets.push_back(InstructionSet::kAvx512);
    }
    return sets;
}

const PcmKernels& KernelsFor(InstructionSet set) {
#if defined(__x86_64__)
    switch (set) {
        case InstructionSet::kAvx512:
            return kAvx512Kernels;
        case InstructionSet::kAvx2:
            return kAvx2Kernels;
        case InstructionSet::kBaseline:
            break;
    }
#else
    static_cast<void>(set);
#endif
    return kBaselineKernels;
}

const PcmKernels& ActiveKernels() noexcept {
    // No function-local static: its first use takes a lock, and the first user may be the device's
    // thread. Two threads that choose at once choose the same.
    static constinit std::atomic<const PcmKernels*> chosen{nullptr};
    const PcmKernels* kernels = chosen.load(std::memory_order_relaxed);
    if (kernels == nullptr) {
        kernels = &KernelsFor(WidestSet());
        chosen.store(kernels, std::memory_order_relaxed);
    }
    return *kernels;
}

const DsdGainKernels& DsdGainKernelsFor(InstructionSet set) {
#if defined(__x86_64__)
    if (HasFusedMultiplyAdd()) {
        switch (set) {
            case InstructionSet::kAvx512:
                return kAvx512DsdGainKernels;
            case InstructionSet::kAvx2:
                return kAvx2DsdGainKernels;
            case InstructionSet::kBaseline:
                break;
        }
    }
#else
    static_cast<void>(set);
#endif
    return kBaselineDsdGainKernels;
}

const DsdGainKernels& ActiveDsdGainKernels() noexcept {
    static constinit std::atomic<const DsdGainKernels*> chosen{nullptr};
    const DsdGainKernels* kernels = chosen.load(std::memory_order_relaxed);
    if (kernels == nullptr) {
        kernels = &DsdGainKernelsFor(WidestSet());
        chosen.store(kernels, std::memory_order_relaxed);
    }
    return *kernels;
}

}  // namespace vorrel
