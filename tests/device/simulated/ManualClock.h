#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>

#include "device/simulated/IoClock.h"

namespace vorrel::test {

/// A clock that stands still until the test advances it. Outlives no engine that it is given to:
/// advance it only while they live.
class ManualClock final : public IoClock {
public:
    using Duration = std::chrono::nanoseconds;

    Time Now() override {
        const MutexLock lock(mutex);
        return now;
    }
    void WaitUntil(ConditionVariable& wake, Mutex& engineMutex, Time due)
        VORREL_REQUIRES(engineMutex) override {
        {
            const MutexLock lock(mutex);
            if (now >= due) {
                return;
            }
            waiters[&engineMutex] = {&wake, due};
            waitBegins.NotifyAll();
        }
        wake.Wait(engineMutex);
        const MutexLock lock(mutex);
        waiters.erase(&engineMutex);
    }
    void BufferIsDue() override {
        ++dueBuffers;
        if (onBufferDue) {
            onBufferDue();
        }
    }

    /// Lets time pass and wakes who waits.
    void Advance(Duration duration) {
        std::map<Mutex*, Waiter> woken;
        {
            const MutexLock lock(mutex);
            now += duration;
            woken = waiters;
        }
        for (const auto& [engineMutex, waiter] : woken) {
            // Under its mutex, so that a thread which is about to wait is not missed.
            const MutexLock lock(*engineMutex);
            waiter.wake->NotifyAll();
        }
    }
    /// Returns when a capture thread waits for exactly that time since the clock was made.
    /// @return false when that has not come after ten seconds.
    bool WaitsFor(Duration sinceBeginning) {
        const Time due = Time{} + sinceBeginning;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        const MutexLock lock(mutex);
        const auto waits = [&]() VORREL_REQUIRES(mutex) {
            for (const auto& [engineMutex, waiter] : waiters) {
                if (waiter.due == due) {
                    return true;
                }
            }
            return false;
        };
        while (!waits()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            waitBegins.WaitFor(mutex, std::chrono::milliseconds(100));
        }
        return true;
    }

    std::function<void()> onBufferDue;  ///< Set before the start; on the capture thread, unlocked.
    std::atomic<std::uint64_t> dueBuffers{0};

private:
    struct Waiter {
        ConditionVariable* wake;
        Time due;
    };
    Mutex mutex;
    ConditionVariable waitBegins;
    Time now VORREL_GUARDED_BY(mutex);
    std::map<Mutex*, Waiter> waiters VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel::test
