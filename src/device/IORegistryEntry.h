#pragma once

#include <cstdint>
#include <string>

#include "device/IOIterator.h"
#include "device/IOObject.h"

namespace vorrel {

/// One entry of the device registry: its properties, and its neighbours in a plane. Calls that
/// find nothing, and all calls of a null entry, give null objects or false.
class IORegistryEntry : public IOObject {
public:
    using IOObject::IOObject;

    /// The first child.
    IORegistryEntry GetChildEntry(const char* plane) const;
    IOIterator GetChildIterator(const char* plane) const;
    /// The first parent.
    IORegistryEntry GetParentEntry(const char* plane) const;
    IOIterator GetParentIterator(const char* plane) const;

    // A search looks at the entry itself only, at none of its neighbours.

    /// The value as it stands, of any type.
    RegistryValue SearchCFProperty(const char* plane, const char* key) const;
    /// Accepted only when the value is a text; `text` (UTF-8) keeps its content otherwise.
    bool SearchProperty(const char* plane, const char* key, std::string& text) const;
    /// Accepted only when the value is a number that fits; `number` keeps its value otherwise.
    bool SearchProperty(const char* plane, const char* key, std::int32_t& number) const;
};

}  // namespace vorrel
