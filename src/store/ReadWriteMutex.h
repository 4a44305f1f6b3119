#pragma once

#include <shared_mutex>

#include "platform/Mutex.h"

namespace vorrel {

/// A mutex with many readers or one writer that clang's thread-safety analysis knows. A writer
/// waits only for the readers before it: `std::shared_mutex` alone may let readers who overlap keep
/// it out for good. Nor can a writer that comes back at once: who waits is let in first. So a
/// thread must not ask to read where it reads already.
class VORREL_THREAD_ANNOTATION(capability("shared_mutex")) ReadWriteMutex {
public:
    void lock() VORREL_THREAD_ANNOTATION(acquire_capability()) {
        const MutexLock turn(entrance);
        impl.lock();
    }
    void unlock() VORREL_THREAD_ANNOTATION(release_capability()) { impl.unlock(); }
    void lock_shared() VORREL_THREAD_ANNOTATION(acquire_shared_capability()) {
        const MutexLock turn(entrance);
        impl.lock_shared();
    }
    void unlock_shared() VORREL_THREAD_ANNOTATION(release_shared_capability()) {
        impl.unlock_shared();
    }

private:
    // Held by the one who waits; those behind it wait here, workers of a higher priority among
    // them.
    Mutex entrance{kPriorityInheritance};
    std::shared_mutex impl;
};

/// Holds a `ReadWriteMutex` alone for the life of a scope.
class VORREL_THREAD_ANNOTATION(scoped_lockable) ExclusiveLock {
public:
    explicit ExclusiveLock(ReadWriteMutex& lockable)
        VORREL_THREAD_ANNOTATION(acquire_capability(lockable))
        : mutex(lockable) {
        mutex.lock();
    }
    ~ExclusiveLock() VORREL_THREAD_ANNOTATION(release_capability()) { mutex.unlock(); }
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;

private:
    ReadWriteMutex& mutex;
};

/// Holds a `ReadWriteMutex` beside other readers for the life of a scope.
class VORREL_THREAD_ANNOTATION(scoped_lockable) SharedLock {
public:
    explicit SharedLock(ReadWriteMutex& lockable)
        VORREL_THREAD_ANNOTATION(acquire_shared_capability(lockable))
        : mutex(lockable) {
        mutex.lock_shared();
    }
    ~SharedLock() VORREL_THREAD_ANNOTATION(release_generic_capability()) { mutex.unlock_shared(); }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

private:
    ReadWriteMutex& mutex;
};

}  // namespace vorrel
