#include "convert/PcmConverters.h"

#include <algorithm>
#include <cstring>

#include "convert/InstructionSet.h"
#include "convert/NearestRounding.h"

namespace vorrel {
namespace {

using Kernel = void (*)(std::uint8_t*, const std::uint8_t*, std::size_t);

/// Runs `kernel` over the source; a big-endian source goes piece by piece through a turned copy.
template <bool swap, std::size_t targetBytes>
void Run(Kernel kernel, std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    const NearestRounding nearest;
    if constexpr (!swap) {
        kernel(destination, source, count);
    } else {
        constexpr std::size_t kPieceSamples = 512;
        std::uint32_t turned[kPieceSamples];
        while (count != 0) {
            const std::size_t piece = std::min(count, kPieceSamples);
            std::memcpy(turned, source, piece * sizeof(std::uint32_t));
            for (std::size_t i = 0; i < piece; ++i) {
                turned[i] = __builtin_bswap32(turned[i]);
            }
            kernel(destination, reinterpret_cast<const std::uint8_t*>(turned), piece);
            destination += piece * targetBytes;
            source += piece * sizeof(std::uint32_t);
            count -= piece;
        }
    }
}

}  // namespace

template <bool swap>
void Float32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    Run<swap, 2>(ActiveKernels().toInt16, destination, source, count);
}

template <bool swap>
void Float32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                         DsdToPcmWorkBuffer*) {
    Float32_To_Int16LSB<swap>(destination, source, count);
}

template <bool swap>
void Float32_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    Run<swap, 3>(ActiveKernels().toInt24, destination, source, count);
}

template <bool swap>
void Float32_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    Run<swap, 4>(ActiveKernels().toInt32, destination, source, count);
}

template <bool swap>
void Float32_To_Float32LSB([[maybe_unused]] std::uint8_t* destination,
                           [[maybe_unused]] const std::uint8_t* source,
                           [[maybe_unused]] std::size_t count) {
    if constexpr (!swap) {
        if (count != 0) {
            std::memcpy(destination, source, count * sizeof(float));
        }
    }
}

template void Float32_To_Int16LSB<false>(std::uint8_t*, const std::uint8_t*, std::size_t);
template void Float32_To_Int16LSB<true>(std::uint8_t*, const std::uint8_t*, std::size_t);
template void Float32_To_Int16LSB<false>(std::uint8_t*, const std::uint8_t*, std::size_t,
                                         DsdToPcmWorkBuffer*);
template void Float32_To_Int16LSB<true>(std::uint8_t*, const std::uint8_t*, std::size_t,
                                        DsdToPcmWorkBuffer*);
template void Float32_To_Int24LSB<false>(std::uint8_t*, const std::uint8_t*, std::size_t);
template void Float32_To_Int24LSB<true>(std::uint8_t*, const std::uint8_t*, std::size_t);
template void Float32_To_Int32LSB<false>(std::uint8_t*, const std::uint8_t*, std::size_t);
template void Float32_To_Int32LSB<true>(std::uint8_t*, const std::uint8_t*, std::size_t);
template void Float32_To_Float32LSB<false>(std::uint8_t*, const std::uint8_t*, std::size_t);
template void Float32_To_Float32LSB<true>(std::uint8_t*, const std::uint8_t*, std::size_t);

}  // namespace vorrel
