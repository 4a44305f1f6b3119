#pragma once

#include <chrono>
#include <memory>

#include "platform/Mutex.h"

namespace vorrel {

/// The time by which a capture thread delivers. A test puts its own in the place of the system's
/// and advances it. Any thread may call.
class IoClock {
public:
    using Time = std::chrono::steady_clock::time_point;

    virtual ~IoClock() = default;

    /// Never goes back. Takes no lock of the engine's, which may be held.
    virtual Time Now() = 0;
    /// Waits until `due`, or until `wake` is notified, or for less.
    virtual void WaitUntil(ConditionVariable& wake, Mutex& mutex, Time due)
        VORREL_REQUIRES(mutex) = 0;
    /// Called by the capture thread between its wait for a buffer and the delivery, no lock held.
    virtual void BufferIsDue() {}
};

/// The system's steady clock.
std::shared_ptr<IoClock> MakeSteadyClock();

}  // namespace vorrel
