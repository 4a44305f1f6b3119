#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "device/alsa/CaptureSetting.h"

namespace vorrel {

/// The alternate settings through which a USB audio device captures: those of audio streaming
/// interfaces whose data endpoint is an isochronous IN endpoint, in the order of their descriptors.
/// Formats are told of USB Audio Class 1 and 2; rates of class 1 only (in class 2 the device is
/// asked for them, which the driver has done).
/// @param descriptors          Device and configuration descriptors as a device sends them, one
///                             behind the other; any bytes. Reading ends at the first descriptor
///                             that is cut off or says a length below 2.
/// @param activeConfiguration  bConfigurationValue; nothing: the first configuration.
std::vector<CaptureSetting> ParseCaptureSettings(
    std::span<const std::uint8_t> descriptors,
    std::optional<std::uint8_t> activeConfiguration = std::nullopt);

}  // namespace vorrel
