#pragma once

#include "device/IOObject.h"

namespace vorrel {

class IORegistryEntry;

/// A walk over registry entries. A null one is at its end.
class IOIterator : public IOObject {
public:
    using IOObject::IOObject;

    /// The next entry, or a null one at the end.
    IORegistryEntry Next() const;
    /// Begins again with the first entry.
    void Reset() const;
};

}  // namespace vorrel
