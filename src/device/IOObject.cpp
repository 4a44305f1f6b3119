#include "device/IOObject.h"

#include <utility>

namespace vorrel {

IOObject::IOObject(std::shared_ptr<RegistryBackend> registryBackend,
                   io_object_t objectHandle) noexcept
    : backend(std::move(registryBackend)),
      handle(backend == nullptr ? IO_OBJECT_NULL : objectHandle) {}

IOObject::~IOObject() {
    if (handle != IO_OBJECT_NULL) {
        backend->Release(handle);
    }
}

IOObject::IOObject(const IOObject& other) : backend(other.backend), handle(other.handle) {
    if (handle != IO_OBJECT_NULL) {
        backend->Retain(handle);
    }
}

IOObject::IOObject(IOObject&& other) noexcept
    : backend(std::move(other.backend)), handle(std::exchange(other.handle, IO_OBJECT_NULL)) {}

IOObject& IOObject::operator=(const IOObject& other) {
    IOObject copy(other);
    Swap(copy);
    return *this;
}

IOObject& IOObject::operator=(IOObject&& other) noexcept {
    IOObject taken(std::move(other));
    Swap(taken);
    return *this;
}

bool IOObject::ConformsTo(const char* className) const {
    return handle != IO_OBJECT_NULL && backend->ConformsTo(handle, className);
}

std::uint32_t IOObject::GetKernelRetainCount() const {
    return handle == IO_OBJECT_NULL ? 0 : backend->GetKernelRetainCount(handle);
}

std::uint32_t IOObject::GetUserRetainCount() const {
    return handle == IO_OBJECT_NULL ? 0 : backend->GetUserRetainCount(handle);
}

std::unique_ptr<UsbInterface> IOObject::CreateUsbInterface() const {
    return handle == IO_OBJECT_NULL ? nullptr : backend->CreateUsbInterface(handle);
}

void IOObject::Swap(IOObject& other) noexcept {
    std::swap(backend, other.backend);
    std::swap(handle, other.handle);
}

}  // namespace vorrel
