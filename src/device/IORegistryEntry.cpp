#include "device/IORegistryEntry.h"

#include <utility>
#include <variant>

namespace vorrel {

IORegistryEntry IORegistryEntry::GetChildEntry(const char* plane) const {
    io_registry_entry_t child = IO_OBJECT_NULL;
    if (Handle() == IO_OBJECT_NULL ||
        Backend()->GetChildEntry(Handle(), plane, &child) != kIOReturnSuccess) {
        return {};
    }
    return {Backend(), child};
}

IOIterator IORegistryEntry::GetChildIterator(const char* plane) const {
    io_iterator_t iterator = IO_OBJECT_NULL;
    if (Handle() == IO_OBJECT_NULL ||
        Backend()->GetChildIterator(Handle(), plane, &iterator) != kIOReturnSuccess) {
        return {};
    }
    return {Backend(), iterator};
}

IORegistryEntry IORegistryEntry::GetParentEntry(const char* plane) const {
    io_registry_entry_t parent = IO_OBJECT_NULL;
    if (Handle() == IO_OBJECT_NULL ||
        Backend()->GetParentEntry(Handle(), plane, &parent) != kIOReturnSuccess) {
        return {};
    }
    return {Backend(), parent};
}

IOIterator IORegistryEntry::GetParentIterator(const char* plane) const {
    io_iterator_t iterator = IO_OBJECT_NULL;
    if (Handle() == IO_OBJECT_NULL ||
        Backend()->GetParentIterator(Handle(), plane, &iterator) != kIOReturnSuccess) {
        return {};
    }
    return {Backend(), iterator};
}

RegistryValue IORegistryEntry::SearchCFProperty(const char* plane, const char* key) const {
    return Handle() == IO_OBJECT_NULL ? RegistryValue()
                                      : Backend()->SearchProperty(Handle(), plane, key);
}

bool IORegistryEntry::SearchProperty(const char* plane, const char* key, std::string& text) const {
    RegistryValue value = SearchCFProperty(plane, key);
    auto* found = std::get_if<std::string>(&value);
    if (found == nullptr) {
        return false;
    }
    text = std::move(*found);
    return true;
}

bool IORegistryEntry::SearchProperty(const char* plane, const char* key,
                                     std::int32_t& number) const {
    const RegistryValue value = SearchCFProperty(plane, key);
    const auto* found = std::get_if<std::int64_t>(&value);
    // A number cut to 32 bits could pass for another device's id.
    if (found == nullptr || !std::in_range<std::int32_t>(*found)) {
        return false;
    }
    number = static_cast<std::int32_t>(*found);
    return true;
}

}  // namespace vorrel
