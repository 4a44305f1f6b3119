#pragma once

#include <cstddef>

namespace vorrel::test {

/// Counts the mutexes that a thread locks inside a `vorrel::RealtimeScope`, for as long as the
/// guard lives. A test program gets it by linking `vorrel_test_lock_guard`, which has the linker
/// send the calls of everything that is linked statically here first. One guard at a time.
class LockGuard {
public:
    LockGuard();
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

    /// Locks that were taken.
    std::size_t Count() const;
    /// How many different mutexes they were; 16 stands for more than that.
    std::size_t Mutexes() const;
    /// Calls that wait for something other than a mutex: a condition, a semaphore, a thread.
    std::size_t Waits() const;
};

}  // namespace vorrel::test
