#include "device/alsa/UdevRegistry.h"

#include <optional>
#include <utility>

#include "device/alsa/UsbControl.h"

namespace vorrel {

UdevRegistry::UdevRegistry(std::shared_ptr<const SoundCards> soundCards)
    : cards(std::move(soundCards)) {}

std::vector<RegistryDevice> UdevRegistry::Devices() {
    const std::optional<std::vector<SoundCard>> found = cards->Find();
    if (!found.has_value()) {
        return known;
    }
    // Built apart: a look that ends half way leaves what is known as it was, with its USB sides.
    std::vector<RegistryDevice> devices;
    std::map<std::string, UsbSide> sides;
    for (const SoundCard& card : *found) {
        RegistryDevice device;
        device.key = PluggingKey(card);
        device.uid = card.uid;
        device.name = card.name;
        device.hasInputStream = card.captureDevice.has_value();
        if (card.usb.has_value()) {
            device.usb = {card.usb->vendorId, card.usb->productId, card.usb->controlInterface,
                          card.usb->streamingInterface};
            sides[device.key] = *card.usb;
        }
        devices.push_back(std::move(device));
    }
    std::vector<RegistryDevice> told = devices;
    known.swap(devices);
    usbSides.swap(sides);
    return told;
}

std::unique_ptr<UsbInterface> UdevRegistry::OpenUsbInterface(const RegistryDevice& device,
                                                             std::uint8_t interfaceNumber) {
    const auto usb = usbSides.find(device.key);
    return usb == usbSides.end() ? nullptr
                                 : std::make_unique<UsbControl>(usb->second, interfaceNumber);
}

}  // namespace vorrel
