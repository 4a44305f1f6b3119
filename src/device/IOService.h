#pragma once

#include <memory>

#include "device/IOIterator.h"
#include "device/backend/RegistryBackend.h"

namespace vorrel {

/// A walk over all services of a class; null when there is no registry or the match fails.
IOIterator IOServiceGetMatchingServices(const std::shared_ptr<RegistryBackend>& registry,
                                        const char* className);

}  // namespace vorrel
