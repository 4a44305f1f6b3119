#include "device/UsbLookup.h"

#include "device/IORegistryEntry.h"
#include "device/IOService.h"

namespace vorrel {
namespace {

constexpr char kServicePlane[] = "IOService";
constexpr char kEngineClass[] = "IOAudioEngine";
constexpr char kEngineUidKey[] = "IOAudioEngineGlobalUniqueID";
constexpr std::int32_t kInputDirection = 1;

bool IsEngineOf(const IORegistryEntry& engine, const std::string& uid) {
    std::string engineUid;
    return engine.SearchProperty(kServicePlane, kEngineUidKey, engineUid) && engineUid == uid;
}

IORegistryEntry FindInputStream(const IORegistryEntry& engine) {
    const IOIterator children = engine.GetChildIterator(kServicePlane);
    while (IORegistryEntry child = children.Next()) {
        std::int32_t direction = 0;
        if (child.ConformsTo("IOAudioStream") &&
            child.SearchProperty(kServicePlane, "IOAudioStreamDirection", direction) &&
            direction == kInputDirection) {
            return child;
        }
    }
    return {};
}

IORegistryEntry FindUsbParent(const IORegistryEntry& inputStream) {
    const IOIterator parents = inputStream.GetParentIterator(kServicePlane);
    while (IORegistryEntry parent = parents.Next()) {
        if (parent.ConformsTo("IOUSBInterface")) {
            return parent;
        }
    }
    return {};
}

}  // namespace

bool FindUsbIds(const std::shared_ptr<RegistryBackend>& registry, const std::string& uid,
                std::int32_t& vendorId, std::int32_t& productId) {
    vendorId = -1;
    productId = -1;
    const IOIterator engines = IOServiceGetMatchingServices(registry, kEngineClass);
    while (const IORegistryEntry engine = engines.Next()) {
        std::int32_t vendor = 0;
        std::int32_t product = 0;
        if (engine.SearchProperty(kServicePlane, "idVendor", vendor) &&
            engine.SearchProperty(kServicePlane, "idProduct", product) && IsEngineOf(engine, uid)) {
            vendorId = vendor;
            productId = product;
            return true;
        }
    }
    return false;
}

std::unique_ptr<UsbInterface> FindUsbInterface(const std::shared_ptr<RegistryBackend>& registry,
                                               const std::string& uid) {
    const IOIterator engines = IOServiceGetMatchingServices(registry, kEngineClass);
    while (const IORegistryEntry engine = engines.Next()) {
        if (IsEngineOf(engine, uid)) {
            // The first engine with the id decides; a null entry on the way ends in null.
            return FindUsbParent(FindInputStream(engine)).CreateUsbInterface();
        }
    }
    return nullptr;
}

}  // namespace vorrel
