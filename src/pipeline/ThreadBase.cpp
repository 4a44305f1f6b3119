#include "pipeline/ThreadBase.h"

#include <algorithm>
#include <cassert>
#include <exception>
#include <system_error>
#include <utility>

#include "platform/ThreadPriority.h"
#include "platform/Trace.h"

namespace vorrel {

namespace {

double SystemPriority(Priority priority) {
    switch (priority) {
        case PriorityHigh:
            return 0.75;
        case PriorityHighest:
            return 1.0;
        case PriorityNormal:
            break;
    }
    return 0.5;
}

}  // namespace

ThreadBase::ThreadBase() : ThreadBase(1) {}

ThreadBase::ThreadBase(unsigned count) {
    ResetEventNum(count);
}

ThreadBase::~ThreadBase() {
    Join();
    WaitFinished();
}

bool ThreadBase::Create(Priority newPriority) {
    // Held while the thread is made, so that a body that detaches itself at once finds `thread`.
    const MutexLock lock(*eventMutexes[0]);
    if (thread != nullptr) {
        return false;
    }
    {
        const MutexLock bodyLock(bodyMutex);
        ++runningBodies;
    }
    const Priority oldPriority = priority.exchange(newPriority);
    try {
        thread = std::make_unique<std::thread>(&ThreadBase::ThreadProc, this);
    } catch (const std::exception& error) {  // no memory, or the system's limit of threads
        Trace(__FILE__, __LINE__, "no thread for a worker: %s", error.what());
        priority = oldPriority;
        const MutexLock bodyLock(bodyMutex);
        --runningBodies;
        bodyFinished.NotifyAll();
        return false;
    }
    joinable.store(true, std::memory_order_release);
    return true;
}

bool ThreadBase::Joinable() const {
    return joinable.load(std::memory_order_acquire);
}

void ThreadBase::Join() {
    std::unique_ptr<std::thread> taken;
    {
        const MutexLock lock(*eventMutexes[0]);
        taken = std::move(thread);
        joinable.store(false, std::memory_order_release);
    }
    // Outside the lock: the body may need the event's mutex on its way to its end.
    if (taken != nullptr) {
        taken->join();
    }
}

void ThreadBase::Detach() {
    const MutexLock lock(*eventMutexes[0]);
    if (thread != nullptr) {
        thread->detach();
        thread.reset();
        joinable.store(false, std::memory_order_release);
    }
}

void ThreadBase::WaitFinished() {
    const MutexLock lock(bodyMutex);
    while (runningBodies > 0) {
        bodyFinished.Wait(bodyMutex);
    }
}

void ThreadBase::SetEvent(unsigned n) {
    assert(n < eventCount);
    const MutexLock lock(*eventMutexes[n]);
    *eventFlags[n] = true;
    eventConditions[n]->NotifyOne();
}

void ThreadBase::ResetEvent(unsigned n) {
    assert(n < eventCount);
    const MutexLock lock(*eventMutexes[n]);
    *eventFlags[n] = false;
}

void ThreadBase::WaitEvent(unsigned n) {
    assert(n < eventCount);
    Mutex& mutex = *eventMutexes[n];
    const MutexLock lock(mutex);
    while (!*eventFlags[n]) {
        eventConditions[n]->Wait(mutex);
    }
    *eventFlags[n] = false;
}

unsigned ThreadBase::ResetEventNum(unsigned count) {
    eventCount = std::max(count, 1U);
    eventMutexes.resize(eventCount);
    eventConditions.resize(eventCount);
    eventFlags.resize(eventCount);
    for (unsigned n = 0; n < eventCount; ++n) {
        eventMutexes[n] = std::make_shared<Mutex>(kPriorityInheritance);
        eventConditions[n] = std::make_shared<ConditionVariable>();
        eventFlags[n] = std::make_shared<bool>(false);
    }
    return eventCount;
}

void ThreadBase::ThreadProc(void* self) {
    auto& worker = *static_cast<ThreadBase*>(self);
    try {
        SetCurrentThreadPriority(SystemPriority(worker.priority));
    } catch (const std::exception&) {
        // Memory is short for the line that traces a refusal: the worker runs all the same.
    }
    try {
        worker.ThreadImpl();
    } catch (const std::exception& error) {
        Trace(__FILE__, __LINE__, "a worker ended by an exception: %s", error.what());
    } catch (...) {
        Trace(__FILE__, __LINE__, "a worker ended by an exception");
    }
    // The last touch of the worker, under the lock that its destructor needs.
    const MutexLock lock(worker.bodyMutex);
    --worker.runningBodies;
    worker.bodyFinished.NotifyAll();
}

}  // namespace vorrel
