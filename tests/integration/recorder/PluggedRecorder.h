#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "integration/alsa/TestCards.h"
#include "support/MockedSystem.h"
#include "support/UsbAudioBytes.h"

namespace vorrel::test {

/// A recorder that is there for the whole of the back end: a USB device of the mocked system, and
/// behind its sound card a PCM of the tests. It captures 16 bits and 24 bits in 3 bytes.
class PluggedRecorder {
public:
    explicit PluggedRecorder(MockedSystem& mockedSystem)
        : usb(Described(card.Number())), system(mockedSystem) {
        card.SetFormats({kS16, kS24In3});
        system.Add(usb);
    }
    ~PluggedRecorder() {
        if (plugged) {
            Unplug();
        }
    }
    PluggedRecorder(const PluggedRecorder&) = delete;
    PluggedRecorder& operator=(const PluggedRecorder&) = delete;

    /// The PCM tells first, as the driver does.
    void Unplug() {
        plugged = false;
        card.State().disconnected = 1;
        system.Remove(usb);
    }
    /// Again, at the same port.
    void PlugIn() {
        card.PlugIn();
        system.Add(usb);
        plugged = true;
    }
    /// Whether somebody has its PCM open.
    bool IsOpen() const { return card.State().opens != card.State().closes; }

    TestCard card;
    const MockedUsbCard usb;

private:
    static MockedUsbCard Described(int number) {
        MockedUsbCard described;
        described.number = number;
        described.port = "1-" + std::to_string(number + 1);
        described.address = static_cast<std::uint8_t>(4 + number);
        described.serial = std::to_string(1'000 + number);
        described.descriptors = RecorderDescriptors();
        return described;
    }

    MockedSystem& system;
    bool plugged = true;
};

/// The request that switches a recorder to DSD (1) or to PCM (0), as it stands on the bus: host to
/// interface, vendor; the interface that captures is number 2.
inline std::vector<std::uint8_t> SwitchTo(std::uint8_t mode) {
    return {0x41, 0, mode, 0, 2, 0, 0, 0};
}

}  // namespace vorrel::test
