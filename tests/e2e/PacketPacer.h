#pragma once

#include <cstdint>

namespace vorrel::e2e {

/// Packets that a high-speed bus carries in a second, one a microframe of 125 us.
inline constexpr std::uint32_t kPacketsPerSecond = 8'000;

/// How many frames each isochronous packet carries. Fractions are carried over, so that the
/// frames of every second of packets are exactly the rate.
class PacketPacer {
public:
    explicit PacketPacer(std::uint32_t streamRateHz) : rateHz(streamRateHz) {}

    std::uint32_t Next() {
        carried += rateHz;
        const std::uint32_t frames = carried / kPacketsPerSecond;
        carried %= kPacketsPerSecond;
        return frames;
    }

    /// The largest packet of a rate.
    static constexpr std::uint32_t MostFrames(std::uint32_t rateHz) {
        return (rateHz + kPacketsPerSecond - 1) / kPacketsPerSecond;
    }

private:
    std::uint32_t rateHz;
    std::uint32_t carried = 0;  // in frames per second, below `kPacketsPerSecond`
};

}  // namespace vorrel::e2e
