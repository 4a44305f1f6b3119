#include "Pattern.h"

namespace vorrel::e2e {
namespace {

/// Odd, so that every bit of the second channel changes from frame to frame, not only with the
/// upper half of the number.
constexpr std::uint32_t kSpread = 40'503;

/// The idle pattern of one-bit audio.
constexpr std::uint32_t kDsdSalt = 0x6969;

}  // namespace

Pattern::Pattern(StreamMode mode, unsigned sampleBits)
    : bits(sampleBits),
      mask((std::uint32_t{1} << sampleBits) - 1),
      salt(mode == StreamMode::Dsd ? kDsdSalt : 0) {}

Frame Pattern::At(std::uint64_t number) const {
    const auto low = static_cast<std::uint32_t>(number) & mask;
    const auto high = static_cast<std::uint32_t>(number >> bits) & mask;
    return {low ^ salt, ((high + low * kSpread) & mask) ^ salt};
}

std::uint64_t Pattern::NumberOf(const Frame& frame) const {
    const std::uint32_t low = (frame[0] ^ salt) & mask;
    const std::uint32_t high = ((frame[1] ^ salt) - low * kSpread) & mask;
    return (std::uint64_t{high} << bits) | low;
}

}  // namespace vorrel::e2e
