#include "convert/PcmConverters.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "convert/InstructionSet.h"
#include "convert/NearestRounding.h"

namespace vorrel {
namespace {

using Kernel = void (*)(std::uint8_t*, const std::uint8_t*, std::size_t);

/// Runs `kernel` over floats; a big-endian source goes piece by piece through a turned copy.
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

/// A sample of `bytes` bytes as it stands in memory, sign-extended.
template <std::size_t bytes, bool swap>
std::int32_t LoadInteger(const std::uint8_t* source) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) {
        const std::size_t place = swap ? bytes - 1 - i : i;
        value |= std::uint32_t{source[place]} << (8 * i);
    }
    constexpr unsigned kAbove = 32 - 8 * bytes;
    return static_cast<std::int32_t>(value << kAbove) >> kAbove;
}

template <bool swap>
double LoadDouble(const std::uint8_t* source) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, source, sizeof bits);
    if constexpr (swap) {
        bits = __builtin_bswap64(bits);
    }
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

/// Makes each target sample from the low `targetBytes` of what `rule` gives for a source sample.
template <std::size_t sourceBytes, bool swap, std::size_t targetBytes, class Rule>
void FromIntegers(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                  Rule rule) {
    for (std::size_t i = 0; i < count; ++i) {
        const auto result = rule(LoadInteger<sourceBytes, swap>(source + i * sourceBytes));
        static_assert(targetBytes <= sizeof result);
        std::memcpy(destination + i * targetBytes, &result, targetBytes);
    }
}

template <bool swap, std::size_t targetBytes, class Rule>
void FromDoubles(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                 Rule rule) {
    const NearestRounding nearest;
    for (std::size_t i = 0; i < count; ++i) {
        const std::int32_t result = rule(LoadDouble<swap>(source + i * sizeof(double)));
        std::memcpy(destination + i * targetBytes, &result, targetBytes);
    }
}

/// Bits that are shifted out are lost.
constexpr std::int32_t ShiftLeft(std::int32_t value, unsigned places) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(value) << places);
}

std::int32_t RoundTo(double value, double smallest, double largest) {
    return std::isnan(value)
               ? 0
               : static_cast<std::int32_t>(std::nearbyint(std::clamp(value, smallest, largest)));
}

}  // namespace

template <bool swap>
void Int16_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<2, swap, 2>(destination, source, count, [](std::int32_t value) { return value; });
}

template <bool swap>
void Int16_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                       DsdToPcmWorkBuffer*) {
    Int16_To_Int16LSB<swap>(destination, source, count);
}

template <bool swap>
void Int24_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<3, swap, 2>(destination, source, count,
                             [](std::int32_t value) { return value >> 8; });
}

template <bool swap>
void Int24_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                       DsdToPcmWorkBuffer*) {
    Int24_To_Int16LSB<swap>(destination, source, count);
}

template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    constexpr std::size_t kBlock = 8;
    const std::size_t inBlocks = count - count % kBlock;
    FromIntegers<4, swap, 2>(destination, source, inBlocks, [](std::int32_t value) {
        return std::clamp(value >> (bits - 16), -32768, 32767);
    });
    FromIntegers<4, swap, 2>(destination + inBlocks * 2, source + inBlocks * 4, count - inBlocks,
                             [](std::int32_t value) { return value >> (bits - 16); });
}

template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                       DsdToPcmWorkBuffer*) {
    Int32_To_Int16LSB<swap, bits>(destination, source, count);
}

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
void Float64_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromDoubles<swap, 2>(destination, source, count,
                         [](double value) { return RoundTo(value * 32768.0, -32768.0, 32767.0); });
}

template <bool swap>
void Float64_To_Int16LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count,
                         DsdToPcmWorkBuffer*) {
    Float64_To_Int16LSB<swap>(destination, source, count);
}

template <bool swap>
void Int16_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<2, swap, 3>(destination, source, count,
                             [](std::int32_t value) { return ShiftLeft(value, 8); });
}

template <bool swap>
void Int24_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<3, swap, 3>(destination, source, count, [](std::int32_t value) { return value; });
}

template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<4, swap, 3>(destination, source, count, [](std::int32_t value) {
        if constexpr (bits > 24) {
            return value >> (bits - 24);
        } else {
            return ShiftLeft(value, 24 - bits);
        }
    });
}

template <bool swap>
void Float32_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    Run<swap, 3>(ActiveKernels().toInt24, destination, source, count);
}

template <bool swap>
void Float64_To_Int24LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromDoubles<swap, 3>(destination, source, count, [](double value) {
        return RoundTo(std::trunc(value * 8388608.0), -8388608.0, 8388607.0);
    });
}

template <bool swap>
void Int16_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<2, swap, 4>(destination, source, count,
                             [](std::int32_t value) { return ShiftLeft(value, 16); });
}

template <bool swap>
void Int24_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<3, swap, 4>(destination, source, count,
                             [](std::int32_t value) { return ShiftLeft(value, 8); });
}

template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<4, swap, 4>(destination, source, count,
                             [](std::int32_t value) { return ShiftLeft(value, 32 - bits); });
}

template <bool swap>
void Float32_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    Run<swap, 4>(ActiveKernels().toInt32, destination, source, count);
}

template <bool swap>
void Float64_To_Int32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromDoubles<swap, 4>(destination, source, count, [](double value) {
        return RoundTo(value * 2147483648.0, -2147483648.0, 2147483647.0);
    });
}

template <bool swap>
void Int16_To_Float32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<2, swap, 4>(destination, source, count, [](std::int32_t value) {
        return static_cast<float>(value) * (1.0F / 32768.0F);
    });
}

template <bool swap>
void Int24_To_Float32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    FromIntegers<3, swap, 4>(destination, source, count, [](std::int32_t value) {
        return static_cast<float>(value) * (1.0F / 8388608.0F);
    });
}

template <bool swap, unsigned bits>
requires SignificantBits<bits>
void Int32_To_Float32LSB(std::uint8_t* destination, const std::uint8_t* source, std::size_t count) {
    const NearestRounding nearest;
    FromIntegers<4, swap, 4>(destination, source, count, [](std::int32_t value) {
        return static_cast<float>(value) * (1.0F / 2147483648.0F);
    });
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

template <bool swap>
void Float64_To_Float32LSB(std::uint8_t*, const std::uint8_t*, std::size_t) {}

// The members, as the linker finds them.
// NOLINTBEGIN(bugprone-macro-parentheses): a template's name takes none
#define VORREL_MEMBER(...) \
    template void __VA_ARGS__(std::uint8_t*, const std::uint8_t*, std::size_t)
#define VORREL_TWIN(...) \
    template void __VA_ARGS__(std::uint8_t*, const std::uint8_t*, std::size_t, DsdToPcmWorkBuffer*)
#define VORREL_BOTH_ORDERS(kind, name) \
    kind(name<false>);                 \
    kind(name<true>)
#define VORREL_ALL_BITS(kind, name) \
    kind(name<false, 16>);          \
    kind(name<false, 18>);          \
    kind(name<false, 20>);          \
    kind(name<false, 24>);          \
    kind(name<false, 32>);          \
    kind(name<true, 16>);           \
    kind(name<true, 18>);           \
    kind(name<true, 20>);           \
    kind(name<true, 24>);           \
    kind(name<true, 32>)
// NOLINTEND(bugprone-macro-parentheses)

VORREL_BOTH_ORDERS(VORREL_MEMBER, Int16_To_Int16LSB);
VORREL_BOTH_ORDERS(VORREL_TWIN, Int16_To_Int16LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Int24_To_Int16LSB);
VORREL_BOTH_ORDERS(VORREL_TWIN, Int24_To_Int16LSB);
VORREL_ALL_BITS(VORREL_MEMBER, Int32_To_Int16LSB);
VORREL_ALL_BITS(VORREL_TWIN, Int32_To_Int16LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Float32_To_Int16LSB);
VORREL_BOTH_ORDERS(VORREL_TWIN, Float32_To_Int16LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Float64_To_Int16LSB);
VORREL_BOTH_ORDERS(VORREL_TWIN, Float64_To_Int16LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Int16_To_Int24LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Int24_To_Int24LSB);
VORREL_ALL_BITS(VORREL_MEMBER, Int32_To_Int24LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Float32_To_Int24LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Float64_To_Int24LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Int16_To_Int32LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Int24_To_Int32LSB);
VORREL_ALL_BITS(VORREL_MEMBER, Int32_To_Int32LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Float32_To_Int32LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Float64_To_Int32LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Int16_To_Float32LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Int24_To_Float32LSB);
VORREL_ALL_BITS(VORREL_MEMBER, Int32_To_Float32LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Float32_To_Float32LSB);
VORREL_BOTH_ORDERS(VORREL_MEMBER, Float64_To_Float32LSB);

}  // namespace vorrel
