#pragma once

#include <algorithm>

#include "pipeline/AsioDataQueue.h"

namespace vorrel {

/// What tests see of the capture queue's inside.
struct AsioDataQueueParts {
    static Mutex& MutexOf(AsioDataQueue& queue) { return queue.mutex; }
    /// Whether no channel has a block that waits.
    static bool IsEmpty(AsioDataQueue& queue) {
        const MutexLock lock(queue.mutex);
        return std::all_of(queue.channelQueues.begin(), queue.channelQueues.end(),
                           [](const auto& ring) { return ring.Size() == 0; });
    }
};

}  // namespace vorrel
