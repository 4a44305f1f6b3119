#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "device/alsa/SoundCard.h"
#include "device/backend/RegistryBackend.h"
#include "platform/Mutex.h"

namespace vorrel {

/// Control requests to a USB interface on the default pipe. Nothing is claimed and the kernel's
/// driver stays where it is: it may stream meanwhile. Write permission on the device's node is all
/// that it takes. The node is opened by the first request, so that what keeps it closed is that
/// request's result, and then held. Each failure is traced. Any thread; a request waits for the
/// device for at most a second.
class UsbControl final : public UsbInterface {
public:
    /// @param usbSide  The device; it must still have these ids when it is opened.
    UsbControl(UsbSide usbSide, std::uint8_t interfaceNumber);
    ~UsbControl() override;
    UsbControl(const UsbControl&) = delete;
    UsbControl& operator=(const UsbControl&) = delete;

    IOReturn GetInterfaceNumber(std::uint8_t* asked) override;
    /// @return 0; `kIOReturnNoDevice`; `kIOUSBPipeStalled` when the device refuses the request;
    ///         `kIOReturnError` for all else: no permission, no answer in time, a short transfer.
    IOReturn ControlRequest(const UsbControlRequest& request) override VORREL_EXCLUDES(mutex);

private:
    struct Connection;

    IOReturn Open() VORREL_REQUIRES(mutex);

    const UsbSide side;
    const std::uint8_t number;
    const std::string node;   // "/dev/bus/usb/001/004"
    const std::string label;  // "USB device 6666:0770 at 1-2.3", for the trace
    Mutex mutex;
    std::unique_ptr<Connection> connection VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel
