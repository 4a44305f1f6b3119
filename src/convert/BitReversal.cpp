#include "convert/BitReversal.h"

#include "convert/InstructionSet.h"

namespace vorrel {

void ReverseBits(std::uint8_t* bytes, std::size_t length) noexcept {
    ActiveDsdGainKernels().reverseBits(bytes, length);
}

}  // namespace vorrel
