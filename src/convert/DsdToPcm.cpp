#include "convert/DsdToPcm.h"

#include "convert/InstructionSet.h"
#include "convert/NearestRounding.h"

namespace vorrel {

template <bool msbFirst>
void DSD_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                     DsdToPcmWorkBuffer* work) {
    const NearestRounding nearest;
    const PcmKernels& kernels = ActiveKernels();
    (msbFirst ? kernels.decimateMsbFirst : kernels.decimateLsbFirst)(destination, source, count,
                                                                     work);
}

template void DSD_To_Int16LSB<true>(std::uint8_t*, const std::uint8_t*, std::size_t,
                                    DsdToPcmWorkBuffer*);
template void DSD_To_Int16LSB<false>(std::uint8_t*, const std::uint8_t*, std::size_t,
                                     DsdToPcmWorkBuffer*);

}  // namespace vorrel
