#pragma once

#include <functional>
#include <list>
#include <string>
#include <thread>

#include "platform/Mutex.h"

namespace vorrel {

/// Runs tasks one after another, in order of submission, on one thread of its own. The thread
/// begins with the first task. Any thread may submit.
class SerialQueue {
    struct Task {
        std::function<void()> run;
        bool* finished = nullptr;  // set under the mutex when it has run; null: nobody waits
    };

public:
    /// A task with everything that it takes to queue it.
    class Prepared {
        friend class SerialQueue;
        std::list<Task> task;  // one, or none once it is queued
    };

    /// @param label  Name of the thread as debuggers show it (the first 15 bytes).
    explicit SerialQueue(std::string label);
    /// Runs what is still queued, tasks that these tasks submit included, then ends the thread. Not
    /// to be called from a task of this queue.
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    /// Runs what is still queued, tasks that these tasks submit included, and ends the thread, as
    /// the destructor does. A task that is submitted when the thread has ended is dropped: `Async`
    /// and `Sync` return at once. Not to be called from a task of this queue.
    void Close() VORREL_EXCLUDES(mutex);

    /// Queues `task` and returns at once. What a task throws is traced and goes no further.
    /// @throws std::system_error  The thread cannot be started; `task` is not queued then.
    /// @throws std::bad_alloc     No memory to queue it; likewise.
    void Async(std::function<void()> task) VORREL_EXCLUDES(mutex);
    /// Queues `task` and returns after it has run, or at once behind the end of `Close`, when
    /// nobody would run it. Not to be called from a task of this queue.
    /// @throws std::system_error, std::bad_alloc  As `Async`.
    void Sync(std::function<void()> task) VORREL_EXCLUDES(mutex);

    /// Does all of `Async` and `Sync` that can fail, for a task that may follow only what cannot be
    /// taken back.
    /// @throws std::system_error, std::bad_alloc  As `Async`.
    Prepared Prepare(std::function<void()> task) VORREL_EXCLUDES(mutex);
    void Async(Prepared prepared) noexcept VORREL_EXCLUDES(mutex);
    void Sync(Prepared prepared) noexcept VORREL_EXCLUDES(mutex);

private:
    void Run() VORREL_EXCLUDES(mutex);
    bool Queue(std::list<Task>& task) noexcept VORREL_EXCLUDES(mutex);

    std::string label;
    Mutex mutex;
    ConditionVariable condition;
    std::list<Task> tasks VORREL_GUARDED_BY(mutex);
    bool closing VORREL_GUARDED_BY(mutex) = false;
    bool running VORREL_GUARDED_BY(mutex) = false;  // until the thread takes no more tasks
    std::thread thread VORREL_GUARDED_BY(mutex);
};

}  // namespace vorrel
