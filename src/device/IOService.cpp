#include "device/IOService.h"

namespace vorrel {

IOIterator IOServiceGetMatchingServices(const std::shared_ptr<RegistryBackend>& registry,
                                        const char* className) {
    io_iterator_t iterator = IO_OBJECT_NULL;
    if (registry == nullptr ||
        registry->GetMatchingServices(className, &iterator) != kIOReturnSuccess) {
        return {};
    }
    return {registry, iterator};
}

}  // namespace vorrel
