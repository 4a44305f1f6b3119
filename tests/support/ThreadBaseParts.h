#pragma once

#include "pipeline/ThreadBase.h"

namespace vorrel {

/// What tests see of a worker's inside.
struct ThreadBaseParts {
    static Priority PriorityOf(const ThreadBase& worker) { return worker.priority; }
    static bool IsSet(const ThreadBase& worker, unsigned event) {
        const MutexLock lock(*worker.eventMutexes[event]);
        return *worker.eventFlags[event];
    }
};

}  // namespace vorrel
