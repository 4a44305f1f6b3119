#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device/backend/RegistryBackend.h"
#include "platform/Mutex.h"

namespace vorrel::test {

/// A small working device registry in memory, with one plane, "IOService". Counts who holds what:
/// after a test, `Outstanding` is 0 and `Misuses` is 0. Thread-safe.
class FakeRegistryBackend final : public RegistryBackend {
public:
    /// What the USB interfaces of the registry were told, and what they answer.
    struct Usb {
        std::uint8_t interfaceNumber = 0;
        IOReturn numberResult = kIOReturnSuccess;
        IOReturn requestResult = kIOReturnSuccess;
        std::optional<std::uint16_t> refusedValue;
        std::vector<UsbControlRequest> requests;
        int openHandles = 0;
    };

    // Arrangement.

    /// Adds an entry that conforms to each of `classes`; the first is its own class.
    io_registry_entry_t AddEntry(std::vector<std::string> classes) {
        const MutexLock lock(mutex);
        const io_registry_entry_t entry = ++lastHandle;
        entries[entry].classes = std::move(classes);
        order.push_back(entry);
        return entry;
    }
    void SetProperty(io_registry_entry_t entry, const std::string& key, RegistryValue value) {
        const MutexLock lock(mutex);
        entries.at(entry).properties[key] = std::move(value);
    }
    void Link(io_registry_entry_t parent, io_registry_entry_t child) {
        const MutexLock lock(mutex);
        entries.at(parent).children.push_back(child);
        entries.at(child).parents.push_back(parent);
    }

    // Faults.

    void FailMatching(kern_return_t status) {
        const MutexLock lock(mutex);
        matchingStatus = status;
    }
    void FailChildren(kern_return_t status) {
        const MutexLock lock(mutex);
        childrenStatus = status;
    }
    void FailParents(kern_return_t status) {
        const MutexLock lock(mutex);
        parentsStatus = status;
    }
    /// Creating a USB interface gives null.
    void FailUsbInterface(bool fails) {
        const MutexLock lock(mutex);
        usbFails = fails;
    }
    void SetUsbInterfaceNumber(std::uint8_t number) {
        const MutexLock lock(mutex);
        usb.interfaceNumber = number;
    }
    void FailUsbInterfaceNumber(IOReturn result) {
        const MutexLock lock(mutex);
        usb.numberResult = result;
    }
    void FailUsbRequest(IOReturn result) {
        const MutexLock lock(mutex);
        usb.requestResult = result;
    }
    /// Requests with that value stall, others are taken.
    void RefuseUsbValue(std::uint16_t value) {
        const MutexLock lock(mutex);
        usb.refusedValue = value;
    }

    // What there is and what happened.

    /// Handles that are still held.
    std::size_t Outstanding() const {
        const MutexLock lock(mutex);
        std::size_t sum = 0;
        for (const auto& entry : held) {
            sum += entry.second;
        }
        return sum;
    }
    /// Uses and releases of a handle that nobody held.
    int Misuses() const {
        const MutexLock lock(mutex);
        return misuses;
    }
    std::vector<UsbControlRequest> UsbRequests() const {
        const MutexLock lock(mutex);
        return usb.requests;
    }
    int OpenUsbInterfaces() const {
        const MutexLock lock(mutex);
        return usb.openHandles;
    }
    /// Hands out a handle of an entry, as a call of the registry would: to be released.
    io_registry_entry_t Take(io_registry_entry_t entry) {
        const MutexLock lock(mutex);
        return TakeLocked(entry);
    }

    // The registry.

    kern_return_t GetMatchingServices(const char* className, io_iterator_t* iterator) override {
        const MutexLock lock(mutex);
        if (matchingStatus != kIOReturnSuccess) {
            return matchingStatus;
        }
        std::vector<io_registry_entry_t> matching;
        for (const io_registry_entry_t entry : order) {
            if (HasClass(entry, className)) {
                matching.push_back(entry);
            }
        }
        *iterator = NewIterator(std::move(matching));
        return kIOReturnSuccess;
    }
    io_object_t IteratorNext(io_iterator_t iterator) override {
        const MutexLock lock(mutex);
        CheckHeld(iterator);
        const auto found = iterators.find(iterator);
        if (found == iterators.end() || found->second.next >= found->second.entries.size()) {
            return IO_OBJECT_NULL;
        }
        return TakeLocked(found->second.entries[found->second.next++]);
    }
    void IteratorReset(io_iterator_t iterator) override {
        const MutexLock lock(mutex);
        CheckHeld(iterator);
        iterators.at(iterator).next = 0;
    }

    kern_return_t GetChildEntry(io_registry_entry_t entry, const char* plane,
                                io_registry_entry_t* child) override {
        const MutexLock lock(mutex);
        return First(entry, Children(entry, plane), childrenStatus, child);
    }
    kern_return_t GetChildIterator(io_registry_entry_t entry, const char* plane,
                                   io_iterator_t* iterator) override {
        const MutexLock lock(mutex);
        return Iterate(entry, Children(entry, plane), childrenStatus, iterator);
    }
    kern_return_t GetParentEntry(io_registry_entry_t entry, const char* plane,
                                 io_registry_entry_t* parent) override {
        const MutexLock lock(mutex);
        return First(entry, Parents(entry, plane), parentsStatus, parent);
    }
    kern_return_t GetParentIterator(io_registry_entry_t entry, const char* plane,
                                    io_iterator_t* iterator) override {
        const MutexLock lock(mutex);
        return Iterate(entry, Parents(entry, plane), parentsStatus, iterator);
    }
    bool ConformsTo(io_object_t object, const char* className) override {
        const MutexLock lock(mutex);
        CheckHeld(object);
        return entries.contains(object) && HasClass(object, className);
    }
    RegistryValue SearchProperty(io_registry_entry_t entry, const char* plane,
                                 const char* key) override {
        const MutexLock lock(mutex);
        CheckHeld(entry);
        if (std::string(plane) != "IOService") {
            return {};
        }
        const auto& properties = entries.at(entry).properties;
        const auto found = properties.find(key);
        return found == properties.end() ? RegistryValue() : found->second;
    }

    void Retain(io_object_t object) override {
        const MutexLock lock(mutex);
        CheckHeld(object);
        ++held[object];
    }
    void Release(io_object_t object) override {
        const MutexLock lock(mutex);
        CheckHeld(object);
        if (held[object] > 0 && --held[object] == 0) {
            iterators.erase(object);
        }
    }
    /// One more than the user's, for the registry itself.
    std::uint32_t GetKernelRetainCount(io_object_t object) override {
        const MutexLock lock(mutex);
        return held[object] + 1;
    }
    std::uint32_t GetUserRetainCount(io_object_t object) override {
        const MutexLock lock(mutex);
        return held[object];
    }

    std::unique_ptr<UsbInterface> CreateUsbInterface(io_object_t entry) override {
        const MutexLock lock(mutex);
        CheckHeld(entry);
        if (usbFails || !entries.contains(entry) || !HasClass(entry, "IOUSBInterface")) {
            return nullptr;
        }
        ++usb.openHandles;
        return std::make_unique<FakeUsbInterface>(*this);
    }

private:
    struct Entry {
        std::vector<std::string> classes;
        std::map<std::string, RegistryValue> properties;
        std::vector<io_registry_entry_t> children;
        std::vector<io_registry_entry_t> parents;
    };
    struct Iterator {
        std::vector<io_registry_entry_t> entries;
        std::size_t next = 0;
    };

    class FakeUsbInterface final : public UsbInterface {
    public:
        explicit FakeUsbInterface(FakeRegistryBackend& backend) : registry(backend) {}
        ~FakeUsbInterface() override {
            const MutexLock lock(registry.mutex);
            --registry.usb.openHandles;
        }
        FakeUsbInterface(const FakeUsbInterface&) = delete;
        FakeUsbInterface& operator=(const FakeUsbInterface&) = delete;

        IOReturn GetInterfaceNumber(std::uint8_t* number) override {
            const MutexLock lock(registry.mutex);
            if (registry.usb.numberResult == kIOReturnSuccess) {
                *number = registry.usb.interfaceNumber;
            }
            return registry.usb.numberResult;
        }
        IOReturn ControlRequest(const UsbControlRequest& request) override {
            const MutexLock lock(registry.mutex);
            registry.usb.requests.push_back(request);
            if (registry.usb.refusedValue == request.value) {
                return kIOUSBPipeStalled;
            }
            return registry.usb.requestResult;
        }

    private:
        FakeRegistryBackend& registry;
    };

    void CheckHeld(io_object_t object) VORREL_REQUIRES(mutex) {
        if (held[object] == 0) {
            ++misuses;
        }
    }
    bool HasClass(io_registry_entry_t entry, const std::string& className) const
        VORREL_REQUIRES(mutex) {
        const auto& classes = entries.at(entry).classes;
        return std::find(classes.begin(), classes.end(), className) != classes.end();
    }
    io_registry_entry_t TakeLocked(io_registry_entry_t entry) VORREL_REQUIRES(mutex) {
        ++held[entry];
        return entry;
    }
    io_iterator_t NewIterator(std::vector<io_registry_entry_t> walked) VORREL_REQUIRES(mutex) {
        const io_iterator_t iterator = ++lastHandle;
        iterators[iterator].entries = std::move(walked);
        held[iterator] = 1;
        return iterator;
    }
    std::vector<io_registry_entry_t> Children(io_registry_entry_t entry, const std::string& plane)
        VORREL_REQUIRES(mutex) {
        return plane == "IOService" ? entries.at(entry).children
                                    : std::vector<io_registry_entry_t>();
    }
    std::vector<io_registry_entry_t> Parents(io_registry_entry_t entry, const std::string& plane)
        VORREL_REQUIRES(mutex) {
        return plane == "IOService" ? entries.at(entry).parents
                                    : std::vector<io_registry_entry_t>();
    }
    kern_return_t First(io_registry_entry_t entry, const std::vector<io_registry_entry_t>& of,
                        kern_return_t status, io_registry_entry_t* first) VORREL_REQUIRES(mutex) {
        CheckHeld(entry);
        if (status != kIOReturnSuccess) {
            return status;
        }
        if (of.empty()) {
            return kIOReturnError;
        }
        *first = TakeLocked(of.front());
        return kIOReturnSuccess;
    }
    kern_return_t Iterate(io_registry_entry_t entry, std::vector<io_registry_entry_t> of,
                          kern_return_t status, io_iterator_t* iterator) VORREL_REQUIRES(mutex) {
        CheckHeld(entry);
        if (status != kIOReturnSuccess) {
            return status;
        }
        *iterator = NewIterator(std::move(of));
        return kIOReturnSuccess;
    }

    mutable Mutex mutex;
    std::map<io_registry_entry_t, Entry> entries VORREL_GUARDED_BY(mutex);
    std::vector<io_registry_entry_t> order VORREL_GUARDED_BY(mutex);
    std::map<io_iterator_t, Iterator> iterators VORREL_GUARDED_BY(mutex);
    std::map<io_object_t, std::uint32_t> held VORREL_GUARDED_BY(mutex);
    io_object_t lastHandle VORREL_GUARDED_BY(mutex) = 0;
    int misuses VORREL_GUARDED_BY(mutex) = 0;
    kern_return_t matchingStatus VORREL_GUARDED_BY(mutex) = kIOReturnSuccess;
    kern_return_t childrenStatus VORREL_GUARDED_BY(mutex) = kIOReturnSuccess;
    kern_return_t parentsStatus VORREL_GUARDED_BY(mutex) = kIOReturnSuccess;
    bool usbFails VORREL_GUARDED_BY(mutex) = false;
    Usb usb VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel::test
