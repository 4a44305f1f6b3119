#include "device/simulated/SimulatedRegistry.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vorrel {
namespace {

constexpr char kServicePlane[] = "IOService";
constexpr std::int64_t kInputDirection = 1;

class SimulatedUsbInterface final : public UsbInterface {
public:
    SimulatedUsbInterface(std::shared_ptr<SimulatedRecorder> owner, std::uint32_t madeInPlugging,
                          std::uint8_t interfaceNumber,
                          std::shared_ptr<std::atomic<std::uint32_t>> aliveCount,
                          std::shared_ptr<CallHook> callHook)
        : recorder(std::move(owner)),
          plugging(madeInPlugging),
          number(interfaceNumber),
          count(std::move(aliveCount)),
          hook(std::move(callHook)) {
        ++*count;
    }
    ~SimulatedUsbInterface() override { --*count; }
    SimulatedUsbInterface(const SimulatedUsbInterface&) = delete;
    SimulatedUsbInterface& operator=(const SimulatedUsbInterface&) = delete;

    IOReturn GetInterfaceNumber(std::uint8_t* asked) override {
        hook->Pass();
        return recorder->GetInterfaceNumber(plugging, number, asked);
    }
    IOReturn ControlRequest(const UsbControlRequest& request) override {
        hook->Pass();
        return recorder->ControlRequest(plugging, number, request);
    }

private:
    const std::shared_ptr<SimulatedRecorder> recorder;
    const std::uint32_t plugging;
    const std::uint8_t number;
    const std::shared_ptr<std::atomic<std::uint32_t>> count;
    const std::shared_ptr<CallHook> hook;
};

}  // namespace

/// An entry of a recorder, or an iterator over entries.
struct SimulatedRegistry::Object {
    io_object_t id = IO_OBJECT_NULL;
    std::uint32_t userCount = 0;
    std::vector<std::string> classes;  // its own last

    // Entry.
    std::size_t index = 0;
    std::uint32_t plugging = 0;
    RegistryRole role = RegistryRole::UsbDevice;
    std::map<std::string, RegistryValue> properties;
    std::vector<RegistryRole> parents;

    // Iterator.
    bool isIterator = false;
    std::vector<ObjectPointer> results;
    std::size_t next = 0;
};

SimulatedRegistry::SimulatedRegistry(std::vector<std::shared_ptr<SimulatedRecorder>> allRecorders,
                                     std::shared_ptr<CallHook> callHook)
    : recorders(std::move(allRecorders)),
      usbInterfaces(std::make_shared<std::atomic<std::uint32_t>>(0)),
      hook(std::move(callHook)) {}

SimulatedRegistry::~SimulatedRegistry() = default;

SimulatedRegistry::ObjectPointer SimulatedRegistry::Find(io_object_t object) {
    const auto found = held.find(object);
    return found == held.end() ? nullptr : found->second;
}

bool SimulatedRegistry::IsAttached(const Object& entry) {
    const auto& recorder = recorders[entry.index];
    return recorder->IsPlugged() && recorder->Plugging() == entry.plugging &&
           !absent[{entry.index, entry.role}];
}

void SimulatedRegistry::Update() {
    std::erase_if(entries, [this](const ObjectPointer& entry) {
        const auto& recorder = recorders[entry->index];
        return !recorder->IsPlugged() || recorder->Plugging() != entry->plugging;
    });
    for (std::size_t index = 0; index < recorders.size(); ++index) {
        const bool known = std::any_of(entries.begin(), entries.end(), [index](const auto& entry) {
            return entry->index == index;
        });
        if (!known && recorders[index]->IsPlugged()) {
            AddEntries(index, recorders[index]->Plugging());
        }
    }
}

void SimulatedRegistry::AddEntries(std::size_t index, std::uint32_t plugging) {
    const SimulatedRecorder& recorder = *recorders[index];
    const SimulatedRecorderConfig& config = recorder.Config();
    const std::map<std::string, RegistryValue> usbIds = {
        {"idVendor", std::int64_t{config.vendorId}}, {"idProduct", std::int64_t{config.productId}}};
    std::vector<ObjectPointer> added;
    const auto add = [&added, index, plugging](RegistryRole role, const char* className,
                                               std::vector<RegistryRole> parents,
                                               std::map<std::string, RegistryValue> properties) {
        auto entry = std::make_shared<Object>();
        entry->classes = {"OSObject", "IORegistryEntry", "IOService", className};
        entry->index = index;
        entry->plugging = plugging;
        entry->role = role;
        entry->properties = std::move(properties);
        entry->parents = std::move(parents);
        added.push_back(std::move(entry));
    };
    const auto withIds = [&usbIds](std::map<std::string, RegistryValue> properties) {
        properties.insert(usbIds.begin(), usbIds.end());
        return properties;
    };
    add(RegistryRole::UsbDevice, "IOUSBDevice", {}, withIds({{"USB Product Name", config.name}}));
    add(RegistryRole::ControlInterface, "IOUSBInterface", {RegistryRole::UsbDevice},
        withIds({{"bInterfaceNumber", std::int64_t{0}}}));
    add(RegistryRole::StreamingInterface, "IOUSBInterface", {RegistryRole::UsbDevice},
        withIds({{"bInterfaceNumber", std::int64_t{SimulatedRecorder::kStreamingInterface}}}));
    add(RegistryRole::Engine, "IOAudioEngine", {RegistryRole::ControlInterface},
        withIds({{"IOAudioEngineGlobalUniqueID", recorder.Uid()},
                 {"IOAudioEngineDescription", config.name}}));
    add(RegistryRole::Control, "IOAudioControl", {RegistryRole::Engine}, {});
    add(RegistryRole::Stream, "IOAudioStream",
        {RegistryRole::Engine, RegistryRole::StreamingInterface},
        {{"IOAudioStreamDirection", kInputDirection}, {"IOAudioStreamID", std::int64_t{0}}});
    for (ObjectPointer& entry : added) {
        entry->id = ++lastId;
        entries.push_back(std::move(entry));
    }
}

std::vector<SimulatedRegistry::ObjectPointer> SimulatedRegistry::Relatives(
    io_registry_entry_t entry, const char* plane, Direction direction) {
    Update();
    const ObjectPointer from = Find(entry);
    std::vector<ObjectPointer> relatives;
    if (from == nullptr || from->isIterator || plane == nullptr ||
        std::strcmp(plane, kServicePlane) != 0 || !IsAttached(*from)) {
        return relatives;
    }
    const auto isParent = [](const Object& parent, const Object& child) {
        return std::find(child.parents.begin(), child.parents.end(), parent.role) !=
               child.parents.end();
    };
    for (const ObjectPointer& other : entries) {
        if (other->index == from->index && IsAttached(*other) &&
            (direction == Direction::Children ? isParent(*from, *other)
                                              : isParent(*other, *from))) {
            relatives.push_back(other);
        }
    }
    if (direction == Direction::Parents) {
        // In the order in which the entry lists them: its provider comes first.
        std::stable_sort(relatives.begin(), relatives.end(),
                         [&from](const ObjectPointer& a, const ObjectPointer& b) {
                             const auto& order = from->parents;
                             return std::find(order.begin(), order.end(), a->role) <
                                    std::find(order.begin(), order.end(), b->role);
                         });
    }
    return relatives;
}

io_object_t SimulatedRegistry::HandOut(const ObjectPointer& object) {
    ++object->userCount;
    held[object->id] = object;
    return object->id;
}

io_iterator_t SimulatedRegistry::MakeIterator(std::vector<ObjectPointer> results) {
    auto iterator = std::make_shared<Object>();
    iterator->id = ++lastId;
    iterator->classes = {"OSObject", "OSIterator"};
    iterator->isIterator = true;
    iterator->results = std::move(results);
    return HandOut(iterator);
}

kern_return_t SimulatedRegistry::GetMatchingServices(const char* className,
                                                     io_iterator_t* iterator) {
    hook->Pass();
    const MutexLock lock(mutex);
    if (className == nullptr || iterator == nullptr) {
        return kIOReturnError;
    }
    if (matchingFault != kIOReturnSuccess) {
        return matchingFault;
    }
    Update();
    std::vector<ObjectPointer> results;
    for (const ObjectPointer& entry : entries) {
        const auto& classes = entry->classes;
        if (IsAttached(*entry) &&
            std::find(classes.begin(), classes.end(), className) != classes.end()) {
            results.push_back(entry);
        }
    }
    *iterator = MakeIterator(std::move(results));
    return kIOReturnSuccess;
}

io_object_t SimulatedRegistry::IteratorNext(io_iterator_t iterator) {
    hook->Pass();
    const MutexLock lock(mutex);
    const ObjectPointer object = Find(iterator);
    if (object == nullptr || !object->isIterator || object->next >= object->results.size()) {
        return IO_OBJECT_NULL;
    }
    return HandOut(object->results[object->next++]);
}

void SimulatedRegistry::IteratorReset(io_iterator_t iterator) {
    hook->Pass();
    const MutexLock lock(mutex);
    if (const ObjectPointer object = Find(iterator); object != nullptr) {
        object->next = 0;
    }
}

kern_return_t SimulatedRegistry::FirstRelative(io_registry_entry_t entry, const char* plane,
                                               Direction direction, io_registry_entry_t* relative) {
    const MutexLock lock(mutex);
    const std::vector<ObjectPointer> relatives = Relatives(entry, plane, direction);
    if (relatives.empty() || relative == nullptr) {
        return kIOReturnNoDevice;
    }
    *relative = HandOut(relatives.front());
    return kIOReturnSuccess;
}

kern_return_t SimulatedRegistry::RelativeIterator(io_registry_entry_t entry, const char* plane,
                                                  Direction direction, io_iterator_t* iterator) {
    const MutexLock lock(mutex);
    const ObjectPointer from = Find(entry);
    if (from == nullptr || from->isIterator || plane == nullptr || iterator == nullptr ||
        std::strcmp(plane, kServicePlane) != 0) {
        return kIOReturnError;
    }
    *iterator = MakeIterator(Relatives(entry, plane, direction));
    return kIOReturnSuccess;
}

kern_return_t SimulatedRegistry::GetChildEntry(io_registry_entry_t entry, const char* plane,
                                               io_registry_entry_t* child) {
    hook->Pass();
    return FirstRelative(entry, plane, Direction::Children, child);
}

kern_return_t SimulatedRegistry::GetChildIterator(io_registry_entry_t entry, const char* plane,
                                                  io_iterator_t* iterator) {
    hook->Pass();
    return RelativeIterator(entry, plane, Direction::Children, iterator);
}

kern_return_t SimulatedRegistry::GetParentEntry(io_registry_entry_t entry, const char* plane,
                                                io_registry_entry_t* parent) {
    hook->Pass();
    return FirstRelative(entry, plane, Direction::Parents, parent);
}

kern_return_t SimulatedRegistry::GetParentIterator(io_registry_entry_t entry, const char* plane,
                                                   io_iterator_t* iterator) {
    hook->Pass();
    return RelativeIterator(entry, plane, Direction::Parents, iterator);
}

bool SimulatedRegistry::ConformsTo(io_object_t object, const char* className) {
    hook->Pass();
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(object);
    return found != nullptr && className != nullptr &&
           std::find(found->classes.begin(), found->classes.end(), className) !=
               found->classes.end();
}

RegistryValue SimulatedRegistry::SearchProperty(io_registry_entry_t entry, const char* plane,
                                                const char* key) {
    hook->Pass();
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(entry);
    if (found == nullptr || found->isIterator || plane == nullptr || key == nullptr ||
        std::strcmp(plane, kServicePlane) != 0) {
        return std::monostate{};
    }
    if (const auto value = values.find({found->index, found->role, key}); value != values.end()) {
        return value->second;
    }
    const auto property = found->properties.find(key);
    return property == found->properties.end() ? RegistryValue{} : property->second;
}

void SimulatedRegistry::Retain(io_object_t object) {
    hook->Pass();
    const MutexLock lock(mutex);
    if (const ObjectPointer found = Find(object); found != nullptr) {
        ++found->userCount;
    }
}

void SimulatedRegistry::Release(io_object_t object) {
    hook->Pass();
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

std::uint32_t SimulatedRegistry::GetKernelRetainCount(io_object_t object) {
    hook->Pass();
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(object);
    if (found == nullptr) {
        return 0;
    }
    const bool inRegistry = !found->isIterator && IsAttached(*found);
    return inRegistry ? 2 : 1;
}

std::uint32_t SimulatedRegistry::GetUserRetainCount(io_object_t object) {
    hook->Pass();
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(object);
    return found == nullptr ? 0 : found->userCount;
}

std::unique_ptr<UsbInterface> SimulatedRegistry::CreateUsbInterface(io_object_t entry) {
    hook->Pass();
    const MutexLock lock(mutex);
    const ObjectPointer found = Find(entry);
    if (found == nullptr || found->isIterator || !usbInterfaceAvailable || !IsAttached(*found) ||
        (found->role != RegistryRole::ControlInterface &&
         found->role != RegistryRole::StreamingInterface)) {
        return nullptr;
    }
    const std::uint8_t number = found->role == RegistryRole::StreamingInterface
                                    ? SimulatedRecorder::kStreamingInterface
                                    : std::uint8_t{0};
    return std::make_unique<SimulatedUsbInterface>(recorders[found->index], found->plugging, number,
                                                   usbInterfaces, hook);
}

void SimulatedRegistry::SetValue(std::size_t index, RegistryRole role, const std::string& key,
                                 RegistryValue value) {
    const MutexLock lock(mutex);
    values[{index, role, key}] = std::move(value);
}

void SimulatedRegistry::SetPresent(std::size_t index, RegistryRole role, bool present) {
    const MutexLock lock(mutex);
    absent[{index, role}] = !present;
}

void SimulatedRegistry::FailMatching(kern_return_t status) {
    const MutexLock lock(mutex);
    matchingFault = status;
}

void SimulatedRegistry::SetUsbInterfaceAvailable(bool available) {
    const MutexLock lock(mutex);
    usbInterfaceAvailable = available;
}

std::uint64_t SimulatedRegistry::References() {
    const MutexLock lock(mutex);
    std::uint64_t references = 0;
    for (const auto& [id, object] : held) {
        references += object->userCount;
    }
    return references;
}

std::uint64_t SimulatedRegistry::ExcessReleases() {
    const MutexLock lock(mutex);
    return excessReleases;
}

}  // namespace vorrel
