#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "device/backend/RegistryBackend.h"
#include "device/simulated/CallHook.h"
#include "device/simulated/SimulatedRecorder.h"
#include "platform/Mutex.h"

namespace vorrel {

/// The entries that each recorder has in the registry.
enum class RegistryRole {
    UsbDevice,           ///< "IOUSBDevice"
    ControlInterface,    ///< "IOUSBInterface" 0, child of the device
    StreamingInterface,  ///< "IOUSBInterface" 1, child of the device
    Engine,              ///< "IOAudioEngine" with the unique id and the USB ids
    Control,             ///< "IOAudioControl", first child of the engine
    Stream,              ///< "IOAudioStream" (input), child of the engine and of interface 1
};

/// The device registry with the entries of the simulated recorders in the plane "IOService". The
/// entries of a recorder that is unplugged are found no more and have no relatives, but live until
/// the last reference is given back. Handles and counts behave as the system's: a handle names an
/// object, the user count is the number of references handed out and not yet released, the kernel
/// count is the registry's own hold plus one for all users together.
class SimulatedRegistry final : public RegistryBackend {
public:
    SimulatedRegistry(std::vector<std::shared_ptr<SimulatedRecorder>> allRecorders,
                      std::shared_ptr<CallHook> callHook);
    ~SimulatedRegistry() override;
    SimulatedRegistry(const SimulatedRegistry&) = delete;
    SimulatedRegistry& operator=(const SimulatedRegistry&) = delete;

    kern_return_t GetMatchingServices(const char* className, io_iterator_t* iterator) override;
    io_object_t IteratorNext(io_iterator_t iterator) override;
    void IteratorReset(io_iterator_t iterator) override;
    kern_return_t GetChildEntry(io_registry_entry_t entry, const char* plane,
                                io_registry_entry_t* child) override;
    kern_return_t GetChildIterator(io_registry_entry_t entry, const char* plane,
                                   io_iterator_t* iterator) override;
    kern_return_t GetParentEntry(io_registry_entry_t entry, const char* plane,
                                 io_registry_entry_t* parent) override;
    kern_return_t GetParentIterator(io_registry_entry_t entry, const char* plane,
                                    io_iterator_t* iterator) override;
    bool ConformsTo(io_object_t object, const char* className) override;
    RegistryValue SearchProperty(io_registry_entry_t entry, const char* plane,
                                 const char* key) override;
    void Retain(io_object_t object) override;
    void Release(io_object_t object) override;
    std::uint32_t GetKernelRetainCount(io_object_t object) override;
    std::uint32_t GetUserRetainCount(io_object_t object) override;
    std::unique_ptr<UsbInterface> CreateUsbInterface(io_object_t entry) override;

    // What a test sets, for the recorder `index`, counted from 0.

    /// The property has `value` from now on; `std::monostate` takes it away.
    void SetValue(std::size_t index, RegistryRole role, const std::string& key, RegistryValue value)
        VORREL_EXCLUDES(mutex);
    /// An entry that is not present is nobody's child or parent and is not found.
    void SetPresent(std::size_t index, RegistryRole role, bool present) VORREL_EXCLUDES(mutex);
    /// Matching services fails with `status`; 0 lets it succeed again.
    void FailMatching(kern_return_t status) VORREL_EXCLUDES(mutex);
    /// No handle is made for any USB interface.
    void SetUsbInterfaceAvailable(bool available) VORREL_EXCLUDES(mutex);

    // What a test looks at.

    /// References handed out and not yet released, iterators included.
    std::uint64_t References() VORREL_EXCLUDES(mutex);
    /// Releases of what was not held: a reference given back twice.
    std::uint64_t ExcessReleases() VORREL_EXCLUDES(mutex);
    /// USB interface handles alive.
    std::uint32_t UsbInterfaces() const { return *usbInterfaces; }

private:
    struct Object;
    using ObjectPointer = std::shared_ptr<Object>;
    enum class Direction { Children, Parents };

    ObjectPointer Find(io_object_t object) VORREL_REQUIRES(mutex);
    /// Adds the entries of recorders that have been plugged in since.
    void Update() VORREL_REQUIRES(mutex);
    void AddEntries(std::size_t index, std::uint32_t plugging) VORREL_REQUIRES(mutex);
    bool IsAttached(const Object& entry) VORREL_REQUIRES(mutex);
    std::vector<ObjectPointer> Relatives(io_registry_entry_t entry, const char* plane,
                                         Direction direction) VORREL_REQUIRES(mutex);
    io_object_t HandOut(const ObjectPointer& object) VORREL_REQUIRES(mutex);
    io_iterator_t MakeIterator(std::vector<ObjectPointer> entries) VORREL_REQUIRES(mutex);
    kern_return_t FirstRelative(io_registry_entry_t entry, const char* plane, Direction direction,
                                io_registry_entry_t* relative) VORREL_EXCLUDES(mutex);
    kern_return_t RelativeIterator(io_registry_entry_t entry, const char* plane,
                                   Direction direction, io_iterator_t* iterator)
        VORREL_EXCLUDES(mutex);

    const std::vector<std::shared_ptr<SimulatedRecorder>> recorders;
    const std::shared_ptr<std::atomic<std::uint32_t>> usbInterfaces;
    const std::shared_ptr<CallHook> hook;
    Mutex mutex;                                                  // taken before a recorder's
    std::vector<ObjectPointer> entries VORREL_GUARDED_BY(mutex);  // of plugged recorders
    std::map<io_object_t, ObjectPointer> held VORREL_GUARDED_BY(mutex);  // user count above 0
    io_object_t lastId VORREL_GUARDED_BY(mutex) = 0x1000;
    std::map<std::tuple<std::size_t, RegistryRole, std::string>, RegistryValue> values
        VORREL_GUARDED_BY(mutex);
    std::map<std::pair<std::size_t, RegistryRole>, bool> absent VORREL_GUARDED_BY(mutex);
    kern_return_t matchingFault VORREL_GUARDED_BY(mutex) = kIOReturnSuccess;
    bool usbInterfaceAvailable VORREL_GUARDED_BY(mutex) = true;
    std::uint64_t excessReleases VORREL_GUARDED_BY(mutex) = 0;
};

}  // namespace vorrel
