#include "device/alsa/UsbControl.h"

#include <fcntl.h>
#include <libusb.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "platform/Trace.h"

namespace vorrel {
namespace {

constexpr unsigned kTimeoutMilliseconds = 1'000;

template <class... Numbers>
std::string Formatted(const char* format, Numbers... numbers) {
    std::array<char, 64> text{};
    // NOLINTNEXTLINE(cert-err33-c): a text that is cut off is still one
    std::snprintf(text.data(), text.size(), format, numbers...);
    return text.data();
}

IOReturn ConvertLibusbError(int error) {
    switch (error) {
        case LIBUSB_ERROR_NO_DEVICE:
            return kIOReturnNoDevice;
        case LIBUSB_ERROR_PIPE:
            return kIOUSBPipeStalled;
        default:
            return kIOReturnError;
    }
}

}  // namespace

/// An open device: the node, and what libusb holds of it.
struct UsbControl::Connection {
    Connection() = default;
    ~Connection() {
        if (handle != nullptr) {
            ::libusb_close(handle);
        }
        if (context != nullptr) {
            ::libusb_exit(context);
        }
        if (file >= 0) {
            ::close(file);  // libusb does not own a node that it was given
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int file = -1;
    libusb_context* context = nullptr;
    libusb_device_handle* handle = nullptr;
};

UsbControl::UsbControl(UsbSide usbSide, std::uint8_t interfaceNumber)
    : side(std::move(usbSide)),
      number(interfaceNumber),
      node(Formatted("/dev/bus/usb/%03u/%03u", unsigned{side.busNumber},
                     unsigned{side.deviceAddress})),
      label(
          Formatted("USB device %04x:%04x at ", unsigned{side.vendorId}, unsigned{side.productId}) +
          side.portPath) {}

UsbControl::~UsbControl() = default;

IOReturn UsbControl::GetInterfaceNumber(std::uint8_t* asked) {
    // Known without the device; whether it is still there is what the request behind this tells.
    *asked = number;
    return kIOReturnSuccess;
}

IOReturn UsbControl::Open() {
    auto opened = std::make_unique<Connection>();
    opened->file = ::open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (opened->file < 0) {
        const int error = errno;
        if (error == ENOENT || error == ENODEV || error == ENXIO) {
            Trace(__FILE__, __LINE__, "%s: gone, there is no %s", label.c_str(), node.c_str());
            return kIOReturnNoDevice;
        }
        if (error == EACCES || error == EPERM) {
            Trace(__FILE__, __LINE__,
                  "%s: no permission to write to %s; the udev rule 70-vorrel.rules is not "
                  "installed, or this user does not sit at this computer",
                  label.c_str(), node.c_str());
        } else {
            Trace(__FILE__, __LINE__, "%s: %s cannot be opened: %s", label.c_str(), node.c_str(),
                  std::generic_category().message(error).c_str());
        }
        return kIOReturnError;
    }
    // libusb looks for devices here though it is handed one: the option against it can only be set
    // for the whole process, which may be using libusb itself.
    int result = ::libusb_init(&opened->context);
    if (result == LIBUSB_SUCCESS) {
        result = ::libusb_wrap_sys_device(opened->context, static_cast<std::intptr_t>(opened->file),
                                          &opened->handle);
    }
    libusb_device_descriptor descriptor{};
    if (result == LIBUSB_SUCCESS) {
        result = ::libusb_get_device_descriptor(::libusb_get_device(opened->handle), &descriptor);
    }
    if (result != LIBUSB_SUCCESS) {
        Trace(__FILE__, __LINE__, "%s: %s cannot be used: %s", label.c_str(), node.c_str(),
              ::libusb_error_name(result));
        return ConvertLibusbError(result);
    }
    if (descriptor.idVendor != side.vendorId || descriptor.idProduct != side.productId) {
        Trace(__FILE__, __LINE__, "%s: gone, %s is a device %04x:%04x now", label.c_str(),
              node.c_str(), unsigned{descriptor.idVendor}, unsigned{descriptor.idProduct});
        return kIOReturnNoDevice;
    }
    connection = std::move(opened);
    return kIOReturnSuccess;
}

IOReturn UsbControl::ControlRequest(const UsbControlRequest& request) {
    const MutexLock lock(mutex);
    if (connection == nullptr) {
        if (const IOReturn error = Open(); error != kIOReturnSuccess) {
            return error;
        }
    }
    const int result = ::libusb_control_transfer(
        connection->handle, request.requestType, request.request, request.value, request.index,
        static_cast<unsigned char*>(request.data), request.length, kTimeoutMilliseconds);
    if (result >= 0 && result == request.length) {
        return kIOReturnSuccess;
    }
    const std::string what =
        Formatted("request 0x%02x/%u, value %u, index %u", unsigned{request.requestType},
                  unsigned{request.request}, unsigned{request.value}, unsigned{request.index});
    if (result >= 0) {
        Trace(__FILE__, __LINE__, "%s: %s ended after %d of %u bytes", label.c_str(), what.c_str(),
              result, unsigned{request.length});
        return kIOReturnError;
    }
    switch (result) {
        case LIBUSB_ERROR_NO_DEVICE:
            Trace(__FILE__, __LINE__, "%s: unplugged before %s", label.c_str(), what.c_str());
            break;
        case LIBUSB_ERROR_PIPE:
            Trace(__FILE__, __LINE__, "%s: the device refuses %s", label.c_str(), what.c_str());
            break;
        case LIBUSB_ERROR_TIMEOUT:
            Trace(__FILE__, __LINE__, "%s: no answer to %s within %u ms", label.c_str(),
                  what.c_str(), kTimeoutMilliseconds);
            break;
        default:
            Trace(__FILE__, __LINE__, "%s: %s failed: %s", label.c_str(), what.c_str(),
                  ::libusb_error_name(result));
            break;
    }
    return ConvertLibusbError(result);
}

}  // namespace vorrel
