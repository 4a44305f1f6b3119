#pragma once

#include "pipeline/ThreadBase.h"

namespace vorrel {

/// What tests see of a worker's inside.
struct ThreadBaseParts {
    static Priority PriorityOf(const ThreadBase& worker) { return worker.priority; }
};

}  // namespace vorrel
