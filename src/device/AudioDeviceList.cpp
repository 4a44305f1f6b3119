#include "device/AudioDeviceList.h"

#include <cstdint>
#include <regex>
#include <string>

#include "device/backend/SupportedDevice.h"

namespace vorrel {
namespace {

/// The recorder does not offer 88,200 (bit 0), 176,400 (1) and 352,800 Hz (2), and has the USB
/// control interface that switches between PCM and DSD (16).
constexpr std::uint32_t kExcludedRateMask = 1U << 0 | 1U << 1 | 1U << 2 | 1U << 16;
static_assert(kExcludedRateMask == 65'543);

}  // namespace

void AudioDeviceList::FilterDevices(std::vector<FoundDeviceInfo>& list) const {
    std::erase_if(list, [this](FoundDeviceInfo& record) { return !FilterDevice(record); });
}

bool AudioDeviceList::FilterDevice(FoundDeviceInfo& record) const {
    if (record.vendorId != kSupportedVendorId || record.productId != kSupportedProductId) {
        return false;
    }
    const std::regex pattern(std::string("^") + kSupportedDeviceName + "$", std::regex::ECMAScript);
    if (!std::regex_match(record.name, pattern)) {
        return false;
    }
    record.excludedRateMask = kExcludedRateMask;
    return true;
}

}  // namespace vorrel
