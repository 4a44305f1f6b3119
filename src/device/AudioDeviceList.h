#pragma once

#include <vector>

#include "device/FoundDeviceInfo.h"

namespace vorrel {

/// Keeps only the supported recorder among the devices found.
class AudioDeviceList {
public:
    /// Removes, in place and keeping the order of the rest, what is not the supported model.
    void FilterDevices(std::vector<FoundDeviceInfo>& list) const;
    /// @return true for the supported model, whose `excludedRateMask` is then set.
    bool FilterDevice(FoundDeviceInfo& record) const;
};

}  // namespace vorrel
