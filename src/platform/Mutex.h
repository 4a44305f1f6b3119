#pragma once

#include <condition_variable>
#include <mutex>

// Clang checks these at compile time (-Wthread-safety); other compilers see nothing.
#if defined(__clang__)
#define VORREL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VORREL_THREAD_ANNOTATION(x)
#endif
#define VORREL_GUARDED_BY(x) VORREL_THREAD_ANNOTATION(guarded_by(x))
#define VORREL_REQUIRES(...) VORREL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VORREL_EXCLUDES(...) VORREL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

namespace vorrel {

/// Asks for a mutex whose owner inherits the priority of those who wait for it.
struct PriorityInheritance {};
inline constexpr PriorityInheritance kPriorityInheritance;

/// A mutex that clang's thread-safety analysis knows.
class VORREL_THREAD_ANNOTATION(capability("mutex")) Mutex {
public:
    Mutex() = default;
    /// For a mutex that the device's thread takes: a worker that holds it is not kept from its
    /// processor by threads in between. Where the system has no such mutex, it is an ordinary one.
    explicit Mutex(PriorityInheritance) { SetPriorityInheritance(impl); }

    void lock() VORREL_THREAD_ANNOTATION(acquire_capability()) { impl.lock(); }
    void unlock() VORREL_THREAD_ANNOTATION(release_capability()) { impl.unlock(); }

private:
    static void SetPriorityInheritance(std::mutex& mutex);

    friend class ConditionVariable;
    std::mutex impl;
};

/// Holds a `Mutex` for the life of a scope.
class VORREL_THREAD_ANNOTATION(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& lockable) VORREL_THREAD_ANNOTATION(acquire_capability(lockable))
        : mutex(lockable) {
        mutex.lock();
    }
    ~MutexLock() VORREL_THREAD_ANNOTATION(release_capability()) { mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex;
};

/// A condition variable over `Mutex`. Waits may wake spuriously: wait in a loop.
class ConditionVariable {
public:
    void NotifyOne() noexcept { impl.notify_one(); }
    void NotifyAll() noexcept { impl.notify_all(); }

    void Wait(Mutex& mutex) VORREL_REQUIRES(mutex) {
        std::unique_lock<std::mutex> adopted(mutex.impl, std::adopt_lock);
        impl.wait(adopted);
        adopted.release();
    }

    /// @return false after the time-out.
    template <class Rep, class Period>
    bool WaitFor(Mutex& mutex, const std::chrono::duration<Rep, Period>& timeout)
        VORREL_REQUIRES(mutex) {
        std::unique_lock<std::mutex> adopted(mutex.impl, std::adopt_lock);
        const auto status = impl.wait_for(adopted, timeout);
        adopted.release();
        return status == std::cv_status::no_timeout;
    }

private:
    std::condition_variable impl;
};

}  // namespace vorrel
