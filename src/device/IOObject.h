#pragma once

#include <cstdint>
#include <memory>

#include "device/backend/RegistryBackend.h"

namespace vorrel {

/// A counted handle of an object in the device registry: copying retains, destruction and
/// reassignment release. A null one answers false and 0.
class IOObject {
public:
    IOObject() = default;
    /// Takes over a handle that the back end handed out, with the one count that came with it.
    IOObject(std::shared_ptr<RegistryBackend> registryBackend, io_object_t objectHandle) noexcept;
    virtual ~IOObject();
    IOObject(const IOObject& other);
    IOObject(IOObject&& other) noexcept;  // leaves `other` null
    IOObject& operator=(const IOObject& other);
    IOObject& operator=(IOObject&& other) noexcept;

    explicit operator bool() const { return handle != IO_OBJECT_NULL; }

    /// @return true when the object's class is `className` or derives from it.
    bool ConformsTo(const char* className) const;
    std::uint32_t GetKernelRetainCount() const;
    std::uint32_t GetUserRetainCount() const;

    /// A handle for control requests when this is a USB interface, or null.
    std::unique_ptr<UsbInterface> CreateUsbInterface() const;

protected:
    io_object_t Handle() const { return handle; }
    const std::shared_ptr<RegistryBackend>& Backend() const { return backend; }

private:
    void Swap(IOObject& other) noexcept;

    std::shared_ptr<RegistryBackend> backend;
    io_object_t handle = IO_OBJECT_NULL;  // never other than null without a back end
};

}  // namespace vorrel
