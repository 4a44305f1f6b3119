#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "platform/Mutex.h"
#include "platform/Realtime.h"

namespace vorrel {

/// How a worker is scheduled: `SetCurrentThreadPriority` gets 0.5, 0.75 or 1.0. Other values count
/// as `PriorityNormal`.
enum Priority : std::uint32_t { PriorityNormal = 0, PriorityHigh = 1, PriorityHighest = 2 };

/// Owns at most one thread, which runs the derived class's `ThreadImpl`, and a few numbered
/// auto-reset events by which other threads wake it. A wake-up is a hint: drain, then wait again.
class ThreadBase {
public:
    /// One event, not set, and no thread.
    ThreadBase();
    /// @param count  Number of events; 0 counts as 1.
    explicit ThreadBase(unsigned count);
    /// Joins, and waits for detached bodies. A derived class stops its thread in its own
    /// destructor, before its members go; one that detaches itself calls `WaitFinished` there.
    virtual ~ThreadBase();
    ThreadBase(const ThreadBase&) = delete;
    ThreadBase& operator=(const ThreadBase&) = delete;

    /// Starts a thread that runs `ThreadImpl` at `priority`.
    /// @return false, changing nothing, while a joinable thread exists (also one whose body has
    ///         ended and that nobody has joined), or when the system gives no thread.
    bool Create(Priority priority);
    /// True from `Create` to `Join` or `Detach`, whether the body still runs or not. Any thread;
    /// takes no lock.
    VORREL_REALTIME bool Joinable() const;
    /// Waits for the body's end; returns at once where there is no thread. Of several callers at
    /// once one waits and the others return. Not to be called from the body.
    void Join();
    /// Lets the thread go: nobody joins it, and `Create` may start another body while this one is
    /// in its last lines. Nothing without a thread. May be called from the body itself.
    void Detach();
    /// Returns when no body runs any more, detached ones included. The caller sees to it that
    /// every body ends. Not to be called from a body.
    void WaitFinished() VORREL_EXCLUDES(bodyMutex);

    /// Sets event `n` and wakes one waiter; several sets before a wait are one. Any thread.
    /// For all events: n < the number of events.
    VORREL_REALTIME void SetEvent(unsigned n = 0);
    void ResetEvent(unsigned n = 0);
    /// Waits, without a time-out, until event `n` is set, and resets it.
    void WaitEvent(unsigned n = 0);
    /// Makes `count` new events (0 counts as 1), none set. Only while no thread waits on or sets
    /// an event.
    /// @return the new number of events.
    unsigned ResetEventNum(unsigned count);

protected:
    /// The worker's body. What it throws ends the body and is traced.
    virtual void ThreadImpl() = 0;

private:
    friend struct ThreadBaseParts;  // for tests
    static void ThreadProc(void* self);

    unsigned eventCount = 1;
    // Guarded by event 0's mutex: a worker that detaches itself meets its owner here.
    std::unique_ptr<std::thread> thread;
    std::vector<std::shared_ptr<Mutex>> eventMutexes;
    std::vector<std::shared_ptr<ConditionVariable>> eventConditions;
    std::vector<std::shared_ptr<bool>> eventFlags;  // each guarded by its event's mutex
    std::atomic<Priority> priority{PriorityNormal};

    std::atomic<bool> joinable{false};  // mirrors `thread` for callers that may take no lock
    Mutex bodyMutex;                    // short: no other lock under it
    ConditionVariable bodyFinished;
    unsigned runningBodies VORREL_GUARDED_BY(bodyMutex) = 0;
};

}  // namespace vorrel
