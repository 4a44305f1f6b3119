#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/backend/RegistryBackend.h"
#include "platform/Mutex.h"

namespace vorrel {

/// The entries that an audio device has in the registry.
enum class RegistryRole {
    UsbDevice,           ///< "IOUSBDevice"
    ControlInterface,    ///< "IOUSBInterface", child of the device
    StreamingInterface,  ///< "IOUSBInterface", child of the device
    Engine,              ///< "IOAudioEngine" with the unique id and the USB ids
    Control,             ///< "IOAudioControl", first child of the engine
    Stream,  ///< "IOAudioStream" (input), child of the engine and of the streaming interface
};

/// An audio device, as it enters the registry.
struct RegistryDevice {
    /// Names this plugging of this device: plugged in again it is another device with new entries,
    /// as it is when anything else in here changes.
    std::string key;
    std::string uid;
    std::string name;
    struct Usb {
        std::int32_t vendorId = 0;
        std::int32_t productId = 0;
        std::optional<std::uint8_t> controlInterface;  ///< bInterfaceNumber; none: no such entry
        std::optional<std::uint8_t> streamingInterface;

        bool operator==(const Usb&) const = default;
    };
    std::optional<Usb> usb;  ///< nothing: an engine without ids, and no USB entries
    bool hasInputStream = false;

    bool operator==(const RegistryDevice&) const = default;
};

/// The device registry over the audio devices that a platform finds, in the plane "IOService". The
/// entries of a device that is gone are found no more and have no relatives, but live until the
/// last reference is given back. Handles and counts behave as the system's: a handle names an
/// object, the user count is the number of references handed out and not yet released, the kernel
/// count is the registry's own hold plus one for all users together. Any thread may call.
class AudioRegistry : public RegistryBackend {
public:
    AudioRegistry(const AudioRegistry&) = delete;
    AudioRegistry& operator=(const AudioRegistry&) = delete;
    ~AudioRegistry() override;

    kern_return_t GetMatchingServices(const char* className, io_iterator_t* iterator) final;
    io_object_t IteratorNext(io_iterator_t iterator) final;
    void IteratorReset(io_iterator_t iterator) final;
    kern_return_t GetChildEntry(io_registry_entry_t entry, const char* plane,
                                io_registry_entry_t* child) final;
    kern_return_t GetChildIterator(io_registry_entry_t entry, const char* plane,
                                   io_iterator_t* iterator) final;
    kern_return_t GetParentEntry(io_registry_entry_t entry, const char* plane,
                                 io_registry_entry_t* parent) final;
    kern_return_t GetParentIterator(io_registry_entry_t entry, const char* plane,
                                    io_iterator_t* iterator) final;
    bool ConformsTo(io_object_t object, const char* className) final;
    RegistryValue SearchProperty(io_registry_entry_t entry, const char* plane,
                                 const char* key) final;
    void Retain(io_object_t object) final;
    void Release(io_object_t object) final;
    std::uint32_t GetKernelRetainCount(io_object_t object) final;
    std::uint32_t GetUserRetainCount(io_object_t object) final;
    std::unique_ptr<UsbInterface> CreateUsbInterface(io_object_t entry) final;

    /// References handed out and not yet released, iterators included.
    std::uint64_t References() VORREL_EXCLUDES(mutex);
    /// Releases of what was not held: a reference given back twice.
    std::uint64_t ExcessReleases() VORREL_EXCLUDES(mutex);

protected:
    AudioRegistry();

    // What a platform gives. Called under the mutex, but for the first.

    /// A call comes in; no lock is held.
    virtual void CallBegins() {}
    /// The devices that are there now, in the order in which they are found.
    virtual std::vector<RegistryDevice> Devices() VORREL_REQUIRES(mutex) = 0;
    /// A handle of a USB interface of a device that is there, or null.
    virtual std::unique_ptr<UsbInterface> OpenUsbInterface(const RegistryDevice& device,
                                                           std::uint8_t interfaceNumber)
        VORREL_REQUIRES(mutex) = 0;

    // What a test may bend.

    /// What every search for services fails with; 0: none.
    virtual kern_return_t MatchingFault() VORREL_REQUIRES(mutex) { return kIOReturnSuccess; }
    /// An entry that is not present is nobody's child or parent and is not found.
    virtual bool IsPresent(const RegistryDevice&, RegistryRole) VORREL_REQUIRES(mutex) {
        return true;
    }
    /// A value in the place of an entry's own.
    virtual std::optional<RegistryValue> OtherValue(const RegistryDevice&, RegistryRole,
                                                    const std::string& key) VORREL_REQUIRES(mutex);

    Mutex mutex;

private:
    struct Object;
    using ObjectPointer = std::shared_ptr<Object>;
    using Properties = std::map<std::string, RegistryValue>;
    enum class Direction { Children, Parents };

    ObjectPointer Find(io_object_t object) VORREL_REQUIRES(mutex);
    ObjectPointer FindEntry(io_object_t object, const char* plane) VORREL_REQUIRES(mutex);
    /// Makes the entries those of the devices that are there now.
    void Update() VORREL_REQUIRES(mutex);
    void AddEntries(const RegistryDevice& device) VORREL_REQUIRES(mutex);
    bool IsAttached(const Object& entry) VORREL_REQUIRES(mutex);
    std::vector<ObjectPointer> Relatives(const Object& from, Direction direction)
        VORREL_REQUIRES(mutex);
    io_object_t HandOut(const ObjectPointer& object) VORREL_REQUIRES(mutex);
    io_iterator_t MakeIterator(std::vector<ObjectPointer> results) VORREL_REQUIRES(mutex);
    kern_return_t FirstRelative(io_registry_entry_t entry, const char* plane, Direction direction,
                                io_registry_entry_t* relative) VORREL_EXCLUDES(mutex);
    kern_return_t RelativeIterator(io_registry_entry_t entry, const char* plane,
                                   Direction direction, io_iterator_t* iterator)
        VORREL_EXCLUDES(mutex);

    std::vector<ObjectPointer> entries VORREL_GUARDED_BY(mutex);  // of devices that are there
    std::map<io_object_t, ObjectPointer> held VORREL_GUARDED_BY(mutex);  // user count above 0
    io_object_t lastId VORREL_GUARDED_BY(mutex) = 0x1000;
    std::uint64_t excessReleases VORREL_GUARDED_BY(mutex) = 0;
};

}  // namespace vorrel
