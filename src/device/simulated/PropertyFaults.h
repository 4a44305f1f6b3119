#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "device/backend/CoreAudioTypes.h"
#include "platform/Mutex.h"

namespace vorrel {

enum class PropertyOperation { Read, Write, Size };  ///< Get data or text; set data; get size.

/// One way in which a property fails.
struct PropertyFault {
    AudioObjectPropertySelector selector = 0;
    PropertyOperation operation = PropertyOperation::Read;
    OSStatus status = kAudioHardwareUnspecifiedError;
    std::uint32_t skip = 0;  ///< So many such calls still succeed before.
    std::uint32_t count = std::numeric_limits<std::uint32_t>::max();  ///< So many then fail.
};

/// The faults set on an object's properties. Any thread, at any time.
class PropertyFaults {
public:
    /// A value of another type than the property's own; the first alternative for none.
    using OtherValue = std::variant<std::monostate, std::string, UInt32>;

    void Add(const PropertyFault& fault) VORREL_EXCLUDES(mutex);
    /// Reports `sizeBytes` as the property's size and delivers that many bytes of it, zeros behind.
    /// A text is refused with '!siz' instead: it has no other size than its own.
    void SetSize(AudioObjectPropertySelector selector, UInt32 sizeBytes) VORREL_EXCLUDES(mutex);
    /// The property is a text from now on, whatever it is otherwise: who asks for bytes or for
    /// their size gets '!siz'.
    void SetText(AudioObjectPropertySelector selector, const std::string& text)
        VORREL_EXCLUDES(mutex);
    /// The property is a `UInt32` from now on: who asks for a text gets '!siz'.
    void SetNumber(AudioObjectPropertySelector selector, UInt32 number) VORREL_EXCLUDES(mutex);
    /// Takes all of this back.
    void Clear() VORREL_EXCLUDES(mutex);

    /// Counts one call. @return the status it is to fail with, or 0.
    OSStatus Check(PropertyOperation operation, AudioObjectPropertySelector selector)
        VORREL_EXCLUDES(mutex);
    /// @return true when a size is set for the property.
    bool Size(AudioObjectPropertySelector selector, UInt32& sizeBytes) VORREL_EXCLUDES(mutex);
    /// The value that takes the property's place; empty for its own.
    OtherValue Value(AudioObjectPropertySelector selector) VORREL_EXCLUDES(mutex);

private:
    Mutex mutex;
    std::vector<PropertyFault> faults VORREL_GUARDED_BY(mutex);
    std::map<AudioObjectPropertySelector, UInt32> sizes VORREL_GUARDED_BY(mutex);
    std::map<AudioObjectPropertySelector, OtherValue> values VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel
