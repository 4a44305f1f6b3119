#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "device/backend/SupportedDevice.h"

namespace vorrel::e2e {

/// One width that the recorder offers: an alternate setting of its streaming interface.
struct WireFormat {
    unsigned bits;   ///< significant, in the upper bits of the container
    unsigned bytes;  ///< of the container
};

/// The recorder as a bus sees it.
struct RecorderModel {
    std::uint16_t vendorId = static_cast<std::uint16_t>(kSupportedVendorId);
    std::uint16_t productId = static_cast<std::uint16_t>(kSupportedProductId);
    std::string product = kSupportedDeviceName;
    std::string serial = "E2E-1";
    /// Alternate settings 1, 2, ... in this order.
    std::vector<WireFormat> formats = {{16, 2}, {24, 3}, {32, 4}};
};

/// The rates of the recorder's clock. It has one list, whatever the mode; `RecorderControl`
/// refuses those that the mode lacks.
inline constexpr std::array<std::uint32_t, 9> kClockRatesHz = {
    44'100, 48'000, 88'200, 96'000, 176'400, 192'000, 352'800, 384'000, 705'600};

/// Of 16-bit words in DSD mode: a sixteenth of 2.8224, 5.6448 and 11.2896 MHz.
inline constexpr std::array<std::uint32_t, 3> kWordRatesHz = {176'400, 352'800, 705'600};

inline constexpr unsigned kDsdWordBits = 16;

/// Only DSD words go so fast.
inline constexpr std::uint32_t kDsdOnlyRateHz = kWordRatesHz.back();

inline constexpr std::uint8_t kControlInterface = 0;
inline constexpr std::uint8_t kStreamingInterface = 1;
inline constexpr std::uint8_t kCaptureEndpoint = 1;  ///< number; its address has bit 7 set: IN
inline constexpr std::uint8_t kClockEntity = 1;
inline constexpr std::uint8_t kInputTerminal = 2;
inline constexpr std::uint8_t kOutputTerminal = 3;

inline bool IsClockRate(std::uint32_t rateHz) {
    return std::find(kClockRatesHz.begin(), kClockRatesHz.end(), rateHz) != kClockRatesHz.end();
}

inline bool IsWordRate(std::uint32_t rateHz) {
    return std::find(kWordRatesHz.begin(), kWordRatesHz.end(), rateHz) != kWordRatesHz.end();
}

}  // namespace vorrel::e2e
