#include "device/backend/AudioRegistry.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vorrel {
namespace {

constexpr char kServicePlane[] = "IOService";
constexpr std::int64_t kInputDirection = 1;

bool Contains(const std::vector<std::string>& classes, const char* className) {
    return std::find(classes.begin(), classes.end(), className) != classes.end();
}

}  // namespace

/// An entry of a device, or an iterator over entries.
struct AudioRegistry::Object {
    io_object_t id = IO_OBJECT_NULL;
    std::uint32_t userCount = 0;
    std::vector<std::string> classes;  // its own last

    // Entry.
    std::shared_ptr<const RegistryDevice> device;
    RegistryRole role = RegistryRole::UsbDevice;
    std::optional<std::uint8_t> interfaceNumber;  // of a USB interface
    Properties properties;
    std::vector<RegistryRole> parents;
    bool deviceIsThere = true;

    // Iterator.
    bool isIterator = false;
    std::vector<ObjectPointer> results;
    std::size_t next = 0;
};

AudioRegistry::AudioRegistry() = default;
AudioRegistry::~AudioRegistry() = default;

std::optional<RegistryValue> AudioRegistry::OtherValue(const RegistryDevice&, RegistryRole,
                                                       const std::string&) {
    return std::nullopt;
}

AudioRegistry::ObjectPointer AudioRegistry::Find(io_object_t object) {
    const auto found = held.find(object);
    return found == held.end() ? nullptr : found->second;
}

AudioRegistry::ObjectPointer AudioRegistry::FindEntry(io_object_t object, const char* plane) {
    ObjectPointer found = Find(object);
    const bool isInPlane = found != nullptr && !found->isIterator && plane != nullptr &&
                           std::strcmp(plane, kServicePlane) == 0;
    return isInPlane ? found : nullptr;
}

bool AudioRegistry::IsAttached(const Object& entry) {
    return entry.deviceIsThere && IsPresent(*entry.device, entry.role);
}

void AudioRegistry::Update() {
    const std::vector<RegistryDevice> devices = Devices();
    std::erase_if(entries, [&devices](const ObjectPointer& entry) {
        entry->deviceIsThere =
            std::find(devices.begin(), devices.end(), *entry->device) != devices.end();
        return !entry->deviceIsThere;
    });
    for (const RegistryDevice& device : devices) {
        const bool known =
            std::any_of(entries.begin(), entries.end(),
                        [&device](const auto& entry) { return *entry->device == device; });
        if (!known) {
            AddEntries(device);
        }
    }
}

void AudioRegistry::AddEntries(const RegistryDevice& device) {
    const auto shared = std::make_shared<const RegistryDevice>(device);
    std::vector<ObjectPointer> added;
    // Values are made in their places: a variant whose own copying throws is not safe.
    const auto add = [&added, &shared](
                         RegistryRole role, const char* className,
                         std::vector<RegistryRole> parents,
                         std::optional<std::uint8_t> interfaceNumber = {}) -> Properties& {
        auto entry = std::make_shared<Object>();
        if (shared->usb.has_value() && role != RegistryRole::Control &&
            role != RegistryRole::Stream) {
            entry->properties["idVendor"] = std::int64_t{shared->usb->vendorId};
            entry->properties["idProduct"] = std::int64_t{shared->usb->productId};
        }
        if (interfaceNumber.has_value()) {
            entry->properties["bInterfaceNumber"] = std::int64_t{*interfaceNumber};
        }
        entry->classes = {"OSObject", "IORegistryEntry", "IOService", className};
        entry->device = shared;
        entry->role = role;
        entry->interfaceNumber = interfaceNumber;
        entry->parents = std::move(parents);
        added.push_back(std::move(entry));
        return added.back()->properties;
    };
    if (device.usb.has_value()) {
        Properties& usb = add(RegistryRole::UsbDevice, "IOUSBDevice", {});
        usb["USB Product Name"] = std::string(device.name);
        if (device.usb->controlInterface.has_value()) {
            add(RegistryRole::ControlInterface, "IOUSBInterface", {RegistryRole::UsbDevice},
                device.usb->controlInterface);
        }
        if (device.usb->streamingInterface.has_value()) {
            add(RegistryRole::StreamingInterface, "IOUSBInterface", {RegistryRole::UsbDevice},
                device.usb->streamingInterface);
        }
    }
    Properties& engine =
        add(RegistryRole::Engine, "IOAudioEngine", {RegistryRole::ControlInterface});
    engine["IOAudioEngineGlobalUniqueID"] = std::string(device.uid);
    engine["IOAudioEngineDescription"] = std::string(device.name);
    add(RegistryRole::Control, "IOAudioControl", {RegistryRole::Engine});
    if (device.hasInputStream) {
        Properties& stream = add(RegistryRole::Stream, "IOAudioStream",
                                 {RegistryRole::Engine, RegistryRole::StreamingInterface});
        stream["IOAudioStreamDirection"] = kInputDirection;
        stream["IOAudioStreamID"] = std::int64_t{0};
    }
    entries.reserve(entries.size() + added.size());  // all of them, or none
    for (ObjectPointer& entry : added) {
        entry->id = ++lastId;
        entries.push_back(std::move(entry));
    }
}

std::vector<AudioRegistry::ObjectPointer> AudioRegistry::Relatives(const Object& from,
                                                                   Direction direction) {
    Update();
    std::vector<ObjectPointer> relatives;
    if (!IsAttached(from)) {
        return relatives;
    }
    const auto isParent = [](const Object& parent, const Object& child) {
        return std::find(child.parents.begin(), child.parents.end(), parent.role) !=
               child.parents.end();
    };
    for (const ObjectPointer& other : entries) {
        if (other->device == from.device && IsAttached(*other) &&
            (direction == Direction::Children ? isParent(from, *other) : isParent(*other, from))) {
            relatives.push_back(other);
        }
    }
    if (direction == Direction::Parents) {
        // In the order in which the entry lists them: its provider comes first.
        std::stable_sort(relatives.begin(), relatives.end(),
                         [&from](const ObjectPointer& a, const ObjectPointer& b) {
                             const auto& order = from.parents;
                             return std::find(order.begin(), order.end(), a->role) <
                                    std::find(order.begin(), order.end(), b->role);
                         });
    }
    return relatives;
}

io_object_t AudioRegistry::HandOut(const ObjectPointer& object) {
    held[object->id] = object;  // first: what is counted is held
    ++object->userCount;
    return object->id;
}

io_iterator_t AudioRegistry::MakeIterator(std::vector<ObjectPointer> results) {
    auto iterator = std::make_shared<Object>();
    iterator->id = ++lastId;
    iterator->classes = {"OSObject", "OSIterator"};
    iterator->isIterator = true;
    iterator->results = std::move(results);
    return HandOut(iterator);
}

kern_return_t AudioRegistry::GetMatchingServices(const char* className, io_iterator_t* iterator) {
    CallBegins();
    const MutexLock lock(mutex);
    if (className == nullptr || iterator == nullptr) {
        return kIOReturnError;
    }
    if (const kern_return_t fault = MatchingFault(); fault != kIOReturnSuccess) {
        return fault;
    }
    Update();
    std::vector<ObjectPointer> results;
    for (const ObjectPointer& entry : entries) {
        if (IsAttached(*entry) && Contains(entry->classes, className)) {
            results.push_back(entry);
        }
    }
    *iterator = MakeIterator(std::move(results));
    return kIOReturnSuccess;
}

io_object_t AudioRegistry::IteratorNext(io_iterator_t iterator) {
    CallBegins();
    const MutexLock lock(mutex);
    const ObjectPointer object = Find(iterator);
    if (object == nullptr || !object->isIterator || object->next >= object->results.size()) {
        return IO_OBJECT_NULL;
    }
    const io_object_t next = HandOut(object->results[object->next]);
    ++object->next;  // only what has been handed out
    return next;
}

void AudioRegistry::IteratorReset(io_iterator_t iterator) {
    CallBegins();
    const MutexLock lock(mutex);
    if (const ObjectPointer object = Find(iterator); object != nullptr) {
        object->next = 0;
    }
}

kern_return_t AudioRegistry::FirstRelative(io_registry_entry_t entry, const char* plane,
                                           Direction direction, io_registry_entry_t* relative) {
    const MutexLock lock(mutex);
    const ObjectPointer from = FindEntry(entry, plane);
    if (from == nullptr || relative == nullptr) {
        return kIOReturnNoDevice;
    }
    const std::vector<ObjectPointer> relatives = Relatives(*from, direction);
    if (relatives.empty()) {
        return kIOReturnNoDevice;
    }
    *relative = HandOut(relatives.front());
    return kIOReturnSuccess;
}

kern_return_t AudioRegistry::RelativeIterator(io_registry_entry_t entry, const char* plane,
                                              Direction direction, io_iterator_t* iterator) {
    const MutexLock lock(mutex);
    const ObjectPointer from = FindEntry(entry, plane);
    if (from == nullptr || iterator == nullptr) {
        return kIOReturnError;
    }
    *iterator = MakeIterator(Relatives(*from, direction));
    return kIOReturnSuccess;
}

kern_return_t AudioRegistry::GetChildEntry(io_registry_entry_t entry, const char* plane,
                                           io_registry_entry_t* child) {
    CallBegins();
    return FirstRelative(entry, plane, Direction::Children, child);
}

kern_return_t AudioRegistry::GetChildIterator(io_registry_entry_t entry, const char* plane,
                                              io_iterator_t* iterator) {
    CallBegins();
    return RelativeIterator(entry, plane, Direction::Children, iterator);
}

kern_return_t AudioRegistry::GetParentEntry(io_registry_entry_t entry, const char* plane,
                                            io_registry_entry_t* parent) {
    CallBegins();
    return FirstRelative(entry, plane, Direction::Parents, parent);
}

kern_return_t AudioRegistry::GetParentIterator(io_registry_entry_t entry, const char* plane,
                                               io_iterator_t* iterator) {
    CallBegins();
    return RelativeIterator(entry, plane, Direction::Parents, iterator);
}

bool AudioRegistry::ConformsTo(io_object_t object, const char* className) {
    CallBegins();
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(object);
    return found != nullptr && className != nullptr && Contains(found->classes, className);
}

RegistryValue AudioRegistry::SearchProperty(io_registry_entry_t entry, const char* plane,
                                            const char* key) {
    CallBegins();
    const MutexLock lock(mutex);
    const ObjectPointer found = FindEntry(entry, plane);
    if (found == nullptr || key == nullptr) {
        return std::monostate{};
    }
    if (const auto other = OtherValue(*found->device, found->role, key); other.has_value()) {
        return *other;
    }
    const auto property = found->properties.find(key);
    if (property == found->properties.end()) {
        return std::monostate{};
    }
    if (const auto* const text = std::get_if<std::string>(&property->second)) {
        std::string copy = *text;  // by itself: a variant whose own copying throws is not safe
        return copy;
    }
    return property->second;
}

void AudioRegistry::Retain(io_object_t object) {
    CallBegins();
    const MutexLock lock(mutex);
    if (const ObjectPointer found = Find(object); found != nullptr) {
        ++found->userCount;
    }
}

void AudioRegistry::Release(io_object_t object) {
    CallBegins();
    if (object == IO_OBJECT_NULL) {
        return;
    }
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(object);
    if (found == nullptr) {
        ++excessReleases;
    } else if (--found->userCount == 0) {
        held.erase(object);
    }
}

std::uint32_t AudioRegistry::GetKernelRetainCount(io_object_t object) {
    CallBegins();
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(object);
    if (found == nullptr) {
        return 0;
    }
    Update();
    const bool inRegistry = !found->isIterator && IsAttached(*found);
    return inRegistry ? 2 : 1;
}

std::uint32_t AudioRegistry::GetUserRetainCount(io_object_t object) {
    CallBegins();
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(object);
    return found == nullptr ? 0 : found->userCount;
}

std::unique_ptr<UsbInterface> AudioRegistry::CreateUsbInterface(io_object_t entry) {
    CallBegins();
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(entry);
    if (found == nullptr || !found->interfaceNumber.has_value()) {
        return nullptr;
    }
    Update();
    return IsAttached(*found) ? OpenUsbInterface(*found->device, *found->interfaceNumber) : nullptr;
}

std::uint64_t AudioRegistry::References() {
    const MutexLock lock(mutex);
    std::uint64_t references = 0;
    for (const auto& [id, object] : held) {
        references += object->userCount;
    }
    return references;
}

std::uint64_t AudioRegistry::ExcessReleases() {
    const MutexLock lock(mutex);
    return excessReleases;
}

}  // namespace vorrel
