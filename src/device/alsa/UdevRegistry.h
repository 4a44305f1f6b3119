#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "device/alsa/SoundCards.h"
#include "device/backend/AudioRegistry.h"

namespace vorrel {

/// The device registry with the entries of the system's sound cards. A card that is no USB device
/// has an engine without ids; one without a capture stream has no stream entry; one whose
/// streaming interface is unknown has a stream that is no USB interface's child. When a look at the
/// cards fails, the entries stay as they were. Calls read files: not from a real-time thread.
class UdevRegistry final : public AudioRegistry {
public:
    explicit UdevRegistry(std::shared_ptr<const SoundCards> soundCards);

private:
    std::vector<RegistryDevice> Devices() VORREL_REQUIRES(mutex) override;
    std::unique_ptr<UsbInterface> OpenUsbInterface(const RegistryDevice& device,
                                                   std::uint8_t interfaceNumber)
        VORREL_REQUIRES(mutex) override;

    const std::shared_ptr<const SoundCards> cards;
    /// The USB sides of the devices that `Devices` told last, by key.
    std::map<std::string, UsbSide> usbSides VORREL_GUARDED_BY(mutex);
    std::vector<RegistryDevice> known VORREL_GUARDED_BY(mutex);  // told last
};

}  // namespace vorrel
