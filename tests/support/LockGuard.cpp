#include "support/LockGuard.h"

#include <pthread.h>
#include <semaphore.h>

#include <array>
#include <atomic>

#include "platform/Realtime.h"

namespace {

std::atomic<std::size_t> locks{0};
std::atomic<std::size_t> waits{0};
std::array<std::atomic<const void*>, 16> mutexes{};

void NoteLock(const void* mutex) noexcept {
    if (!vorrel::RealtimeScope::Active()) {
        return;
    }
    locks.fetch_add(1, std::memory_order_relaxed);
    for (std::atomic<const void*>& known : mutexes) {
        const void* expected = nullptr;
        if (known.compare_exchange_strong(expected, mutex) || expected == mutex) {
            return;
        }
    }
}

void NoteWait() noexcept {
    if (vorrel::RealtimeScope::Active()) {
        waits.fetch_add(1, std::memory_order_relaxed);
    }
}

}  // namespace

// The linker's names for a call that was sent here and for the function itself.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    NoteLock(mutex);
    return __real_pthread_mutex_lock(mutex);
}

#define VORREL_TEST_WRAP_WAIT(name, parameters, arguments) \
    int __real_##name parameters;                          \
    int __wrap_##name parameters;                          \
    int __wrap_##name parameters {                         \
        NoteWait();                                        \
        return __real_##name arguments;                    \
    }

VORREL_TEST_WRAP_WAIT(pthread_rwlock_rdlock, (pthread_rwlock_t * lock), (lock))
VORREL_TEST_WRAP_WAIT(pthread_rwlock_wrlock, (pthread_rwlock_t * lock), (lock))
VORREL_TEST_WRAP_WAIT(pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
                      (condition, mutex))
VORREL_TEST_WRAP_WAIT(pthread_join, (pthread_t thread, void** result), (thread, result))
VORREL_TEST_WRAP_WAIT(sem_wait, (sem_t * semaphore), (semaphore))

#undef VORREL_TEST_WRAP_WAIT

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace vorrel::test {

LockGuard::LockGuard() {
    locks = 0;
    waits = 0;
    for (std::atomic<const void*>& mutex : mutexes) {
        mutex = nullptr;
    }
}

std::size_t LockGuard::Count() const {
    return locks;
}

std::size_t LockGuard::Mutexes() const {
    std::size_t count = 0;
    while (count < mutexes.size() && mutexes[count] != nullptr) {
        ++count;
    }
    return count;
}

std::size_t LockGuard::Waits() const {
    return waits;
}

}  // namespace vorrel::test
