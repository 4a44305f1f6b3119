#pragma once

#include <cstdint>
#include <functional>

#include "platform/Mutex.h"

namespace vorrel {

/// Counts the calls that reach the back ends and lets a test make something happen between two of
/// them. Any thread.
class CallHook {
public:
    /// Runs `action` once, before the `nth` call from now (1: the next one), on the thread that
    /// makes it, no lock held. It may make calls itself. Takes the place of one still to come; null
    /// takes that back.
    void Before(std::uint64_t nth, std::function<void()> action) VORREL_EXCLUDES(mutex);
    /// Calls so far.
    std::uint64_t Count() VORREL_EXCLUDES(mutex);

    /// A call begins.
    void Pass() VORREL_EXCLUDES(mutex);

private:
    Mutex mutex;
    std::uint64_t count VORREL_GUARDED_BY(mutex) = 0;
    std::uint64_t target VORREL_GUARDED_BY(mutex) = 0;
    std::function<void()> pending VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel
