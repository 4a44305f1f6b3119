#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "device/backend/CoreAudioTypes.h"

namespace vorrel {

/// A control request on the default pipe.
struct UsbControlRequest {
    std::uint8_t requestType = 0;
    std::uint8_t request = 0;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::uint16_t length = 0;
    void* data = nullptr;
};

/// One USB interface of a device, not opened: control requests on the default pipe go out without.
class UsbInterface {
public:
    virtual ~UsbInterface() = default;

    /// @return `kIOReturnNoDevice` when the device is gone.
    virtual IOReturn GetInterfaceNumber(std::uint8_t* number) = 0;
    virtual IOReturn ControlRequest(const UsbControlRequest& request) = 0;
};

/// A property value that is neither text nor number.
struct RegistryOtherValue {};
/// Absent, a text (UTF-8), a number, or something else.
using RegistryValue = std::variant<std::monostate, std::string, std::int64_t, RegistryOtherValue>;

/// What a platform's device registry has to offer: entries with a class, properties, children and
/// parents in a plane. Objects that a call hands out are owned by the caller, who releases them.
/// Any thread may call.
class RegistryBackend {
public:
    virtual ~RegistryBackend() = default;

    /// All entries of a class.
    virtual kern_return_t GetMatchingServices(const char* className, io_iterator_t* iterator) = 0;
    /// The next entry, or `IO_OBJECT_NULL` at the end.
    virtual io_object_t IteratorNext(io_iterator_t iterator) = 0;
    virtual void IteratorReset(io_iterator_t iterator) = 0;

    virtual kern_return_t GetChildEntry(io_registry_entry_t entry, const char* plane,
                                        io_registry_entry_t* child) = 0;
    virtual kern_return_t GetChildIterator(io_registry_entry_t entry, const char* plane,
                                           io_iterator_t* iterator) = 0;
    virtual kern_return_t GetParentEntry(io_registry_entry_t entry, const char* plane,
                                         io_registry_entry_t* parent) = 0;
    virtual kern_return_t GetParentIterator(io_registry_entry_t entry, const char* plane,
                                            io_iterator_t* iterator) = 0;
    virtual bool ConformsTo(io_object_t object, const char* className) = 0;
    /// Looks at the entry itself only.
    virtual RegistryValue SearchProperty(io_registry_entry_t entry, const char* plane,
                                         const char* key) = 0;

    virtual void Retain(io_object_t object) = 0;
    virtual void Release(io_object_t object) = 0;
    virtual std::uint32_t GetKernelRetainCount(io_object_t object) = 0;
    virtual std::uint32_t GetUserRetainCount(io_object_t object) = 0;

    /// A handle for control requests to a USB interface entry, or null.
    virtual std::unique_ptr<UsbInterface> CreateUsbInterface(io_object_t entry) = 0;
};

}  // namespace vorrel
