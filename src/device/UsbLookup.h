#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "device/backend/RegistryBackend.h"

namespace vorrel {

// The way from the unique id of an audio device to its USB device, through the device registry. A
// null registry knows no device.

/// Finds the USB ids of the device with the unique id `uid`.
/// @return false when the registry does not know it; both ids are -1 then.
bool FindUsbIds(const std::shared_ptr<RegistryBackend>& registry, const std::string& uid,
                std::int32_t& vendorId, std::int32_t& productId);

/// @return The USB interface that belongs to the input stream of the device with the unique id
///         `uid`, or null.
std::unique_ptr<UsbInterface> FindUsbInterface(const std::shared_ptr<RegistryBackend>& registry,
                                               const std::string& uid);

}  // namespace vorrel
