#pragma once

#include <cstdint>
#include <limits>

namespace vorrel {

/// `value` times `factor`; a product past 2^64 - 1 counts as 2^64 - 1, so that a position from the
/// host lies beyond every stream instead of wrapping into one.
constexpr std::uint64_t SaturatingProduct(std::uint64_t value, std::uint64_t factor) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
    return factor != 0 && value > kLargest / factor ? kLargest : value * factor;
}

}  // namespace vorrel
