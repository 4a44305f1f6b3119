#pragma once

#include <cstdint>
#include <string>

namespace vorrel {

/// One discovered device.
struct FoundDeviceInfo {
    std::string name;             ///< UTF-8
    std::string uid;              ///< Unique id, UTF-8.
    std::string modelUid;         ///< Model id, UTF-8.
    std::uint32_t deviceId = 0;   ///< Object id in the audio layer.
    std::int32_t vendorId = -1;   ///< USB vendor id; -1 when the registry does not know it.
    std::int32_t productId = -1;  ///< USB product id; -1 likewise.
    /// 0 after discovery, set by the filter: bits 0..6 take 88200, 176400, 352800, 705600,
    /// 2822400, 5644800 and 11289600 Hz off the offered rates; bit 16: has the USB control
    /// interface that switches between PCM and DSD.
    std::uint32_t excludedRateMask = 0;
};

}  // namespace vorrel
