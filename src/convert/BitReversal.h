#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vorrel {

/// Every byte with its bits in reverse order.
inline constexpr std::array<std::uint8_t, 256> m_br = [] {
    std::array<std::uint8_t, 256> table{};
    for (unsigned value = 0; value < 256; ++value) {
        unsigned reversed = 0;
        for (unsigned bit = 0; bit < 8; ++bit) {
            reversed |= ((value >> bit) & 1U) << (7 - bit);
        }
        table[value] = static_cast<std::uint8_t>(reversed);
    }
    return table;
}();
static_assert(m_br[0x01] == 0x80 && m_br[0xF0] == 0x0F);

/// Replaces every one of `length` bytes by `m_br` of it. Any thread; never fails.
void ReverseBits(std::uint8_t* bytes, std::size_t length) noexcept;

}  // namespace vorrel
