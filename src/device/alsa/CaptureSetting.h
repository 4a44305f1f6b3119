#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "device/alsa/SoundCard.h"

namespace vorrel {

/// One alternate setting of an audio streaming interface through which the device captures, as one
/// source states it.
struct CaptureSetting {
    std::uint8_t interfaceNumber = 0;
    std::uint8_t alternateSetting = 0;
    /// Nothing where it is not integer PCM of 2 to 4 bytes a sample, or not told.
    std::optional<CaptureFormat> format;

    bool operator==(const CaptureSetting&) const = default;
};

/// What a card captures.
struct CaptureSide {
    std::optional<std::uint8_t> streamingInterface;
    std::vector<CaptureFormat> formats;  ///< each layout of a sample once, in the order of settings
};

/// Puts together what the USB descriptors and the driver's stream text tell of one stream. The text
/// names the interface that the driver uses and the rates that it found; bits and containers come
/// from the descriptors. Where one of the two is empty the other stands alone.
CaptureSide MergeCaptureSettings(const std::vector<CaptureSetting>& ofDescriptors,
                                 const std::vector<CaptureSetting>& ofText);

}  // namespace vorrel
