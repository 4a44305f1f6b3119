#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorrel {

/// One capture format of a card, as the USB descriptors (or the card's stream text) state it.
struct CaptureFormat {
    std::uint32_t channels = 0;
    std::uint32_t bits = 0;              ///< significant bits, of the descriptor's bBitResolution
    std::uint32_t containerBytes = 0;    ///< bytes of a sample on the wire: 2, 3 or 4
    std::vector<std::uint32_t> ratesHz;  ///< single rates; empty: a range
    /// Of a range. Both 0 with no single rates: nobody told, the driver has to be asked.
    std::uint32_t minimumRateHz = 0;
    std::uint32_t maximumRateHz = 0;

    bool operator==(const CaptureFormat&) const = default;
};

/// The USB side of a sound card.
struct UsbSide {
    std::uint16_t vendorId = 0;
    std::uint16_t productId = 0;
    std::string serial;    ///< empty where the device has none
    std::string portPath;  ///< "1-2.3": bus and ports; stays the same while it stays plugged there
    std::uint8_t busNumber = 0;
    std::uint8_t deviceAddress = 0;
    /// bInterfaceNumber of the audio streaming interface that carries the capture endpoint.
    std::optional<std::uint8_t> streamingInterface;
    /// bInterfaceNumber of the audio control interface, which is the card's parent.
    std::optional<std::uint8_t> controlInterface;

    bool operator==(const UsbSide&) const = default;
};

/// A sound card of the kernel, as `SoundCards` found it. A value: it does not follow the card.
struct SoundCard {
    int number = -1;         ///< the kernel's; `hw:CARD=<number>`
    std::string systemPath;  ///< of the card in sysfs; another card may get it later
    std::string name;        ///< USB product text without its line end; else the card's long name
    std::string uid;       ///< made of ids, serial and port path; unique, the same after a restart
    std::string modelUid;  ///< made of name and ids; the same for all of a model
    std::optional<int> captureDevice;    ///< the PCM device with a capture stream
    std::vector<CaptureFormat> formats;  ///< of that stream; empty where the card does not say
    std::optional<UsbSide> usb;          ///< nothing for a card that is no USB device

    bool operator==(const SoundCard&) const = default;
};

}  // namespace vorrel
