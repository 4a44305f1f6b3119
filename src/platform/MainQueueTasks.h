#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>

#include "platform/Realtime.h"

namespace vorrel {

/// Submits a task for the host's main thread (`MainQueue::Dispatch`). Any thread; never blocks.
void PostToMainQueue(std::function<void()> task);

/// A task that the device's thread may submit: all that it needs is allocated when it is made.
/// The same task may wait in the queue `kCopies` times at once.
class RealtimeTask {
public:
    static constexpr std::size_t kCopies = 16;

    /// @param task  What `Post` submits; runs on the host's main thread.
    explicit RealtimeTask(std::function<void()> task);
    /// What was posted is still delivered.
    ~RealtimeTask();
    RealtimeTask(const RealtimeTask&) = delete;
    RealtimeTask& operator=(const RealtimeTask&) = delete;

    /// Submits the task, in order with `PostToMainQueue`, without allocating or locking.
    /// @return false when all copies still wait; nothing is submitted then.
    VORREL_REALTIME bool Post() noexcept;

private:
    struct Copies;
    std::shared_ptr<Copies> copies;  // kept alive by every copy that waits in the queue
};

}  // namespace vorrel
