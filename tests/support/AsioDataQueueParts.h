#pragma once

#include "pipeline/AsioDataQueue.h"

namespace vorrel {

/// What tests see of the capture queue's inside.
struct AsioDataQueueParts {
    static Mutex& MutexOf(AsioDataQueue& queue) { return queue.mutex; }
};

}  // namespace vorrel
