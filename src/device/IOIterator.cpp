#include "device/IOIterator.h"

#include "device/IORegistryEntry.h"

namespace vorrel {

IORegistryEntry IOIterator::Next() const {
    return Handle() == IO_OBJECT_NULL
               ? IORegistryEntry()
               : IORegistryEntry(Backend(), Backend()->IteratorNext(Handle()));
}

void IOIterator::Reset() const {
    if (Handle() != IO_OBJECT_NULL) {
        Backend()->IteratorReset(Handle());
    }
}

}  // namespace vorrel
